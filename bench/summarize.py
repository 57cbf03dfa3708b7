#!/usr/bin/env python3
"""Prints every benchmark pair of a Google Benchmark JSON report with the ratio to its peer.

Usage: summarize.py RESULTS.json

The ratio is the subject's wall-clock time per byte (or per item) divided by the peer's, from the
medians of the repetitions (or the single run when there are none): 1.00 is as fast as the peer,
1.10 is 10 % slower. The cpu ratio is the same for the processor time of the benchmark process
alone (not its children's, not time spent waiting). Noise is the larger coefficient of variation
of the two benchmarks' wall-clock times over their repetitions.
Exits 1 when a benchmark reported an error or the report holds none of the pairs.
"""

import json
import sys

# subject, peer, largest acceptable ratio (None: reported for information)
PAIRS = [
    ("ReadCached/File_read", "ReadCached/read2_copy", 1.10),
    ("ReadCached/File_read_until_end", "ReadCached/read2_copy", None),
    ("ReadCached/File_read", "ReadCached/ifstream_read", None),
    ("ReadCached/read2_copy", "ReadCached/ifstream_read", None),
    ("ReadCached/File_get", "ReadCached/ifstream_get", None),
    ("ReadDropped/File_read", "ReadDropped/ifstream_read", 1.05),
    ("ReadDropped/File_read_until_end", "ReadDropped/ifstream_read", None),
    ("ReadDropped/File_read_until_end", "ReadDropped/read2_copy", None),
    ("ReadDropped/read2_copy", "ReadDropped/ifstream_read", None),
    ("ReadDropped/File_get", "ReadDropped/ifstream_get", None),
    ("Write/File", "Write/ofstream_syncfs_each_64KiB", 1.05),
    ("Write/File", "Write/ofstream_syncfs_at_end", None),
    ("Write/File", "Write/write2_syncfs_at_end", None),
    ("DurableWrite/File_DurableLinuxApi", "DurableWrite/write2_fdatasync_each_64KiB", 1.10),
    ("DurableWrite/File", "DurableWrite/write2_fdatasync_each_64KiB", None),
    ("DirectorySize/Directory", "DirectorySize/recursive_directory_iterator", 1.25),
    ("DirectorySize/Directory", "DirectorySize/nftw", None),
    ("FileList/TarApi", "FileList/popen_tar", 1.20),
    ("FileList/StreamingTarApi", "FileList/popen_tar", 1.20),
    ("FileList50k/StreamingTarApi", "FileList50k/popen_tar", 0.80),
    ("FileList100k/StreamingTarApi", "FileList100k/popen_tar", 0.80),
    ("FileList300/StreamingTarApi_1GiB_caller", "FileList300/StreamingTarApi", 1.10),
    ("FileList300/TarApi_1GiB_caller", "FileList300/TarApi", None),
    ("Extract/drxfs_progress", "Extract/drxfs", 1.02),
    ("Start/fork_exec", "Start/posix_spawn", None),
    ("Usage/GetPercentageUsed", "Usage/statfs", None),
    ("Usage/GetFileSystemUsedSize", "Usage/statfs", None),
    ("Replace4KiB/AtomicFile", "Replace4KiB/by_hand", 1.10),
    ("Replace1MiB/AtomicFile", "Replace1MiB/by_hand", 1.10),
]

# Keys of a run that are not user counters.
STANDARD = {
    "family_index", "per_family_instance_index", "repetitions", "repetition_index", "threads",
    "iterations", "real_time", "cpu_time", "bytes_per_second", "items_per_second",
}

SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def base_name(entry):
    name = entry.get("run_name", entry["name"])
    return "/".join(part for part in name.split("/") if not part.startswith(("repeats:", "iterations:", "min_time:", "real_time")))


def collect(report):
    """Per benchmark: median seconds per iteration, rate, rate unit, noise; and the errors."""
    runs, medians, noise, errors = {}, {}, {}, []
    for entry in report["benchmarks"]:
        name = base_name(entry)
        if entry.get("error_occurred"):
            errors.append(f"{name}: {entry.get('error_message', 'error')}")
            continue
        kind = entry.get("run_type", "iteration")
        if kind == "iteration":
            runs.setdefault(name, []).append(entry)
        elif entry.get("aggregate_name") == "median":
            medians[name] = entry
        elif entry.get("aggregate_name") == "cv":
            noise[name] = entry["real_time"]
    results = {}
    for name in set(runs) | set(medians):
        entry = medians.get(name)
        if entry is None:
            entries = sorted(runs[name], key=lambda e: e["real_time"])
            entry = entries[len(entries) // 2]
        if "bytes_per_second" in entry:
            rate, unit = entry["bytes_per_second"], "B/s"
        elif "items_per_second" in entry:
            rate, unit = entry["items_per_second"], "/s"
        else:
            rate, unit = None, ""
        scale = SECONDS[entry.get("time_unit", "ns")]
        seconds = entry["real_time"] * scale
        cpu = entry["cpu_time"] * scale
        counters = {
            key: value for key, value in entry.items()
            if key not in STANDARD and isinstance(value, (int, float))
            and not isinstance(value, bool)
        }
        results[name] = (seconds, rate, unit, noise.get(name), counters, cpu)
    return results, errors


def format_rate(rate, unit):
    if rate is None:
        return "-"
    if unit == "B/s":
        for scale, prefix in ((2**30, "GiB/s"), (2**20, "MiB/s"), (2**10, "KiB/s")):
            if rate >= scale:
                return f"{rate / scale:.2f} {prefix}"
        return f"{rate:.0f} B/s"
    for scale, prefix in ((1e6, "M/s"), (1e3, "k/s")):
        if rate >= scale:
            return f"{rate / scale:.1f} {prefix}"
    return f"{rate:.1f} /s"


def format_time(seconds):
    for scale, unit in ((1.0, "s"), (1e-3, "ms"), (1e-6, "us")):
        if seconds >= scale:
            return f"{seconds / scale:.3g} {unit}"
    return f"{seconds / 1e-9:.3g} ns"


def main(path):
    with open(path, encoding="utf-8") as stream:
        report = json.load(stream)
    results, errors = collect(report)
    context = report.get("context", {})
    load = context.get("load_avg")
    if load:
        print("load average at the start: " + ", ".join(f"{value:.2f}" for value in load))
    rows = []
    paired = set()
    for subject, peer, target in PAIRS:
        if subject not in results or peer not in results:
            continue
        paired.update((subject, peer))
        s_seconds, s_rate, s_unit, s_noise, _, s_cpu = results[subject]
        p_seconds, p_rate, p_unit, p_noise, _, p_cpu = results[peer]
        # Work done per iteration, in bytes or items; 1 when no rate was reported.
        s_work = s_rate * s_seconds if s_rate else 1.0
        p_work = p_rate * p_seconds if p_rate else 1.0
        ratio = (s_seconds / s_work) / (p_seconds / p_work)
        cpu_ratio = (s_cpu / s_work) / (p_cpu / p_work) if p_cpu > 0 else float("nan")
        verdict = "" if target is None else ("met" if ratio <= target else "MISSED")
        noises = [value for value in (s_noise, p_noise) if value is not None]
        rows.append(
            (
                subject,
                peer.split("/", 1)[1],
                format_rate(s_rate, s_unit),
                format_rate(p_rate, p_unit),
                f"{ratio:.2f}",
                f"{cpu_ratio:.2f}",
                "" if target is None else f"<= {target:.2f}",
                verdict,
                f"{max(noises) * 100:.0f} %" if noises else "-",
            )
        )
    header = ("subject", "peer", "subject rate", "peer rate", "ratio", "cpu ratio", "target", "",
              "noise")
    widths = [max(len(row[i]) for row in rows + [header]) for i in range(len(header))]
    for row in [header] + rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
    for name in sorted(set(results) - paired):
        seconds, rate, unit = results[name][:3]
        print(f"{name}: {format_time(seconds)} per iteration, {format_rate(rate, unit)}")
    for name in sorted(results):
        for key, value in sorted(results[name][4].items()):
            print(f"{name}: {key} = {value:.3g}")
    for error in errors:
        print("error: " + error)
    return 1 if errors or not rows else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1]))
