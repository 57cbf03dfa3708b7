#!/usr/bin/env python3
"""Host side of the emulated-device runs: module load order, the suite's results, the writers'
acknowledgements against the file recovered from the card, and replay of a write log."""
import argparse
import mmap
import os
import random
import re
import struct
import subprocess
import sys
import time
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


class Pattern:
    """The record writers' bytes, computed once per run and compared a slice at a time."""

    def __init__(self):
        self.bytes = b""

    def get(self, end):
        if len(self.bytes) < end:
            size = max(end, 2 * len(self.bytes), 1 << 20)
            self.bytes = bytes(pattern_byte(i) for i in range(size))
        return self.bytes[:end]


PATTERN = Pattern()


def ack_lines(path):
    with open(path, encoding="ascii", errors="replace") as ack_file:
        return [line.strip() for line in ack_file]


def judge_records(lines, data):
    """(acked, lost, foreign): the acknowledged bytes, those of them missing or wrong in data,
    and bytes anywhere in data that no writer wrote."""
    acked = lost = 0
    for line in lines:
        match = re.match(r"^ACK (\d+) (\d+) ([0-9a-f]{16})$", line)
        if not match:
            continue
        offset, length = int(match[1]), int(match[2])
        expected = PATTERN.get(offset + length)[offset:]
        stored = data[offset:offset + length]
        if stored != expected:
            lost += sum(1 for i in range(length) if i >= len(stored) or stored[i] != expected[i])
        acked += length
    pattern = PATTERN.get(len(data))
    foreign = 0 if data == pattern else sum(1 for a, b in zip(data, pattern) if a != b)
    return acked, lost, foreign


def make_version(number):
    header = f"version {number}\n".encode()
    size = 700 if number % 2 == 0 else 37000
    return header + bytes(pattern_byte(number * 1000003 + i) for i in range(len(header), size))


def judge_versions(lines, data):
    """(acked, lost, foreign, version, last): the acknowledged replacements; 1 lost when data
    (None: no file) is not a complete version at least as new as the last acknowledged one
    (missing is right only before the first); and its size as foreign bytes when it is no
    complete version at all (a torn or mixed file)."""
    acked, last = 0, -1
    for line in lines:
        match = re.match(r"^VERSION (\d+) (\d+)$", line)
        if match:
            if len(make_version(int(match[1]))) != int(match[2]):
                sys.exit(f"devicecheck: acknowledged version {match[1]} has another size")
            acked, last = acked + 1, max(last, int(match[1]))
    version, complete = "none", data is None
    if data is not None:
        match = re.match(rb"^version (\d+)\n", data)
        if match and data == make_version(int(match[1])):
            version, complete = int(match[1]), True
    kept = complete and (last < 0 or (version != "none" and version >= last))
    return acked, 0 if kept else 1, 0 if complete else max(len(data), 1), version, last


# What fsck.fat -n may find on a card cut while a file grew or was replaced, none of it a loss of
# data the writer was told was kept: clusters allocated beyond a file's size, an entry whose size
# already counts the tail being synced when the cut came (FAT's fsync may write the entry before
# the FAT; the acknowledged bytes are checked apart), clusters of a replaced content not yet
# marked free, a stale free-cluster hint, a second FAT behind the first.
FAT_LEFTOVERS = re.compile(
    r"File size is \d+ bytes, cluster chain length is >? ?\d+ bytes\.|Truncating file to \d+ bytes\."
    r"|Free cluster summary wrong|FATs differ but appear to be intact|Using first FAT"
    r"|Reclaimed \d+ unused clusters?|Auto-correcting\.")
# And on a temporary file of AtomicFile's cut while it was fsynced: FAT's fsync writes the file's
# directory entry before the FAT, so the entry can name a cluster the FAT still shows free (or,
# with a FAT sector torn, a chain that ends early).
TEMPORARY = re.compile(r"^/(.*/)?\.[^/]+\.[A-Za-z0-9]{6}$")
TEMPORARY_DAMAGE = re.compile(
    r"Contains a free cluster \(\d+\)\. Assuming EOF\."
    r"|File size is \d+ bytes, cluster chain length is \d+ bytes\.")


def fat_findings(text):
    """(leftovers, temporary damaged, unexplained findings) of a fsck.fat -n report."""
    leftovers = temporary = False
    entry, unexplained = "", []
    for line in text.splitlines():
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
    return leftovers, temporary, unexplained


class ExFat:
    """Just enough of exFAT to read a file and its allocation without mounting: the boot
    sector, the FAT, the allocation bitmap (entry 0x81) and file entry sets (0x85, stream
    extension 0xC0 with first cluster, lengths and the NoFatChain flag, names in 0xC1)."""

    def __init__(self, image):
        self.image = image
        boot = image[:512]
        if boot[3:11] != b"EXFAT   ":
            raise ValueError("no exFAT boot sector")
        (self.fat_offset, _, self.heap_offset, self.cluster_count,
         root) = struct.unpack_from("<IIIII", boot, 0x50)
        self.sector = 1 << boot[0x6C]
        self.cluster = self.sector << boot[0x6D]
        self.bitmap = None
        for entry in self.entries(root, False, None):
            if entry[0] == 0x81:
                first, length = struct.unpack_from("<IQ", entry, 20)
                self.bitmap = self.read(first, True, length, length)
                self.bitmap_at = self.heap_offset * self.sector + (first - 2) * self.cluster
                break
        if self.bitmap is None:
            raise ValueError("no allocation bitmap")
        self.root = root

    def chain(self, first, contiguous, length):
        count = (length + self.cluster - 1) // self.cluster
        if contiguous:
            return list(range(first, first + count))
        clusters, cluster = [], first
        while 2 <= cluster < self.cluster_count + 2 and len(clusters) < max(count, 1) * 2 + 4096:
            clusters.append(cluster)
            (cluster,) = struct.unpack_from("<I", self.image,
                                            self.fat_offset * self.sector + cluster * 4)
        return clusters

    def read(self, first, contiguous, length, valid):
        parts = []
        for cluster in self.chain(first, contiguous, length) if first else []:
            start = self.heap_offset * self.sector + (cluster - 2) * self.cluster
            parts.append(self.image[start:start + self.cluster])
        data = b"".join(parts)[:length]
        return data[:valid] + bytes(length - min(valid, length))

    def entries(self, first, contiguous, length):
        data = self.read(first, contiguous, length or self.cluster * 4096, length or 1 << 40)
        for offset in range(0, len(data), 32):
            if data[offset] == 0:
                return
            yield data[offset:offset + 32]

    def directory(self, first, contiguous, length):
        """{name: (is a directory, first cluster, NoFatChain, valid length, length)}"""
        files, current = {}, None
        for entry in self.entries(first, contiguous, length):
            kind = entry[0]
            if kind == 0x85:
                current = {"directory": bool(entry[4] & 0x10), "name": ""}
            elif kind == 0xC0 and current is not None:
                current["flags"] = entry[1]
                current["valid"], = struct.unpack_from("<Q", entry, 8)
                current["first"], current["length"] = struct.unpack_from("<IQ", entry, 20)
                current["left"] = entry[3]
            elif kind == 0xC1 and current is not None and "left" in current:
                take = min(current["left"], 15)
                current["name"] += entry[2:2 + 2 * take].decode("utf-16-le", "replace")
                current["left"] -= take
                if current["left"] == 0:
                    files[current["name"]] = (current["directory"], current["first"],
                                              bool(current["flags"] & 2), current["valid"],
                                              current["length"])
                    current = None
            elif kind < 0x80:
                current = None
        return files

    def lookup(self, path):
        entry = (True, self.root, False, 0, 0)
        for name in path.strip("/").split("/"):
            if not entry[0]:
                return None
            entry = self.directory(entry[1], entry[2], entry[4]).get(name)
            if entry is None:
                return None
        return entry

    def free_clusters(self, entry):
        """The clusters of a file that the allocation bitmap shows free."""
        _, first, contiguous, _, length = entry
        return sum(1 for cluster in (self.chain(first, contiguous, length) if first else [])
                   if not self.bitmap[(cluster - 2) // 8] >> ((cluster - 2) % 8) & 1)

    def file(self, path):
        entry = self.lookup(path)
        if entry is None or entry[0]:
            return None
        return self.read(entry[1], entry[2], entry[4], entry[3])


# What fsck.exfat -n may find on a card cut while a file grew or was replaced, none of it a loss
# of data the writer was told was kept (the dirty bit is cleared first, as an unmount would).
EXFAT_LEFTOVERS = re.compile(r"free cluster count is different.*|.*: more clusters are allocated.*")
# And on an AtomicFile temporary file cut while it was synced, as on FAT: its entry names a
# cluster the allocation bitmap still shows free.
EXFAT_TEMPORARY_DAMAGE = re.compile(
    r"ERROR: /(.*/)?\.[^/]+\.[A-Za-z0-9]{6}: cluster 0x[0-9a-f]+ is marked as free at 0x[0-9a-f]+\."
    r" Truncate \(y/N\)\? n")


def exfat_findings(text):
    """(leftovers, temporary damaged, unexplained findings) of a fsck.exfat -n report."""
    leftovers = temporary = False
    unexplained = []
    for line in text.splitlines():
        line = line.strip()
        if (not line or line.startswith("exfatprogs version")
                or re.match(r"^\S+: (clean|corrupted|checking stopped)\. directories \d+, files \d+$",
                            line)
                or re.match(r"^\S+: files corrupted \d+, files fixed \d+$", line)):
            continue
        if EXFAT_TEMPORARY_DAMAGE.fullmatch(line):
            temporary = True
        elif EXFAT_LEFTOVERS.fullmatch(line):
            leftovers = True
        else:
            unexplained.append(line)
    return leftovers, temporary, unexplained


def run(command):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    return result.returncode, result.stdout.decode("utf-8", "replace")


class Verdict:
    def __init__(self):
        self.clean, self.leftovers, self.damaged, self.freed = True, False, False, 0
        self.report = ""


def recover(fs, path, verdict):
    """The file system's own recovery, then a read-only check, which must find nothing that
    damages data. ext4 replays its journal, and then nothing may be found. FAT and exFAT have no
    recovery but their "mounted"/dirty bit, which the kernel only warns about and a clean
    unmount clears; their check may then find only what a cut while a file grows or is replaced
    leaves (leftovers), and on FAT an AtomicFile temporary file whose entry names a cluster the
    FAT still shows free (damaged)."""
    if fs == "ext4":
        run(["e2fsck", "-E", "journal_only", "-y", path])
        status, verdict.report = run(["e2fsck", "-fn", path])
        verdict.clean = status == 0
        return
    with open(path, "r+b") as image:
        if fs == "vfat":
            image.seek(65)
            image.write(b"\0")
        else:
            image.seek(0x6A)
            flags = image.read(1)[0]
            image.seek(0x6A)
            image.write(bytes([flags & ~2 & 0xFF]))
    if fs == "vfat":
        status, verdict.report = run(["fsck.fat", "-n", path])
        if status != 0:
            verdict.leftovers, verdict.damaged, unexplained = fat_findings(verdict.report)
            verdict.clean = not unexplained
    else:
        status, verdict.report = run(["fsck.exfat", "-n", path])
        if status != 0:
            verdict.leftovers, verdict.damaged, unexplained = exfat_findings(verdict.report)
            verdict.clean = not unexplained


def extract(fs, path, name, scratch):
    """The card's file NAME (None when there is no such file), read without mounting; on exFAT
    also the number of its clusters the allocation bitmap shows free."""
    freed = 0
    if fs == "exfat":
        with open(path, "rb") as image, mmap.mmap(image.fileno(), 0,
                                                  access=mmap.ACCESS_READ) as view:
            card = ExFat(view)
            entry = card.lookup(name)
            if entry is None or entry[0]:
                return None, 0
            return card.read(entry[1], entry[2], entry[4], entry[3]), card.free_clusters(entry)
    if os.path.exists(scratch):
        os.unlink(scratch)
    if fs == "ext4":
        _, report = run(["debugfs", "-R", f"dump /{name} {scratch}", path])
        if "File not found" in report:
            return None, 0
    else:
        run(["mcopy", "-n", "-i", path, f"::/{name}", scratch])
    if not os.path.exists(scratch):
        return None, 0
    with open(scratch, "rb") as data_file:
        return data_file.read(), freed


def temporaries(fs, path, directory):
    """How many of AtomicFile's temporary files the card's directory holds."""
    if fs == "exfat":
        with open(path, "rb") as image, mmap.mmap(image.fileno(), 0,
                                                  access=mmap.ACCESS_READ) as view:
            card = ExFat(view)
            entry = card.lookup(directory)
            names = card.directory(entry[1], entry[2], entry[4]) if entry and entry[0] else {}
        text = "\n".join(names)
    elif fs == "ext4":
        _, text = run(["debugfs", "-R", f"ls /{directory}", path])
    else:
        _, text = run(["mdir", "-b", "-i", path, f"::/{directory}"])
    return len(re.findall(r"\.settings\.bin\.[A-Za-z0-9]{6}", text))


def check_card(args, path, lines, full):
    """Judges one card image against the acknowledgements in lines. full: also count the
    temporary files left (the card the cut left, not an earlier point)."""
    verdict = Verdict()
    recover(args.fs, path, verdict)
    data, verdict.freed = extract(args.fs, path, args.name, path + ".data")
    if args.kind == "records":
        verdict.acked, verdict.lost, verdict.foreign = judge_records(lines, data or b"")
    else:
        (verdict.acked, verdict.lost, verdict.foreign, verdict.version,
         verdict.last) = judge_versions(lines, data)
    verdict.temporaries = temporaries(args.fs, path, os.path.dirname(args.name)) if full else 0
    return verdict


def marks_in(sector):
    """The acknowledgement lines of one mark sector."""
    text = bytes(sector).split(b"\0", 1)[0].decode("ascii", "replace")
    return [line for line in text.splitlines() if line.startswith(("ACK ", "VERSION "))]


class Totals:
    """One model's verdict over every image checked for a cut: the worst of them."""

    def __init__(self, model):
        self.model, self.images, self.bad = model, 0, []
        self.acked = self.lost = self.foreign = self.temporaries = self.freed = 0
        self.unclean = self.leftovers = self.damaged = False

    def add(self, verdict, where, main):
        self.images += 1
        if main:
            self.acked, self.temporaries = verdict.acked, verdict.temporaries
        self.lost = max(self.lost, verdict.lost)
        self.foreign = max(self.foreign, verdict.foreign)
        self.freed = max(self.freed, verdict.freed)
        self.leftovers |= verdict.leftovers
        self.damaged |= verdict.damaged
        if not verdict.clean:
            self.unclean = True
        if not verdict.clean or verdict.lost or verdict.foreign or verdict.freed:
            self.bad.append(f"{where}: clean={'yes' if verdict.clean else 'no'} "
                            f"acked={verdict.acked} lost={verdict.lost} "
                            f"foreign={verdict.foreign} freed={verdict.freed}")
            if not verdict.clean:
                self.bad.extend("  " + line for line in verdict.report.splitlines()[:12])

    def line(self):
        return (f"model={self.model} images={self.images} acked={self.acked} lost={self.lost} "
                f"unclean={int(self.unclean)} leftovers={int(self.leftovers)} "
                f"damaged={int(self.damaged)} freed={self.freed} foreign={self.foreign} "
                f"temporaries={self.temporaries}")


def judge(args):
    """Judges the card after one cut and prints one line per model. Model a: the card as the
    kill left it. The logged card's write log gives models b (a cache that loses what was not
    flushed: the card at every flush, or POINTS of them evenly spread, each of which must hold
    everything whose acknowledgement mark reached the card before it, and the last of which must
    hold everything acknowledged on the console), c (a cache that keeps any subset of the writes
    after the last flush, in log order: SUBSETS seeded subsets on top of the last flush) and d
    (the write in flight torn: the last write of several sectors applied only in part, after
    every write before it, against the marks before it). A mark is the acknowledgement line the
    writer puts, after its console line, in a sector of the card's end beyond the file system."""
    started = time.monotonic()
    console = ack_lines(args.acks)
    # Every point is a whole card written afresh: in memory where the host has a RAM disk.
    memory = "/dev/shm"
    scratch = os.path.join(memory if os.access(memory, os.W_OK) else args.work,
                           f"devicecheck-{os.getpid()}.img")
    if args.model == "a":
        totals = Totals("a")
        totals.add(check_card(args, args.image, console, True), "card", True)
        print(totals.line())
        for line in totals.bad:
            print(line, file=sys.stderr)
        return 0
    sector_size, entries = read_log(args.log)
    with open(args.pristine, "rb") as pristine:
        image = bytearray(pristine.read())
    first_mark = args.marks // sector_size
    flushes = [n for n, entry in enumerate(entries) if entry[2] & LOG_FLUSH]
    last_flush = flushes[-1] if flushes else -1
    points = flushes
    if len(points) > args.points:
        step = (len(points) - 1) / (args.points - 1)
        points = sorted({points[round(i * step)] for i in range(args.points)})
    writes = [n for n, entry in enumerate(entries)
              if not entry[2] & (LOG_FLUSH | LOG_DISCARD) and entry[1] and entry[0] < first_mark]
    torn = [n for n in writes if entries[n][1] > 1][-1:]
    random_source = random.Random(args.seed)
    models = {model: Totals(model) for model in "bcd"}

    def snapshot(data, name, lines, model, main):
        with open(scratch, "wb") as out:
            out.write(data)
        models[model].add(check_card(args, scratch, lines, main), name, main)

    with open(args.log, "rb") as log:
        def payload(entry):
            log.seek(entry[3])
            return log.read(entry[1] * sector_size)

        def apply(target, entry, sectors=None):
            sector, count, flags, _ = entry
            if flags & LOG_FLUSH or count == 0:
                return
            start = sector * sector_size
            if flags & LOG_DISCARD:
                target[start:start + count * sector_size] = bytes(count * sector_size)
            else:
                data = payload(entry)[:(sectors or count) * sector_size]
                target[start:start + len(data)] = data

        marks = []
        stops = sorted(set(points) | set(torn) | {last_flush + 1 if last_flush >= 0 else 0})
        position = 0
        for stop in stops:
            for entry in entries[position:stop]:
                apply(image, entry)
                if entry[0] >= first_mark and not entry[2] & (LOG_FLUSH | LOG_DISCARD):
                    data = payload(entry)
                    for offset in range(0, len(data), sector_size):
                        marks.extend(marks_in(data[offset:offset + sector_size]))
            position = stop
            if stop in points and stop != last_flush:
                snapshot(image, f"flush entry {stop}", list(marks), "b", False)
            if stop in torn:
                count = entries[stop][1]
                kept = random_source.randrange(1, count)
                partial = bytearray(image)
                apply(partial, entries[stop], kept)
                snapshot(partial, f"write entry {stop} torn after {kept} of {count} sectors",
                         list(marks), "d", True)
            if stop == last_flush + 1 or (last_flush < 0 and stop == 0):
                snapshot(image, f"last flush (entry {last_flush})", console, "b", True)
                after = [entries[n] for n in writes if n > last_flush]
                for subset in range(args.subsets):
                    # A write the card was told to make durable at once (FUA) is always kept.
                    chosen = [entry for entry in after
                              if entry[2] & LOG_FUA or random_source.random() < 0.5]
                    kept = bytearray(image)
                    for entry in chosen:
                        apply(kept, entry)
                    snapshot(kept, f"subset {subset}: {len(chosen)} of {len(after)} writes after"
                             f" the last flush", console, "c", subset == 0)
        if not torn:
            for entry in entries[position:]:
                apply(image, entry)
            snapshot(image, "every write (none of several sectors to tear)", marks, "d", True)
    for leftover in (scratch, scratch + ".data"):
        if os.path.exists(leftover):
            os.unlink(leftover)
    for model in "bcd":
        print(f"{models[model].line()} flushes={len(flushes)} marks={len(marks)}"
              f" seconds={time.monotonic() - started:.0f}")
        for line in models[model].bad[:40]:
            print(f"model {model}: {line}", file=sys.stderr)
    return 0


def read_log(path):
    """Returns (sector size, [(sector, sectors, flags, data offset in the log)]). The superblock
    counts the entries only as of its last update (at a flush, or every few thousand writes), so
    the entries after that count are read too, up to the first that is not whole."""
    with open(path, "rb") as log:
        header = log.read(28)
        size = os.fstat(log.fileno()).st_size
        sector_size, count = 512, 0
        if len(header) == 28 and header != bytes(28):
            magic, version, count, sector_size = struct.unpack("<QQQI", header)
            if magic != LOG_MAGIC or version != 1:
                sys.exit(f"devicecheck: {path} is not a write log")
        entries, position = [], sector_size
        while position + 32 <= size:
            log.seek(position)
            sector, sectors, flags, _ = struct.unpack("<QQQQ", log.read(32))
            data = 0 if flags & LOG_DISCARD else sectors * sector_size
            if len(entries) >= count and (
                    flags & ~(LOG_FLUSH | LOG_FUA | LOG_DISCARD | LOG_MARK)
                    or (sectors == 0 and not flags & LOG_FLUSH)
                    or position + sector_size + data > size):
                break
            position += sector_size
            entries.append((sector, sectors, flags, position))
            position += data
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


def exfat_file(args):
    """Copies the exFAT card's file NAME to OUT and prints 'freed=N', its clusters the
    allocation bitmap shows free; fails when there is no such file. With --free, first marks
    the file's first cluster free in the card's bitmap, as a cut can leave it."""
    with open(args.image, "r+b") as image:
        card = ExFat(image.read())
        entry = card.lookup(args.name)
        if entry is None or entry[0]:
            return 1
        if args.free:
            bit = entry[1] - 2
            image.seek(card.bitmap_at + bit // 8)
            image.write(bytes([card.bitmap[bit // 8] & ~(1 << bit % 8) & 0xFF]))
            image.seek(0)
            card = ExFat(image.read())
    with open(args.out, "wb") as out:
        out.write(card.read(entry[1], entry[2], entry[4], entry[3]))
    print(f"freed={card.free_clusters(entry)} contiguous={'yes' if entry[2] else 'no'}")
    return 0


FS_ORDER = ["vfat", "exfat", "ext4"]
WRITER_ORDER = ["File", "DurableFile", "AtomicFile", "control", "replace-control"]


def merge_results(paths):
    """Sums the rows of results files (one line per file system, model and writer, as
    test-device writes them) into {(fs, model, writer): row}."""
    rows = {}
    for path in paths:
        if not os.path.exists(path):
            continue
        with open(path, encoding="utf-8") as results:
            for line in results:
                fields = line.split()
                if len(fields) < 14:
                    continue
                key = tuple(fields[:3])
                numbers = [int(field) for field in fields[3:5]] + [int(f) for f in fields[6:14]]
                row = rows.setdefault(key, {"unit": fields[5], "n": [0] * 10, "seeds": []})
                for i, number in enumerate(numbers):
                    # The most foreign bytes of any cut: a maximum, not a sum.
                    row["n"][i] = max(row["n"][i], number) if i == 5 else row["n"][i] + number
                row["seeds"].extend(fields[14:])
    return rows


def order(key):
    fs, model, writer = key
    return (FS_ORDER.index(fs) if fs in FS_ORDER else 9, WRITER_ORDER.index(writer)
            if writer in WRITER_ORDER else 9, model)


def print_table(args):
    """Prints the merged results as a Markdown table; with --seeds, the run seeds of each row."""
    rows = merge_results(args.results)
    header = ("| File system | Model | Writer | Cuts | Acknowledged | Lost | Unclean | Leftovers"
              " | Most foreign bytes | Temporary files left | Temporary file damaged"
              " | Freed clusters named | Images checked |")
    print(header + (" Run seeds |" if args.seeds else ""))
    print("|---" * (13 + int(args.seeds)) + "|")
    for key in sorted(rows, key=order):
        row = rows[key]
        cuts, acked, lost, unclean, left, foreign, temps, damaged, freed, images = row["n"]
        cells = [*key, cuts, f"{acked} {row['unit']}", lost, unclean, left, foreign, temps,
                 damaged, freed, images]
        if args.seeds:
            cells.append(" ".join(sorted({seed.split("/")[0] for seed in row["seeds"]}, key=int)))
        print("| " + " | ".join(str(cell) for cell in cells) + " |")
    cuts = sum(row["n"][0] for key, row in rows.items() if key[1] in "ab")
    checks = sum(row["n"][0] for row in rows.values())
    print(f"\n{cuts} power cuts in all, judged {checks} times (each cut of the logged card once"
          " per model b, c and d).")


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
    command = commands.add_parser("flushes")
    command.add_argument("log")
    command.set_defaults(run=log_flushes)
    command = commands.add_parser("replay")
    command.add_argument("log")
    command.add_argument("image")
    command.add_argument("until", type=int)
    command.set_defaults(run=replay)
    command = commands.add_parser("judge")
    command.add_argument("fs", choices=["vfat", "ext4", "exfat"])
    command.add_argument("kind", choices=["records", "versions"])
    command.add_argument("model", choices=["a", "bcd"])
    command.add_argument("--name", required=True, help="the writer's file on the card")
    command.add_argument("--acks", required=True, help="the console's acknowledgements")
    command.add_argument("--image", help="model a: the card as the cut left it")
    command.add_argument("--log", help="the logged card's write log")
    command.add_argument("--pristine", help="the freshly formatted card")
    command.add_argument("--marks", type=int, default=0, help="byte offset of the mark area")
    command.add_argument("--work", default=".")
    command.add_argument("--seed", type=int, default=0)
    command.add_argument("--points", type=int, default=200)
    command.add_argument("--subsets", type=int, default=8)
    command.set_defaults(run=judge)
    command = commands.add_parser("table")
    command.add_argument("--seeds", action="store_true")
    command.add_argument("results", nargs="+")
    command.set_defaults(run=print_table)
    command = commands.add_parser("exfat")
    command.add_argument("image")
    command.add_argument("name")
    command.add_argument("out")
    command.add_argument("--free", action="store_true")
    command.set_defaults(run=exfat_file)
    args = parser.parse_args()
    sys.exit(args.run(args) or 0)


if __name__ == "__main__":
    main()
