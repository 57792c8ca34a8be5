"""A store of bitmap files that fails, stalls, is full or is gone: the writes go on, each of them is marked in memory,
and the files are flagged again as soon as they can be."""

import contextlib
import os
import random
import time

import images
import kit
import mapper
import patience
import worker
from kit import KIB, MIB

GUEST = {"minutes": 4, "disks": ["raw:16M", "store:48M"], "limit": 500,
         # What ext4 says when the disk below it is made to fail.
         "allow": [r"Buffer I/O error on dev(ice)? dm-", r"EXT4-fs (error|warning) \(device dm-",
                   "EXT4-fs error: .* suppressed",
                   r"EXT4-fs \(dm-\d+\): (I/O error while writing superblock|Remounting)", "JBD2: I/O error .*dm-"]}

SEED = 20261123
LIMIT_S = 10  # so long a write may wait for a flag
RETRY_S = 60  # and so long may pass between two tries of a flag that was given up, at the most
FOLDER = "/mnt/store/bitmaps"
FILES = tuple(f"{FOLDER}/snbf0.{kind}" for kind in ("incr", "diff"))
FLAGGED = b"SNBFBMP\x01"
GAVE_UP = "The dirty flag of snbf(100, 0) could not be raised within 10 seconds. Its writes go on without it."


@kit.case
@kit.essential
def the_module_loads():
    kit.run("modprobe", "dm-mod")
    kit.run("modprobe", "dm-flakey")
    kit.load(snbf_debug=0)


class Scene:
    """A node whose two bitmap files are whole, on a store that can be made to fail."""

    def __init__(self, stack):
        self.store = mapper.Mapped("store", kit.disk("store"))
        stack.callback(self.store.remove)
        kit.run("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", self.store.path)
        self.mount()
        stack.callback(lambda: kit.run("umount", "/mnt/store"))
        os.makedirs(FOLDER)
        stack.enter_context(kit.node(kit.disk("raw"), FOLDER, minor=0))
        kit.clear(0)
        kit.check(not self.is_flagged(), "the files are whole")
        # A last close saves the bitmaps, and waits for their store.
        self.fd = os.open("/dev/snbf/snbf0", os.O_WRONLY | os.O_DIRECT)
        stack.callback(self.close)
        self.rng = random.Random(SEED)
        self.log = kit.KernelLog()
        stack.callback(self.log.close)
        self.written = {}

    def mount(self):
        os.makedirs("/mnt/store", exist_ok=True)
        kit.run("mount", "-o", "errors=continue", self.store.path, "/mnt/store")

    @staticmethod
    def unmount():
        """The driver may just look for the folder."""
        kit.wait_until(lambda: "target is busy" not in kit.run("umount", "/mnt/store", ok=False), 30, "unmount")

    def close(self):
        if self.fd is not None:
            os.close(self.fd)
            self.fd = None

    @staticmethod
    def is_flagged():
        found = []
        for path in FILES:
            with open(path, "rb") as file:
                found.append(file.read() == FLAGGED)
        return all(found)

    def write(self, extent):
        data = self.rng.randbytes(4 * KIB)
        with images.aligned(4 * KIB) as page:
            page[:] = data
            kit.equal(os.pwrite(self.fd, page, extent * 64 * KIB), 4 * KIB, f"write of extent {extent}")
        self.written[extent] = data

    def timed_write(self, extent):
        kit.mark("the write begins")
        self.write(extent)
        kit.mark("the write has ended")

    def first_write_waits(self):
        """It is not lost, and waits for the flag's ten seconds at the most; those behind it do not wait any more."""
        with patience.Patience() as beside:
            first = worker.Worker(self.timed_write, 3)
            first.start()
            first.join(6 * LIMIT_S * kit.SLOWNESS)  # it only ends a hang
            kit.check(not first.is_alive(), "the write waits for the store")
            first.check()
            records = self.log.records()
            begun, given_up, ended = kit.times_of(records, "the write begins", GAVE_UP, "the write has ended")
            kit.check(given_up - begun > LIMIT_S - 1, f"the flag was given up after {given_up - begun:.1f} s")
            kit.check(ended > given_up - 1, "it went on before the flag was given up")
            beside.judge(given_up - begun, LIMIT_S, "until the flag was given up")
            beside.judge(ended - begun, LIMIT_S, "until the write had ended")
        with patience.Patience() as beside:
            began = time.monotonic()
            for extent in range(20, 60):
                self.write(extent)
            # Forty of them: one that waited for a flag again would last twice that alone.
            beside.judge(time.monotonic() - began, LIMIT_S / 2, "all of the later writes")
        kit.check(not any(GAVE_UP in text for text in self.log.texts()), "a later write waited, too")

    def all_is_marked(self):
        for kind in kit.BITMAPS:
            kit.equal(kit.marked(0, kind), set(self.written), f"bitmap {kind}")
        disk = images.read_all(kit.disk("raw"))
        for extent, data in self.written.items():
            kit.check(disk[extent * 64 * KIB:][:4 * KIB] == data, f"extent {extent} is not what was written")

    def flags_come_back(self):
        kit.wait_until(self.is_flagged, 3 * RETRY_S, "the flags")
        self.all_is_marked()
        self.saves_are_whole_again()

    def saves_are_whole_again(self):
        self.close()
        kit.done(kit.stop(0), "stop")
        kit.check(not self.is_flagged(), "the stop saves them")
        kit.done(kit.start(0), "start")
        for kind in kit.BITMAPS:
            kit.done(kit.bmp_select("LOAD_BMP", 0, kind), "load")
        self.all_is_marked()


@contextlib.contextmanager
def scene():
    with contextlib.ExitStack() as stack:
        yield Scene(stack)


@kit.case
def one_that_stalls():
    with scene() as at:
        at.store.stall()
        try:
            at.first_write_waits()
            at.all_is_marked()
        finally:
            at.store.go_on()
        at.flags_come_back()


@kit.case
def one_that_is_dead_for_a_while():
    with scene() as at:
        at.store.become(at.store.failing())
        try:
            at.first_write_waits()
            at.all_is_marked()
        finally:
            at.store.become(at.store.good())
        at.unmount()  # its file system has lost the thread
        kit.run("fsck.ext4", "-fy", at.store.path, ok=False)
        at.mount()
        at.flags_come_back()


@kit.case
def one_that_is_gone():
    with scene() as at:
        os.rename(FOLDER, FOLDER + ".away")
        at.first_write_waits()
        os.rename(FOLDER + ".away", FOLDER)
        at.flags_come_back()


@kit.case
def one_that_is_unmounted():
    """Nobody has its files open. Beneath it is a folder of the same name, where new ones would say nothing of them."""
    with scene() as at:
        at.unmount()
        os.makedirs(FOLDER)
        at.first_write_waits()
        kit.equal(os.listdir(FOLDER), [], "files beneath the store")
        at.all_is_marked()
        at.mount()
        at.flags_come_back()


@kit.case
def one_that_is_full():
    """The file makes room for its own flag."""
    with scene() as at:
        with open("/mnt/store/filler", "wb") as filler, contextlib.suppress(OSError):
            while True:
                filler.write(bytes(64 * KIB))
                filler.flush()
        at.write(5)
        # Two threads raise them, and the later one empties the file first.
        kit.wait_until(at.is_flagged, LIMIT_S, "the flags")
        kit.check(not any(GAVE_UP in text for text in at.log.texts()), "they were given up")
        at.all_is_marked()
        os.unlink("/mnt/store/filler")
        at.saves_are_whole_again()


@kit.case
def and_it_unloads():
    kit.unload()
    kit.equal(kit.slabs(), [], "slabs")
    kit.equal(kit.driver_threads(), [], "threads")


if __name__ == "__main__":
    kit.main()
