"""Callers whose records are random or spoilt, many at once, while nodes live and die under their hands."""

import contextlib
import errno
import fcntl
import multiprocessing
import os
import random
import subprocess
import threading

import images
import kit
import worker
from kit import KIB, MIB

GUEST = {"minutes": 3, "kernels": "installed", "disks": ["a:16M", "b:16M", "state:64M"], "limit": 500,
         "words": ["slub_debug=FZP"],
         # Of a snap whose stop is postponed, or that is lost: who looks at it meanwhile gets no data.
         "allow": ["Buffer I/O error on dev snbf"]}

SEED = int(os.environ.get("SNBF_SEED", "1"))
COMMANDS = int(os.environ.get("SNBF_COMMANDS", "4000")) * int(os.environ.get("SNBF_LONG") or 1)
LOOKS = 1000
SIZE = 16 * MIB
WRITERS = 2

# What the driver may answer to anything at all; nothing else may come out.
ANSWERS = {0, errno.ENOENT, errno.EIO, errno.ENOMEM, errno.EFAULT, errno.EBUSY, errno.EINVAL, errno.ENOTTY,
           errno.ENOSPC, errno.EOPNOTSUPP, errno.EALREADY}
# To who opens a node: it is gone, is going, or is not started.
NOT_OPEN = {errno.ENOENT, errno.ENXIO, errno.EINVAL, errno.EIO}
# To who writes to a snap. One that is open is not stopped: a write to a filter node never fails.
NO_WRITE = {errno.EPERM}


def hostile(seed, threads):
    program = f"{os.environ['SNBF_BUILD']}/guest/bin/hostile"
    found = subprocess.run([program, str(seed), str(threads), str(COMMANDS), kit.state_folder(), kit.disk("a"),
                            kit.disk("b")], stdout=subprocess.PIPE, text=True, check=True).stdout
    lines = [line.split() for line in found.splitlines()]
    done = [int(count) for word, count in lines if word == "done"]
    kit.check(len(done) == threads and all(done), f"commands done by each thread: {done}")
    return {int(word): int(count) for word, count in lines if word != "done"}


class Writer:
    """Writes to whatever node there is, past the page cache or through it, over short openings."""

    def __init__(self, number, stop):
        self.rng = random.Random(SEED * WRITERS + number)
        # A direct write that finds its page dirtied meanwhile by a buffered one is an error to the kernel, which
        # the next fsync of whoever has the device open gets to hear: each kind has a half of its own.
        self.base = number % 2 * (SIZE // 2)
        self.flags = os.O_RDWR | (os.O_DIRECT if number % 2 else 0)
        self.stop = stop
        self.written = 0

    def work(self):
        with images.aligned(4 * KIB) as page:
            page.write(self.rng.randbytes(4 * KIB))
            while not self.stop.is_set():
                fd = self.open_any()
                if fd is None:
                    self.stop.wait(0.01)
                else:
                    self.write_some(fd, page)

    def open_any(self):
        nodes = [name for name in os.listdir("/dev/snbf") if name != "control"]
        if not nodes:
            return None
        try:
            return os.open(kit.node_path(self.rng.choice(nodes)), self.flags)
        except OSError as error:
            if error.errno not in NOT_OPEN:
                raise
            return None

    def write_some(self, fd, page):
        try:
            for _ in range(self.rng.randint(1, 8)):
                os.pwrite(fd, page, self.base + self.rng.randrange(0, SIZE // 2, 4 * KIB))
                self.written += 1
            os.fsync(fd)
        except OSError as error:
            if error.errno not in NO_WRITE:
                raise
        finally:
            os.close(fd)


@contextlib.contextmanager
def nodes_in_use():
    """Written by some and looked at by one, for the time of a block."""
    stop = threading.Event()
    writers = [Writer(number, stop) for number in range(WRITERS)]
    workers = [worker.Worker(writer.work) for writer in writers]
    looker = subprocess.Popen([f"{os.environ['SNBF_BUILD']}/guest/bin/looker", "1"])
    for each in workers:
        each.start()
    try:
        yield
        kit.check(looker.poll() is None, f"the looker ended by {looker.poll()}")
    finally:
        stop.set()
        looker.kill()
        looker.wait()
        for each in workers:
            each.join()
    for each in workers:
        each.check()
    written = [writer.written for writer in writers]
    kit.check(all(written), f"writes by each: {written}")


@kit.case
def spoilt_records_get_errors_and_nothing_else():
    kit.load(snbf_debug=0)
    answers = hostile(SEED, 1)
    kit.equal(set(answers) - ANSWERS, set(), f"answers {answers}")
    for wanted in (0, errno.EINVAL, errno.EFAULT, errno.ENOTTY):
        kit.check(answers.get(wanted, 0) > 0, f"no {errno.errorcode.get(wanted, 0)} among {answers}")


@kit.case
def the_driver_works_as_before():
    for minor in list(kit.minors()) + [255]:
        kit.delete(minor)
    with kit.node(kit.disk("a"), kit.state_folder()) as record:
        kit.clear(record.minor)
        fd = os.open(kit.node_path(f"snbf{record.minor}"), os.O_RDWR)
        os.pwrite(fd, b"x" * 512, 65536)
        os.fsync(fd)
        os.close(fd)
        kit.check(1 in kit.marked(record.minor, kit.INCR), "the write is marked")


@kit.case
def from_many_threads_while_nodes_are_used():
    with nodes_in_use():
        answers = hostile(SEED + 1, 4)
    kit.equal(set(answers) - ANSWERS, set(), f"answers {answers}")


@kit.case
def a_device_is_opened_and_closed_by_many_at_once():
    """Its openings are alike, and any close takes any of them."""
    record = kit.disk("b").encode().ljust(1024, b"\0")

    def look():
        fd = os.open(kit.CONTROL, os.O_RDWR)
        for _ in range(LOOKS):
            try:
                fcntl.ioctl(fd, kit.COMMANDS["TEST_DATABLOCK"], record)
            except OSError as error:
                if error.errno not in ANSWERS:
                    raise

    callers = [multiprocessing.get_context("fork").Process(target=look) for _ in range(8)]
    for caller in callers:
        caller.start()
    for caller in callers:
        caller.join()
    kit.equal([caller.exitcode for caller in callers], [0] * len(callers), "callers")


@kit.case
def and_it_unloads():
    kit.wait_until(lambda: subprocess.run(["rmmod", "snbf"], check=False).returncode == 0, 30, "rmmod")
    kit.equal(kit.slabs(), [], "slabs")


if __name__ == "__main__":
    kit.main()
