#!/usr/bin/env python3
"""Memory down to a few megabytes while writes are held for a snap: they reach the partition all the same, and the image is
exact or given up."""

import contextlib
import ctypes
import os
import random
import subprocess
import sys
import threading

import images
import kit
from kit import KIB, MIB

GUEST = {"kernels": "installed", "minutes": 1, "disks": ["raw:24M", "store:96M"], "memory": 512, "limit": 150,
         "allow": [r"page allocation failure", r"order:\d+, mode:"]}

SIZE = 24 * MIB
WRITERS = 4
STRIPE = SIZE // WRITERS
LEFT_KIB = 12 * 1024
ROUNDS = 3  # at the most
HOG = f"""
import ctypes, mmap, sys
libc = ctypes.CDLL(None, use_errno=True)
def available():
    with open("/proc/meminfo") as lines:
        return next(int(line.split()[1]) for line in lines if line.startswith("MemAvailable:"))
held = []
while available() > {LEFT_KIB}:
    held.append(mmap.mmap(-1, 256 * 1024))
    if libc.mlock(ctypes.c_void_p(ctypes.addressof(ctypes.c_char.from_buffer(held[-1]))), ctypes.c_size_t(256 * 1024)) != 0:
        sys.exit("mlock: " + str(ctypes.get_errno()))
print(available(), flush=True)
sys.stdin.read()
"""


@contextlib.contextmanager
def hog():
    """Somebody who has all memory but LEFT_KIB, and cannot be made to give any of it up."""
    with subprocess.Popen([sys.executable, "-c", HOG], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
        left = process.stdout.readline()
        kit.check(left and int(left) <= LEFT_KIB, f"what is left is {left!r}, status {process.poll()}")
        yield
        kit.equal(process.poll(), None, "it has had its memory to the end; its status")
        process.stdin.close()


def stay_in_memory():
    """What this program is made of is not read again and again from the host meanwhile."""
    current_and_future = 3
    kit.equal(ctypes.CDLL(None).mlockall(current_and_future), 0, "mlockall")


def write_stripe(fd, number, page, wanted):
    """Everything twice, in an order of its own; `wanted` becomes what must be there in the end."""
    rng = random.Random(number)
    with memoryview(page) as view:
        for turn in range(2):
            for at in rng.sample(range(0, STRIPE, 64 * KIB), STRIPE // (64 * KIB)):
                source = (at // 64 + turn * 4096 + number * 512) % MIB // 512 * 512
                place = number * STRIPE + at
                kit.equal(os.pwritev(fd, [view[source:source + 64 * KIB]], place), 64 * KIB, "write")
                wanted[place:place + 64 * KIB] = view[source:source + 64 * KIB]


def one_round(path, store, page):
    """How many chunks were copied for the snap before it was given up, if it was."""
    before = images.read_all(kit.disk("raw"))
    after = bytearray(SIZE)
    failures = []
    fd = os.open(path, os.O_RDWR | os.O_DIRECT)
    snap = store.start(before, chunk_size=64 * KIB)

    def write(number):
        try:
            write_stripe(fd, number, page, after)
        except Exception as error:  # pylint: disable=broad-except
            failures.append(error)

    writers = [threading.Thread(target=write, args=(number,)) for number in range(WRITERS)]
    with hog():
        for writer in writers:
            writer.start()
        for writer in writers:
            writer.join()
    os.close(fd)
    for failure in failures:
        raise failure
    kit.equal(images.differing(kit.disk("raw"), after, 64 * KIB), [], "writes that did not reach the partition")
    copied = len(snap.copied())
    is_valid = kit.info(snap.minor).snap_valid
    if is_valid:
        snap.check("without memory")
        kit.equal(copied, SIZE // (64 * KIB), "copied chunks, of which each was written")
    print(f"the image is {'exact' if is_valid else 'given up'}, {copied} chunks were copied")
    kit.done(kit.stop(snap.minor), "stop")
    return copied


@kit.case
def held_writes_need_no_more_memory_than_there_is():
    """A snap that is given up at its first copy holds no write, so that nothing would have been tried: once more then."""
    with open(kit.disk("raw"), "wb") as out:
        out.write(random.Random(1).randbytes(SIZE))
    kit.load(snbf_debug=0)
    with images.snapped(kit.disk("raw"), kit.state_folder("store"), extent_size=4 * KIB) as (path, store):
        page = images.aligned(2 * MIB)
        page.write(random.Random(2).randbytes(2 * MIB))
        threading.stack_size(256 * KIB)  # which is locked, too
        stay_in_memory()
        kit.check(any(one_round(path, store, page) for _ in range(ROUNDS)), f"no chunk was copied in {ROUNDS} rounds")


@kit.case
def it_unloads():
    kit.unload()
    kit.equal(kit.slabs(), [], "slab caches")


if __name__ == "__main__":
    kit.main()
