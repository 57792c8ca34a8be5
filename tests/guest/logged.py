"""A node whose partition and stores lie on one device that logs, in their order, the writes that became durable
(device-mapper's log-writes). What replay.py judges."""

import contextlib
import mmap
import os
import random
import threading

import kit
import mapper
import replay
import worker
from kit import KIB

FOLDER = "/mnt/store"
WRITERS = 3


class Logged(mapper.Mapped):
    def good(self):
        return f"0 {self.sectors} log-writes {self.disk} {kit.disk('log')}"

    def mark(self, text):
        self.call("message", self.name, "0", "mark", text)


@contextlib.contextmanager
def one_flush_at_a_time(path):
    """A loop device over it. The log has what a flush made durable where that flush ended; of two at once the one that
    made nothing durable may end first, and with synchronous writes it is the same: then the log has orders that no power
    cut leaves. Of a loop device each flush waits for the last, and a synchronous write is a write and a flush."""
    kit.run("modprobe", "loop")
    loop = kit.run("losetup", "--find", "--show", "--direct-io=on", path).strip()
    yield loop
    kit.run("losetup", "--detach", loop)


class Slice(mapper.Mapped):
    def __init__(self, name, disk, first, length):
        self.first, self.length = first // 512, length // 512
        super().__init__(name, disk)

    def good(self):
        return f"0 {self.length} linear {self.disk} {self.first}"


def write_some(seed, stop, part_bytes):
    """New extents now and again, in every way that a write can come."""
    rng = random.Random(seed)
    flags = os.O_RDWR | os.O_DIRECT | (os.O_DSYNC if seed % 2 else 0)
    fd = os.open("/dev/snbf/snbf0", flags)
    with os.fdopen(fd, "r+b", buffering=0), mmap.mmap(-1, 64 * KIB) as page:
        page.write(rng.randbytes(64 * KIB))
        with memoryview(page) as view:
            while not stop.is_set():
                length = rng.choice((512, 4 * KIB, 4 * KIB, 4 * KIB, 20 * KIB))
                at = rng.randrange(0, part_bytes - length, 512)
                start = rng.randrange(0, 32 * KIB, 512)
                os.pwrite(fd, view[start:start + length], at)
                if rng.random() < 0.2:
                    os.fsync(fd)


@contextlib.contextmanager
def writers(rng, part_bytes):
    """Writers at work, for the time of a block; none of their writes may fail."""
    stop = threading.Event()
    workers = [worker.Worker(write_some, rng.randrange(1 << 30), stop, part_bytes) for _ in range(WRITERS)]
    for each in workers:
        each.start()
    try:
        yield
    finally:
        stop.set()
        for each in workers:
            each.join()
    for each in workers:
        each.check()


@contextlib.contextmanager
def node(part_bytes):
    """Node 0 over the front of the logged device, its bitmap files behind it in FOLDER; answers that device."""
    kit.run("modprobe", "dm-log-writes")
    device = Logged("logged", kit.disk("base"))
    with one_flush_at_a_time(device.path) as loop:
        part = Slice("part", loop, 0, part_bytes)
        store = Slice("store", loop, part_bytes, device.sectors * 512 - part_bytes)
        kit.run("mkfs.ext4", "-q", *replay.Ext4.OPTIONS, store.path)
        os.makedirs(FOLDER, exist_ok=True)
        kit.run("mount", store.path, FOLDER)
        with kit.node(part.path, FOLDER, minor=0, extent_size=4 * KIB):
            yield device
        kit.run("umount", FOLDER)
        store.remove()
        part.remove()
    device.remove()


def judge(judge_of, part_bytes):
    """That the log has no fault, and enough in it. A long log is judged outside, which is faster, by the judge's own
    program over the log's disk."""
    if not os.environ.get("SNBF_LONG"):
        judge_now(judge_of(part_bytes, kit.size_of(kit.disk("base"))))


def judge_now(of):
    found = replay.judge_log(of, kit.disk("log"))
    kit.equal(found.faults[:5], [], f"{len(found.faults)} faults in {found.prefixes} prefixes and {found.cuts} cuts")
