"""Writers over a node: random requests of every kind, and sequences of which an image holds a part."""

import fcntl
import itertools
import mmap
import os
import random
import struct
import subprocess

import kit
import worker
from kit import KIB, MIB

BLKDISCARD = 0x1277
BLKZEROOUT = 0x127f
BLOCK = 4 * KIB


class RawWriter:
    """Random writes of every way that user space has, each answering the bytes that it touched."""

    def __init__(self, path, rng):
        self.rng = rng
        self.size = kit.size_of(path)
        self.direct = os.open(path, os.O_RDWR | os.O_DIRECT)
        self.buffered = os.open(path, os.O_RDWR)
        self.map = mmap.mmap(self.buffered, self.size)
        self.page = mmap.mmap(-1, MIB)
        self.page.write(rng.randbytes(MIB))

    def close(self):
        self.map.close()
        os.close(self.direct)
        os.close(self.buffered)

    def span(self, unit, most):
        """A random place and length in units."""
        length = self.rng.randint(1, most // unit) * unit
        return self.rng.randrange(0, self.size - length + unit, unit), length

    def write_direct(self):
        at, length = self.span(512, 256 * KIB)
        with memoryview(self.page) as view:
            kit.equal(os.pwrite(self.direct, view[:length], at), length, "direct write")
        return at, length

    def write_buffered(self):
        at, length = self.span(1, 100 * KIB)
        os.pwrite(self.buffered, self.rng.randbytes(length), at)
        os.fsync(self.buffered)
        return at, length

    def write_mapped(self):
        at, length = self.span(1, 50 * KIB)
        self.map[at:at + length] = self.rng.randbytes(length)
        self.map.flush()
        os.fsync(self.buffered)
        return at, length

    def discard(self):
        at, length = self.span(4 * KIB, 8 * MIB)
        fcntl.ioctl(self.direct, BLKDISCARD, struct.pack("<QQ", at, length))
        return at, length

    def zero(self):
        at, length = self.span(512, 2 * MIB)
        fcntl.ioctl(self.direct, BLKZEROOUT, struct.pack("<QQ", at, length))
        return at, length

    def read(self):
        at, length = self.span(512, 256 * KIB)
        with memoryview(self.page) as view:
            os.preadv(self.direct, [view[:length]], at)
        return at, 0


class Sequence(worker.Worker):
    """Writes blocks of an area one after another, each write once and whole, and tells when each began
    and ended: of all sequences together, an instant holds a beginning of each."""

    clock = itertools.count(1)  # shared, so that the writes of different sequences have an order

    def __init__(self, path, at, size, seed):
        super().__init__(self.write_on)
        self.path, self.at, self.blocks, self.seed = path, at, size // BLOCK, seed
        self.writes = [(None, 0, 0)]  # (block, begun, ended) of each; the first stands for the state before
        self.leave = False

    @staticmethod
    def block(seed, number):
        return struct.pack("<QQ", seed, number) * (BLOCK // 16)

    def write_on(self):
        rng = random.Random(self.seed)
        fd = os.open(self.path, os.O_WRONLY | os.O_DIRECT)
        with mmap.mmap(-1, BLOCK) as page:
            while not self.leave:
                block = rng.randrange(self.blocks)
                page[:] = self.block(self.seed, len(self.writes))
                begun = next(self.clock)
                kit.equal(os.pwrite(fd, page, self.at + block * BLOCK), BLOCK, "write")
                self.writes.append((block, begun, next(self.clock)))
        os.close(fd)

    def held(self, image):
        """How many of its writes an image holds; it fails if it holds a later one without an earlier one."""
        found = {}
        for block in range(self.blocks):
            data = image[self.at + block * BLOCK:self.at + (block + 1) * BLOCK]
            seed, number = struct.unpack_from("<QQ", data)
            if data == bytes(BLOCK):
                number = 0
            else:
                kit.check(seed == self.seed and data == self.block(seed, number), f"block {block} is torn")
            found[block] = number
        count = max(found.values())
        expected = dict.fromkeys(range(self.blocks), 0)
        for number, (block, _, _) in enumerate(self.writes[1:count + 1], 1):
            expected[block] = number
        wrong = [block for block in found if found[block] != expected[block]]
        kit.check(not wrong, f"it holds write {count}, and not all before it: blocks {wrong[:10]}")
        return count


def is_an_instant(sequences, counts):
    """No write that an image holds began after one had ended that it does not hold."""
    begun = max(sequence.writes[count][1] for sequence, count in zip(sequences, counts))
    ended = [sequence.writes[count + 1][2] for sequence, count in zip(sequences, counts)
             if count + 1 < len(sequence.writes)]
    kit.check(begun < min(ended, default=begun + 1), f"no instant: {counts}")


def exercise(path, seed, stop_file):
    """Random operations on one file, each compared with a model in memory, until the stop file is there.

    Runs as a process of its own: its end is an exception if the file is not what was written."""
    rng = random.Random(seed)
    most = 2 * MIB
    model = bytearray()
    fd = os.open(path, os.O_RDWR | os.O_CREAT)
    while not os.path.exists(stop_file):
        at = rng.randrange(most)
        length = rng.randint(1, min(100 * KIB, most - at))
        action = rng.choice(("write", "write", "map", "truncate", "punch", "sync", "read"))
        if action == "write" or action == "map" and at + length > len(model):
            data = rng.randbytes(length)
            os.pwrite(fd, data, at)
            model.extend(bytes(max(0, at + length - len(model))))
            model[at:at + length] = data
        elif action == "map":
            with mmap.mmap(fd, len(model)) as view:
                model[at:at + length] = view[at:at + length] = rng.randbytes(length)
        elif action == "truncate":
            os.ftruncate(fd, at)
            model = model[:at] + bytes(max(0, at - len(model)))
        elif action == "punch" and at + length <= len(model):
            subprocess.run(["fallocate", "-p", "-o", str(at), "-l", str(length), path], check=True)
            model[at:at + length] = bytes(length)
        elif action == "sync":
            os.fsync(fd)
        elif os.pread(fd, length, at) != model[at:at + length]:
            raise kit.Failed(f"seed {seed}: {path} differs at {at}, {length} bytes")
    if os.pread(fd, most, 0) != model:
        raise kit.Failed(f"seed {seed}: {path} differs at the end")
    os.close(fd)
