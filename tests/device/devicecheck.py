#!/usr/bin/env python3
"""Host side of the emulated-device runs: module load order, the suite's results, the writers'
acknowledgements against the file recovered from the card, and replay of a write log."""
import argparse
import os
import re
import struct
import sys
import xml.etree.ElementTree as ElementTree

# The write log's format: a superblock in sector 0, then per entry one header sector followed
# by its data sectors (none for a discard).
LOG_MAGIC = 0x6A736677736872
LOG_FLUSH, LOG_FUA, LOG_DISCARD, LOG_MARK = 1, 2, 4, 8


def module_order(args):
    """Prints the modules to load, dependencies first, as paths below the modules directory."""
    deps = {}
    with open(os.path.join(args.moddir, "modules.dep"), encoding="utf-8") as dep_file:
        for line in dep_file:
            module, _, rest = line.partition(":")
            deps[module] = rest.split()
    by_name = {re.sub(r"\.ko(\.\w+)?$", "", os.path.basename(m)).replace("-", "_"): m for m in deps}
    order = []

    def visit(module):
        if module in order:
            return
        # modules.dep lists the module loaded last first.
        for dependency in reversed(deps[module]):
            visit(dependency)
        order.append(module)

    for name in args.names:
        key = name.replace("-", "_")
        if key not in by_name:
            sys.exit(f"devicecheck: no module {name}")
        visit(by_name[key])
    print("\n".join(order))


def sections(path):
    """Splits a results console into {(kind, binary): text} at its '@@KIND binary' lines."""
    result, current, lines = {}, None, []
    with open(path, encoding="utf-8", errors="replace") as console:
        for line in console:
            match = re.match(r"^@@(LIST|XML|END) (\S+)\s*$", line)
            if match:
                if current:
                    result[current] = "".join(lines)
                current = (match.group(1), match.group(2)) if match.group(1) != "END" else None
                lines = []
            elif current:
                lines.append(line)
    if current:
        result[current] = "".join(lines)
    return result


def listed_tests(text):
    names, suite = [], None
    for line in text.splitlines():
        line = line.split("#")[0].rstrip()
        if not line:
            continue
        if not line.startswith(" "):
            suite = line.strip()
        else:
            names.append(suite + line.strip())
    return names


def suite_results(args):
    """Prints 'device FS: N passed, M failed' (and the skips with their reasons); fails on any
    failed or missing test, or on a binary that reported nothing."""
    parts = sections(args.console)
    passed, failed, skipped, missing = 0, [], [], []
    for binary in args.binaries:
        listing = parts.get(("LIST", binary), "")
        expected = listed_tests(listing)
        seen = {}
        xml_text = parts.get(("XML", binary), "")
        try:
            root = ElementTree.fromstring(xml_text) if xml_text.strip() else None
        except ElementTree.ParseError as error:
            print(f"device {args.fs}: {binary}: unreadable results ({error})")
            root = None
        if root is None or not expected:
            failed.append(f"{binary}: no results" if expected else f"{binary}: no test list")
            continue
        for case in root.iter("testcase"):
            name = f"{case.get('classname')}.{case.get('name')}"
            if case.find("failure") is not None:
                seen[name] = "failed"
            elif case.get("result") == "skipped" or case.find("skipped") is not None:
                element = case.find("skipped")
                reason = element.get("message", "") if element is not None else ""
                seen[name] = "skipped"
                skipped.append(f"{name}: {reason.strip().splitlines()[-1] if reason else '?'}")
            elif case.get("status") == "run":
                seen[name] = "passed"
        for name in expected:
            state = seen.get(name)
            if state is None:
                missing.append(f"{binary}: {name}")
            elif state == "failed":
                failed.append(name)
            elif state == "passed":
                passed += 1
    for name in failed:
        print(f"device {args.fs}: FAILED {name}")
    for name in missing:
        print(f"device {args.fs}: MISSING {name}")
    for line in skipped:
        print(f"device {args.fs}: skipped {line}")
    print(f"device {args.fs}: {len(skipped)} skipped, {len(missing)} missing")
    print(f"device {args.fs}: {passed} passed, {len(failed) + len(missing)} failed")
    return 1 if failed or missing or passed == 0 else 0


def pattern_byte(offset):
    return (((offset * 2654435761) & 0xFFFFFFFFFFFFFFFF) >> 16) & 0xFF


def fnv1a(data):
    value = 14695981039346656037
    for byte in data:
        value = ((value ^ byte) * 1099511628211) & 0xFFFFFFFFFFFFFFFF
    return value


def check_acks(args):
    """Prints 'acked=A lost=L records=R foreign=F size=S': the acknowledged bytes, those of them
    missing or wrong in the recovered file, and bytes anywhere in the file that no writer wrote."""
    data = b""
    if os.path.exists(args.data):
        with open(args.data, "rb") as data_file:
            data = data_file.read()
    acked = lost = records = 0
    with open(args.acks, encoding="ascii", errors="replace") as ack_file:
        for line in ack_file:
            match = re.match(r"^ACK (\d+) (\d+) ([0-9a-f]{16})$", line.strip())
            if not match:
                continue
            offset, length, checksum = int(match[1]), int(match[2]), int(match[3], 16)
            expected = bytes(pattern_byte(offset + i) for i in range(length))
            if fnv1a(expected) != checksum:
                sys.exit(f"devicecheck: acknowledgement at {offset} does not match the pattern")
            stored = data[offset:offset + length]
            lost += sum(1 for i in range(length) if i >= len(stored) or stored[i] != expected[i])
            acked += length
            records += 1
    foreign = sum(1 for i, byte in enumerate(data) if byte != pattern_byte(i))
    print(f"acked={acked} lost={lost} records={records} foreign={foreign} size={len(data)}")


def make_version(number):
    header = f"version {number}\n".encode()
    size = 700 if number % 2 == 0 else 37000
    return header + bytes(pattern_byte(number * 1000003 + i) for i in range(len(header), size))


def check_versions(args):
    """Prints 'acked=A lost=L foreign=F version=V': the acknowledged replacements; 1 lost when the
    file is not a complete version at least as new as the last acknowledged one (missing is
    right only before the first); and the file's size as foreign bytes when it is no complete
    version at all (a torn or mixed file)."""
    acked, last = 0, -1
    with open(args.acks, encoding="ascii", errors="replace") as ack_file:
        for line in ack_file:
            match = re.match(r"^VERSION (\d+) (\d+)$", line.strip())
            if match:
                if len(make_version(int(match[1]))) != int(match[2]):
                    sys.exit(f"devicecheck: acknowledged version {match[1]} has another size")
                acked, last = acked + 1, max(last, int(match[1]))
    version, complete = "none", not os.path.exists(args.data)
    size = 0
    if not complete:
        with open(args.data, "rb") as data_file:
            data = data_file.read()
        size = len(data)
        match = re.match(rb"^version (\d+)\n", data)
        if match and data == make_version(int(match[1])):
            version, complete = int(match[1]), True
    kept = complete and (last < 0 or (version != "none" and version >= last))
    print(f"acked={acked} lost={0 if kept else 1} foreign={0 if complete else max(size, 1)}"
          f" version={version} last={last}")


# What fsck.fat -n may find on a card cut while a file grew or was replaced, none of it a loss of
# data the writer was told was kept: clusters allocated beyond a file's size, clusters of a
# replaced content not yet marked free, a stale free-cluster hint, a second FAT behind the first.
FAT_LEFTOVERS = re.compile(
    r"File size is \d+ bytes, cluster chain length is > \d+ bytes\.|Truncating file to \d+ bytes\."
    r"|Free cluster summary wrong|FATs differ but appear to be intact|Using first FAT"
    r"|Reclaimed \d+ unused clusters|Auto-correcting\.")
# And on a temporary file of AtomicFile's cut while it was fsynced: FAT's fsync writes the file's
# directory entry before the FAT, so the entry can name a cluster the FAT still shows free.
TEMPORARY = re.compile(r"^/(.*/)?\.[^/]+\.[A-Za-z0-9]{6}$")
TEMPORARY_DAMAGE = re.compile(
    r"Contains a free cluster \(\d+\)\. Assuming EOF\."
    r"|File size is \d+ bytes, cluster chain length is 0 bytes\.|Truncating file to 0 bytes\.")


def fat_report(args):
    """Prints 'leftovers=yes|no temporary=yes|no' for a fsck.fat -n report and fails, printing
    them, when it holds findings of any other kind."""
    leftovers = temporary = False
    entry, unexplained = "", []
    with open(args.report, encoding="utf-8", errors="replace") as report:
        for line in report:
            line = line.strip()
            if (not line or line.startswith("fsck.fat ") or line == "Leaving filesystem unchanged."
                    or re.match(r"^/.*: \d+ files, \d+/\d+ clusters$", line)):
                continue
            if line.startswith("/"):
                entry = line
            elif TEMPORARY.match(entry) and TEMPORARY_DAMAGE.fullmatch(line):
                temporary = True
            elif FAT_LEFTOVERS.match(line):
                leftovers = True
            else:
                unexplained.append(f"{entry}: {line}" if entry else line)
    print(f"leftovers={'yes' if leftovers else 'no'} temporary={'yes' if temporary else 'no'}")
    for line in unexplained:
        print(f"unexplained: {line}", file=sys.stderr)
    return 1 if unexplained else 0


def read_log(path):
    """Returns (sector size, [(sector, sectors, flags, data offset in the log)])."""
    with open(path, "rb") as log:
        header = log.read(28)
        # The superblock is first written at the first flush: without one, none was logged.
        if len(header) < 28 or header == bytes(28):
            return 512, []
        magic, version, count, sector_size = struct.unpack("<QQQI", header)
        if magic != LOG_MAGIC or version != 1:
            sys.exit(f"devicecheck: {path} is not a write log")
        entries, position = [], sector_size
        for _ in range(count):
            log.seek(position)
            sector, sectors, flags, _ = struct.unpack("<QQQQ", log.read(32))
            position += sector_size
            entries.append((sector, sectors, flags, position))
            if not flags & LOG_DISCARD:
                position += sectors * sector_size
    return sector_size, entries


def log_flushes(args):
    """Prints the entry numbers of the log's flushes, one per line, in order."""
    _, entries = read_log(args.log)
    for number, entry in enumerate(entries):
        if entry[2] & LOG_FLUSH:
            print(number)


def replay(args):
    """Applies the log's writes before entry UNTIL (all of them for -1) onto IMAGE."""
    sector_size, entries = read_log(args.log)
    until = len(entries) if args.until < 0 else args.until
    with open(args.log, "rb") as log, open(args.image, "r+b") as image:
        for sector, sectors, flags, position in entries[:until]:
            if flags & LOG_FLUSH or sectors == 0:
                continue
            image.seek(sector * sector_size)
            if flags & LOG_DISCARD:
                image.write(bytes(sectors * sector_size))
            else:
                log.seek(position)
                image.write(log.read(sectors * sector_size))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    commands = parser.add_subparsers(required=True)
    command = commands.add_parser("modules")
    command.add_argument("moddir")
    command.add_argument("names", nargs="+")
    command.set_defaults(run=module_order)
    command = commands.add_parser("suite")
    command.add_argument("fs")
    command.add_argument("console")
    command.add_argument("binaries", nargs="+")
    command.set_defaults(run=suite_results)
    command = commands.add_parser("acks")
    command.add_argument("acks")
    command.add_argument("data")
    command.set_defaults(run=check_acks)
    command = commands.add_parser("versions")
    command.add_argument("acks")
    command.add_argument("data")
    command.set_defaults(run=check_versions)
    command = commands.add_parser("fatreport")
    command.add_argument("report")
    command.set_defaults(run=fat_report)
    command = commands.add_parser("flushes")
    command.add_argument("log")
    command.set_defaults(run=log_flushes)
    command = commands.add_parser("replay")
    command.add_argument("log")
    command.add_argument("image")
    command.add_argument("until", type=int)
    command.set_defaults(run=replay)
    args = parser.parse_args()
    sys.exit(args.run(args) or 0)


if __name__ == "__main__":
    main()
