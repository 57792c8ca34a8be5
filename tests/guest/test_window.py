#!/usr/bin/env python3
"""No power cut leaves a bitmap file that a load takes over and that lacks a change: writers and saves over a
device whose every durable write is logged, and each prefix of that log judged. SNBF_LONG=N makes the load N times
as long, and leaves the judging to replay.py over the log's disk."""

import contextlib
import mmap
import os
import random
import threading

import kit
import mapper
import replay
from kit import KIB, MIB

GUEST = {"disks": ["base:64M", "log:4G"], "limit": 240}

PART = 16 * MIB
WRITERS = 3
SAVES_A_ROUND = 8
ROUNDS = 3 * int(os.environ.get("SNBF_LONG") or 1)
SEED = 20240619


class Logged(mapper.Mapped):
    def good(self):
        return f"0 {self.sectors} log-writes {self.disk} {kit.disk('log')}"

    def mark(self, text):
        self.call("message", self.name, "0", "mark", text)


class Slice(mapper.Mapped):
    def __init__(self, name, disk, first, length):
        self.first, self.length = first // 512, length // 512
        super().__init__(name, disk)

    def good(self):
        return f"0 {self.length} linear {self.disk} {self.first}"


def write_some(seed, stop):
    """New extents now and again, in every way that a write can come."""
    rng = random.Random(seed)
    flags = os.O_RDWR | os.O_DIRECT | (os.O_DSYNC if seed % 2 else 0)
    fd = os.open("/dev/snbf/snbf0", flags)
    with mmap.mmap(-1, 64 * KIB) as page:
        page.write(rng.randbytes(64 * KIB))
        with memoryview(page) as view:
            while not stop.is_set():
                length = rng.choice((512, 4 * KIB, 4 * KIB, 4 * KIB, 20 * KIB))
                at = rng.randrange(0, PART - length, 512)
                os.pwrite(fd, view[:length], at)
                if rng.random() < 0.2:
                    os.fsync(fd)
    os.close(fd)


def save_some(rng):
    for _ in range(SAVES_A_ROUND):
        kit.done(kit.bmp_select("SAVE_BMP", 0, rng.choice(kit.BITMAPS)), "save")
        threading.Event().wait(rng.random() * 0.15)


def one_round(logged, rng):
    logged.mark("clearing")
    kit.clear(0)
    logged.mark("cleared")
    stop = threading.Event()
    writers = [threading.Thread(target=write_some, args=(rng.randrange(1 << 30), stop)) for _ in range(WRITERS)]
    for writer in writers:
        writer.start()
    save_some(rng)
    stop.set()
    for writer in writers:
        writer.join()


@contextlib.contextmanager
def logged_node():
    """A node over the front of the logged device, its bitmap files behind it; answers that device."""
    kit.run("modprobe", "dm-log-writes")
    logged = Logged("logged", kit.disk("base"))
    part = Slice("part", logged.path, 0, PART)
    store = Slice("store", logged.path, PART, logged.sectors * 512 - PART)
    kit.run("mkfs.ext4", "-q", *replay.Ext4.OPTIONS, store.path)
    os.makedirs("/mnt/store", exist_ok=True)
    kit.run("mount", store.path, "/mnt/store")
    with kit.node(part.path, "/mnt/store", minor=0, extent_size=4 * KIB):
        yield logged
    kit.run("umount", "/mnt/store")
    store.remove()
    part.remove()
    logged.remove()


@kit.case
def every_prefix_of_the_log_has_a_true_bitmap():
    rng = random.Random(SEED)
    kit.load(snbf_debug=0)
    with logged_node() as logged:
        kit.clear(0)
        logged.mark("begin")
        for _ in range(ROUNDS):
            one_round(logged, rng)
        logged.mark("end")
    if os.environ.get("SNBF_LONG"):
        return  # judged outside, where it is faster: replay.py over the log's disk
    judge = replay.judge_log(kit.disk("log"), PART, kit.size_of(kit.disk("base")))
    print(f"{judge.prefixes} prefixes: {dict(judge.counts)}")
    kit.equal(judge.lacking[:5], [], f"{len(judge.lacking)} files in {judge.prefixes} prefixes lack a change")
    kit.check(judge.prefixes > 200 and judge.counts["not whole"] > 20 and judge.counts["covering"] > 20,
              f"too little was tried: {judge.prefixes} prefixes, {judge.counts}")


if __name__ == "__main__":
    kit.main()
