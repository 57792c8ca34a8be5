#!/usr/bin/env python3
"""Every power cut in a log of device-mapper's log-writes target, judged: is a bitmap file whole that lacks a change?

The logged device holds the partition of node 0 in front (PART bytes) and behind it an ext4 with the node's bitmap files
in its root folder. The log tells in which order writes became durable; each of its prefixes is what one power cut could
leave. Marks in the log say when the judging begins and ends, and when the bitmaps were cleared, with no writer at work.

A device need not keep the order of what was written since the last flush: of that a power cut leaves some sectors and not
others. So of the writes that a flush made durable together some are left out or torn, by chance that a seed gives, and
what that leaves is judged as well, and counted apart.

Alone: replay.py LOG PART-MIB TOTAL-MIB, over the log disk of a test that has run.
"""

import collections
import os
import random
import re
import struct
import sys
import zlib

MAGIC = 0x6a736677736872
FLAG_FLUSH, FLAG_FUA, FLAG_DISCARD, FLAG_MARK = 1, 2, 4, 8
SECTOR = 512
EXTENT = 4096
BLOCK = 4096
JOURNAL_MAGIC = 0xC03B3998
DESCRIPTOR, COMMIT, REVOKE = 1, 2, 5
TAG_ESCAPED, TAG_SAME_UUID, TAG_LAST = 1, 2, 8

# `flags` are those of a write, or of a flush, which has no length. One that has a length and flushes as well comes as two.
SEED = 20261123
CUTS_ALONE = 2  # of each flush, where nobody waits for the judging

Entry = collections.namedtuple("Entry", "offset length data mark flags")


def entries(log):
    """What a log device (an open file) tells, in order."""
    magic, version, count, unit = struct.unpack("<QQQI", log.read(28))
    if magic != MAGIC or version != 1:
        raise ValueError("not a log of log-writes")
    at = unit
    for _ in range(count):
        log.seek(at)
        sector, sectors, flags, extra = struct.unpack("<QQQQ", log.read(32))
        at += unit
        if flags & FLAG_MARK:
            yield Entry(0, 0, b"", log.read(extra).rstrip(b"\0").decode(), 0)
            continue
        if flags & FLAG_FLUSH:
            yield Entry(0, 0, b"", "", FLAG_FLUSH)
        if flags & FLAG_DISCARD:
            yield Entry(sector * unit, sectors * unit, bytes(sectors * unit), "", 0)
            continue
        if sectors:
            log.seek(at)
            yield Entry(sector * unit, sectors * unit, log.read(sectors * unit), "", flags & FLAG_FUA)
        at += sectors * unit


class Ext4:
    """Files in the root folder of an ext4, made with OPTIONS, as the next mount would find them: its journal counts."""

    OPTIONS = ("-b", str(BLOCK), "-I", "256", "-J", "size=4", "-N", "64",
               "-O", "^metadata_csum,^64bit,^resize_inode,^orphan_file,^inline_data",
               "-E", "lazy_itable_init=0,lazy_journal_init=0,nodiscard")

    def __init__(self, image):
        self.image = image
        self.replayed = {}
        sb = image[1024:2048]
        self.inode_size, = struct.unpack_from("<H", sb, 88)
        self.per_group, = struct.unpack_from("<I", sb, 40)
        journal = self.blocks_of(8)
        self.replayed = dict(self.replay(journal))

    def block(self, number):
        found = self.replayed.get(number)
        return found if found is not None else self.image[number * BLOCK:(number + 1) * BLOCK]

    def inode(self, number):
        group, index = divmod(number - 1, self.per_group)
        table, = struct.unpack_from("<I", self.block(1), group * 32 + 8)
        at = index * self.inode_size
        return self.block(table + at // BLOCK)[at % BLOCK:at % BLOCK + self.inode_size]

    def blocks_of(self, number):
        """Block numbers by place in the file."""
        return self.tree(self.inode(number)[40:100])

    def tree(self, node):
        magic, count, _, depth = struct.unpack_from("<HHHH", node)
        found = {}
        if magic != 0xF30A:
            return found
        for n in range(1, count + 1):
            if depth:
                found.update(self.tree(self.block(struct.unpack_from("<II", node, 12 * n)[1])))
                continue
            first, length, high, low = struct.unpack_from("<IHHI", node, 12 * n)
            if length <= 32768:  # else it is not written yet, and reads as zeros
                found.update({first + k: (high << 32 | low) + k for k in range(length)})
        return found

    def replay(self, journal):
        """(block, contents) of every transaction that is whole in the journal."""
        def logged(at):
            number = journal[at]
            return self.image[number * BLOCK:(number + 1) * BLOCK]
        length, first, sequence, at = struct.unpack_from(">IIII", logged(0), 16)
        if at == 0:
            return []
        done, revoked = [], {}
        pending, pending_revoked = [], []
        step = lambda place: place + 1 if place + 1 < length else first
        while True:
            block = logged(at)
            magic, kind, number = struct.unpack_from(">III", block)
            if magic != JOURNAL_MAGIC or number != sequence:
                break
            at = step(at)
            if kind == DESCRIPTOR:
                tag = 12
                while tag + 8 <= BLOCK:  # a torn one may have no last tag
                    target, _, flags = struct.unpack_from(">IHH", block, tag)
                    data = logged(at)
                    if flags & TAG_ESCAPED:
                        data = struct.pack(">I", JOURNAL_MAGIC) + data[4:]
                    pending.append((target, sequence, bytes(data)))
                    at = step(at)
                    tag += 8 if flags & TAG_SAME_UUID else 24
                    if flags & TAG_LAST:
                        break
            elif kind == REVOKE:
                used, = struct.unpack_from(">I", block, 12)
                pending_revoked += struct.unpack_from(f">{(used - 16) // 4}I", block, 16)
            elif kind == COMMIT:
                done += pending
                revoked.update({target: sequence for target in pending_revoked})
                pending, pending_revoked = [], []
                sequence += 1
            else:
                break
        return [(target, data) for target, when, data in done if revoked.get(target, -1) < when]

    def names(self):
        found = {}
        for number in self.blocks_of(2).values():
            folder, at = self.block(number), 0
            while at < BLOCK:
                inode, length, name = struct.unpack_from("<IHB", folder, at)
                if inode:
                    found[bytes(folder[at + 8:at + 8 + name]).decode()] = inode
                at += max(length, 8)
        return found

    def size(self, number):
        return struct.unpack_from("<I", self.inode(number), 4)[0]

    def read(self, number):
        size = self.size(number)
        blocks = self.blocks_of(number)
        zeros = bytes(BLOCK)
        data = b"".join(bytes(self.block(blocks[n])) if n in blocks else zeros
                        for n in range((size + BLOCK - 1) // BLOCK))
        return data[:size]


def trusted(file):
    """The extents that a bitmap file has if a load takes it over, else None."""
    if len(file) < 16 or file[:8] != b"SNBFBMP\0":
        return None
    size, checksum = struct.unpack_from("<II", file, 8)
    bits = file[16:16 + size]
    if len(bits) != size or ~zlib.crc32(bits) & 0xffffffff != checksum:
        return None
    return {at * 8 + bit for at, byte in enumerate(bits) if byte for bit in range(8) if byte >> bit & 1}


class LogJudge:
    """Counts prefixes, and what is in them; and the same of power cuts that leave some of what a flush makes durable.

    A judge has apply(entry), which changes its state as a write does, look(counts, what), which judges the state, and
    take_mark(mark); what it knows beside the device's bytes, and cannot find again from them, is kept()."""

    LEAST_PREFIXES = 200
    CUTS_OF_A_FLUSH = 0.5  # on the average

    def __init__(self, part_bytes, total_bytes):
        self.part = bytearray(part_bytes)
        self.store = bytearray(total_bytes - part_bytes)
        self.ended = False
        self.prefixes = 0
        self.cuts = 0
        self.counts = collections.Counter()
        self.cut_counts = collections.Counter()
        self.faults = []
        self.group = []
        self.rng = random.Random(SEED)
        self.cuts_of_a_flush = self.CUTS_OF_A_FLUSH

    def is_judging(self):
        raise NotImplementedError

    def bytes_of(self, offset):
        """Of the two parts of the device the one that has that offset, and where it is in that."""
        return (self.part, offset) if offset < len(self.part) else (self.store, offset - len(self.part))

    def take(self, entry):
        """Of a flush the log has first what it made durable, in one piece."""
        if entry.flags == FLAG_FLUSH:
            self.try_cuts()
        elif not entry.mark and not entry.flags:
            self.group.append(entry)
            return
        for write in self.group:
            self.take_write(write)
        self.group = []
        if entry.mark:
            self.take_mark(entry.mark)
        elif entry.length:
            self.take_write(entry)

    def take_write(self, entry):
        self.apply(entry)
        if self.is_judging():
            self.prefixes += 1
            self.look(self.counts, f"prefix {self.prefixes}")

    def try_cuts(self):
        if not self.group or not self.is_judging():
            return
        for _ in range(int(self.cuts_of_a_flush + self.rng.random())):
            self.cuts += 1
            self.try_cut([piece for write in self.group for piece in self.left_of(write)])

    def left_of(self, write):
        """All of a write, or nothing, or some of its sectors."""
        fate = self.rng.choice(("whole", "lost", "torn"))
        if fate == "whole":
            return [write]
        if fate == "lost":
            return []
        return [Entry(write.offset + at, SECTOR, write.data[at:at + SECTOR], "", 0)
                for at in range(0, write.length, SECTOR) if self.rng.random() < 0.5]

    def try_cut(self, pieces):
        """The device is as it was when this returns."""
        kept = self.kept()
        undo = []
        for piece in pieces:
            data, at = self.bytes_of(piece.offset)
            undo.append(piece._replace(data=bytes(data[at:at + piece.length])))
            self.apply(piece)
        self.look(self.cut_counts, f"cut {self.cuts}, behind prefix {self.prefixes}")
        for piece in reversed(undo):
            self.apply(piece)
        self.restore(kept)


class Judge(LogJudge):
    """What each bitmap file is."""

    NAMES = ("snbf0.diff", "snbf0.incr")
    LEAST = {"not whole": 20, "covering": 20}
    LEAST_IN_CUTS = {"not whole": 20, "covering": 5}

    def __init__(self, part_bytes, total_bytes):
        super().__init__(part_bytes, total_bytes)
        self.changed = set()
        self.clearing = False
        self.judging = False
        self.files = None

    def is_judging(self):
        return self.judging

    def kept(self):
        return set(self.changed), self.files

    def restore(self, kept):
        self.changed, self.files = kept

    def apply(self, entry):
        data, at = self.bytes_of(entry.offset)
        data[at:at + entry.length] = entry.data
        if data is self.store:
            self.files = None
        elif self.judging:
            self.changed.update(range(at // EXTENT, (at + entry.length - 1) // EXTENT + 1))

    def take_mark(self, mark):
        if mark == "begin":
            self.judging = True
        elif mark == "end":
            self.judging = False
            self.ended = True
        elif mark == "clearing":
            self.clearing = True
        elif mark == "cleared":
            self.clearing = False
            self.changed.clear()

    def look(self, counts, what):
        if self.files is None:
            fs = Ext4(self.store)
            names = fs.names()
            self.files = [trusted(fs.read(names[name])) if name in names else None for name in self.NAMES]
        for name, bits in zip(self.NAMES, self.files):
            if bits is None:
                counts["not whole"] += 1
            elif self.changed <= bits:
                counts["covering"] += 1
            elif self.clearing and not bits:
                counts["cleared"] += 1
            else:
                counts["lacking"] += 1
                self.faults.append(f"{what}: {name} lacks {sorted(self.changed - bits)[:8]}")


def shortcomings(judge):
    """Why a log without a fault would prove nothing."""
    found = [] if judge.ended else ["the log has no end: its disk ran full, or the test did not come to its own"]
    for what, counts, least in (("prefixes", judge.counts, judge.LEAST),
                                ("cuts", judge.cut_counts, judge.LEAST_IN_CUTS)):
        if any(counts[key] < value for key, value in least.items()):
            found.append(f"too little was tried: of {what} {least} is the least")
    if judge.prefixes < judge.LEAST_PREFIXES:
        found.append(f"too little was tried: {judge.LEAST_PREFIXES} prefixes are the least")
    return found


def judge_log(judge, path):
    """The judge, having seen a log device (or a file of its bytes) to its end."""
    with open(path, "rb") as log:
        for entry in entries(log):
            judge.take(entry)
    print(f"{judge.prefixes} prefixes: {dict(judge.counts)}")
    print(f"{judge.cuts} cuts before a flush: {dict(judge.cut_counts)}")
    judge.faults += shortcomings(judge)
    return judge


def main(judge_of):
    """Of a program that judges a log; `judge_of` makes the judge from the bytes of the partition and of the whole."""
    if len(sys.argv) != 4 or not all(re.fullmatch(r"\d+", word) for word in sys.argv[2:]):
        sys.exit(f"usage: {os.path.basename(sys.argv[0])} LOG PART-MIB TOTAL-MIB")
    judge = judge_of(int(sys.argv[2]) << 20, int(sys.argv[3]) << 20)
    judge.cuts_of_a_flush = CUTS_ALONE
    judge_log(judge, sys.argv[1])
    for line in judge.faults[:20]:
        print(line)
    sys.exit(1 if judge.faults else 0)


if __name__ == "__main__":
    main(Judge)
