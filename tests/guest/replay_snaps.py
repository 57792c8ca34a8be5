#!/usr/bin/env python3
"""Every power cut in a log of device-mapper's log-writes target, judged for the snaps: does one that would be resumed
show another byte than the partition had at its start?

As in replay.py the logged device holds the partition in front and the store behind it. A mark "snap:N" follows the start
of a snap whose COW files are cowN.bmp and cowN.data in the store's root folder, and "going:N" comes before its stop; no
writer is at work at the former; "end" follows the last. The file system on the partition is none that the driver knows:
every chunk counts.

Alone: replay_snaps.py LOG PART-MIB TOTAL-MIB, over the log disk of a test that has run.
"""

import replay
from replay import BLOCK

CHUNK = 16 << 10
PER_CHUNK = CHUNK // BLOCK


class Snap:
    """One that is started, newest last in the judge's list; its files as a resume would find them in a prefix."""

    def __init__(self, number, wanted):
        self.number = number
        self.wanted = wanted
        self.is_refused = False
        self.bits = frozenset()
        self.blocks = {}
        self.wrong = set(range(len(wanted) // CHUNK))

    def find_files(self, fs, names):
        """The chunks whose copies are others than in the last prefix."""
        bits_file, data_file = (names.get(f"cow{self.number}.{suffix}") for suffix in ("bmp", "data"))
        bits, blocks, sizes = b"", {}, 0
        if bits_file is not None and data_file is not None:
            bits, blocks, sizes = fs.read(bits_file), fs.blocks_of(data_file), fs.size(data_file)
        self.is_refused = sizes < len(self.wanted) or len(bits) * 8 < len(self.wanted) // CHUNK
        now = frozenset(at * 8 + bit for at, byte in enumerate(bits) if byte for bit in range(8) if byte >> bit & 1)
        moved = {at // PER_CHUNK for at in {*blocks, *self.blocks} if blocks.get(at) != self.blocks.get(at)}
        others = (now ^ self.bits) | (moved & now)
        self.bits, self.blocks = now, blocks
        return others

    def copy_of(self, store, chunk):
        zeros = bytes(BLOCK)
        found = (self.blocks.get(at) for at in range(chunk * PER_CHUNK, (chunk + 1) * PER_CHUNK))
        return b"".join(zeros if at is None else bytes(store[at * BLOCK:(at + 1) * BLOCK]) for at in found)


class Judge(replay.LogJudge):
    """Of each snap in a prefix whether it would be refused, or shows what it must."""

    LEAST = {"exact": 200, "copies in exact ones": 10000}
    LEAST_IN_CUTS = {"exact": 50, "copies in exact ones": 2000}
    CUTS_OF_A_FLUSH = 0.1  # one takes as long as several prefixes

    def __init__(self, part_bytes, total_bytes):
        super().__init__(part_bytes, total_bytes)
        self.snaps = []
        self.owners = {}  # of a block of the store: its snap and chunk, if it is a snap's data and nothing else

    def is_judging(self):
        return bool(self.snaps)

    def kept(self):
        """All of it follows from the device's bytes."""

    def restore(self, _):
        pass

    def apply(self, entry):
        data, at = self.bytes_of(entry.offset)
        data[at:at + entry.length] = entry.data
        if data is self.part:
            touched = set(range(at // CHUNK, (at + entry.length - 1) // CHUNK + 1))
            self.look_again(dict.fromkeys(self.snaps, touched))
            return
        blocks = range(at // BLOCK, (at + max(entry.length, 1) - 1) // BLOCK + 1)
        if all(block in self.owners for block in blocks):
            touched = {}
            for snap, chunk in map(self.owners.get, blocks):
                touched.setdefault(snap, set()).add(chunk)
            self.look_again(self.with_older(touched))
        elif self.snaps:
            self.find_files()

    def take_mark(self, mark):
        word, _, number = mark.partition(":")
        if word == "snap":
            self.snaps.append(Snap(int(number), bytes(self.part)))
            self.find_files()
            self.look_again({self.snaps[-1]: set(range(len(self.part) // CHUNK))})
        elif word == "going":
            self.snaps = [snap for snap in self.snaps if snap.number != int(number)]
            self.find_files()
        elif word == "end":
            self.ended = True

    def find_files(self):
        fs = replay.Ext4(self.store)
        names = fs.names()
        self.look_again(self.with_older({snap: snap.find_files(fs, names) for snap in self.snaps}))
        self.owners = {block: (snap, at // PER_CHUNK) for snap in self.snaps for at, block in snap.blocks.items()
                       if block not in fs.replayed}

    def with_older(self, touched):
        """What changed of a snap's copies can show in the older ones, too."""
        chunks, found = set(), {}
        for snap in reversed(self.snaps):
            chunks = chunks | touched.get(snap, set())
            found[snap] = chunks
        return found

    def look_again(self, touched):
        for place, snap in enumerate(self.snaps):
            for chunk in touched.get(snap, ()):
                holder = next((newer for newer in self.snaps[place:] if chunk in newer.bits), None)
                at = slice(chunk * CHUNK, (chunk + 1) * CHUNK)
                shown = self.part[at] if holder is None else holder.copy_of(self.store, chunk)
                (snap.wrong.discard if shown == snap.wanted[at] else snap.wrong.add)(chunk)

    def look(self, counts, what):
        for place, snap in enumerate(self.snaps):
            if any(newer.is_refused for newer in self.snaps[place:]):  # nor would the agent resume one below it
                counts["refused"] += 1
            elif not snap.wrong:
                counts["exact"] += 1
                counts["copies in exact ones"] += len(snap.bits)
            else:
                counts["wrong"] += 1
                self.faults.append(f"{what}: snap {snap.number} is wrong in {sorted(snap.wrong)[:8]}")


if __name__ == "__main__":
    replay.main(Judge)
