"""Memory and copies to callers that fail by the kernel's will, in the caller's own task and in the driver's threads.

Each command may fail then, with an error that says so. What must not happen: a hang, a splat, something left over. One
command is spared memory faults, the creation of a snap: by its contract two of its failures leave the table locked.
"""

import ctypes
import errno
import fcntl
import glob
import os
import random
import re
import shutil
import struct
import subprocess

import kit
from kit import KIB, MIB
from tool import TOOL

GUEST = {"kernels": "debug", "minutes": 10, "flavours": {"kasan": ["main"]}, "limit": 500,
         "disks": ["a:16M", "state:64M", "store:64M"],
         "words": ["slub_debug=A,bio-*"],  # what requests are made of: with a filter, failslab hits these alone
         # The file system below and the detectors are short of memory too, and may say so.
         "allow": [r"EXT4-fs", r"Buffer I/O error on dev", "kmemleak: Cannot allocate a scan area",
                   # What the kernel shows of a pool that it has no memory for.
                   r"Call Trace:", r"kobject_add_internal failed for .*error: -12"]}

SEED = int(os.environ.get("SNBF_SEED", "1"))
ROUNDS = int(os.environ.get("SNBF_COMMANDS", "16"))
DEBUGFS = "/sys/kernel/debug"
FILTERS, SNAPS = 1, 2
KINDS = ("failslab", "fail_usercopy")
MEANT = {errno.ENOMEM, errno.EFAULT, errno.EIO, errno.EBUSY, errno.EINVAL, errno.EALREADY, errno.ENOENT, errno.ENOSPC,
         errno.EOPNOTSUPP, errno.EROFS}


def setting(kind, name, value):
    with open(f"{DEBUGFS}/{kind}/{name}", "w", encoding="ascii") as out:
        out.write(str(value))


def faults(kind, percent):
    """Of the tasks that are aimed at, that share of the calls fails; 0: none."""
    for name, value in (("task-filter", "Y"), ("verbose", 0), ("interval", 1), ("times", -1), ("probability", percent)):
        setting(kind, name, value)
    if kind == "failslab":
        setting(kind, "ignore-gfp-wait", "N")


class Aim:
    """Faults hit this thread, or another task, for the time of a block."""

    def __init__(self, task="thread-self"):
        self.fd = os.open(f"/proc/{task}/make-it-fail", os.O_WRONLY)

    def __enter__(self):
        os.pwrite(self.fd, b"1", 0)

    def __exit__(self, *_):
        while True:
            try:
                os.pwrite(self.fd, b"0", 0)
                os.close(self.fd)
                return
            except OSError as error:  # by a fault
                kit.check(error.errno in (errno.EFAULT, errno.ENOMEM), error)


def ask(fd, command, record, aimed=True):
    """One command's answer; nothing else of this program is in its way."""
    number = kit.COMMANDS[command]
    try:
        if aimed:
            with Aim():
                fcntl.ioctl(fd, number, record, True)
        else:
            fcntl.ioctl(fd, number, record, True)
        return 0
    except OSError as error:
        return error.errno


def of_minor(minor, *more):
    return bytearray(struct.pack(f"<{1 + len(more)}I", minor, *more))


def exchange(minor, kind, data):
    record = kit.BmpCommand(minor=minor, type=kind, size=len(data))
    return pointing(record, data)


def pointing(record, data):
    """The record has the address alone: it keeps the memory there, too."""
    record.memory = (ctypes.c_char * len(data)).from_buffer(data)
    record.data = ctypes.addressof(record.memory)
    return record


def filter_record(folder):
    return kit.FilterNode(hdd_name=kit.disk("a").encode(), minor=0, extent_size=64 * KIB, bmp_dir=folder.encode())


def snap_record(folder):
    return kit.SnapNode(snbf_minor=0, snap_minor=1, chunk_size=64 * KIB, cow_bmp_fname=f"{folder}/s.bmp".encode(),
                        cow_data_fname=f"{folder}/s.data".encode())


def commands_of_filter(fd, rng):
    """Each command that a filter node knows, in an order of the seed's, as (name, record)."""
    data = bytearray(rng.randbytes(32))
    kind = rng.choice(kit.BITMAPS)
    found = [("GET_DEVICE_LIST", kit.DeviceList(dev_type=rng.choice((FILTERS, SNAPS)))), ("GET_INFO", kit.Info(minor=0)),
             *((name, of_minor(0, kind)) for name in ("SAVE_BMP", "LOAD_BMP", "CLR_BMP")),
             *((name, exchange(0, kind, data)) for name in ("SET_BMP", "MERGE_BMP", "GET_BMP", "GET_AND_CLR_BMP")),
             ("GET_DATABLOCK_BMP", pointing(kit.DatablockCommand(minor=0, extent_size=64 * KIB, size=len(data)),
                                            data)),
             ("TEST_DATABLOCK", bytearray(kit.disk("a").encode().ljust(1024, b"\0"))),
             ("STOP_NODE", of_minor(0)), ("START_NODE", of_minor(0))]
    rng.shuffle(found)
    return found


def added(fd, folder):
    """A filter node: tried under faults, then without them, when it must work."""
    for _ in range(30):
        ask(fd, "ADD_FILTER_NODE", filter_record(folder))
        if kit.minors(FILTERS):
            return
    kit.done(-ask(fd, "ADD_FILTER_NODE", filter_record(folder), aimed=False), "add without a fault")


def clean_up():
    """Without faults all of it works: the snap goes, then the filter."""
    for minor in kit.minors(SNAPS) + kit.minors(FILTERS):
        if kit.info(minor).started:
            kit.done(kit.stop(minor), f"stop of {minor}")
        kit.done(kit.delete(minor), f"deletion of {minor}")
    kit.equal(kit.minors(SNAPS) + kit.minors(FILTERS), [], "nodes")


@kit.case
@kit.essential
def the_kernel_can_fail_on_request():
    for kind in KINDS:
        kit.check(os.path.isdir(f"{DEBUGFS}/{kind}"), kind)
    kit.state_folder("state")
    kit.state_folder("store")
    kit.load(snbf_debug=0)


def every_command(kind, percent):
    rng = random.Random(SEED)
    failed = {}
    fd = os.open(kit.CONTROL, os.O_RDWR)
    faults(kind, percent)
    for _ in range(ROUNDS):
        added(fd, kit.state_folder("state"))
        for name, record in commands_of_filter(fd, rng):
            answer = ask(fd, name, record)
            failed[answer] = failed.get(answer, 0) + 1
        ask(fd, "STOP_NODE", of_minor(0))
        ask(fd, "DEL_NODE", of_minor(0))
        clean_up()
    faults(kind, 0)
    os.close(fd)
    kit.check(set(failed) - {0} <= MEANT, f"answers {failed}")
    kit.check(failed.get(errno.ENOMEM if kind == "failslab" else errno.EFAULT), f"no fault among {failed}")


@kit.case
def commands_to_a_filter_survive_memory_faults():
    every_command("failslab", 5)


@kit.case
def commands_to_a_filter_survive_faults_in_copies_to_callers():
    every_command("fail_usercopy", 20)


def rewrite(path, rng):
    """Writes all over the node: none may fail, and what was written is there."""
    fd = os.open(path, os.O_RDWR | os.O_DSYNC)
    blocks = {rng.randrange(16 * MIB // 4096): rng.randbytes(4096) for _ in range(64)}
    for block, data in blocks.items():
        kit.equal(os.pwrite(fd, data, block * 4096), 4096, "write")
    os.close(fd)
    fd = os.open(path, os.O_RDONLY)
    for block, data in blocks.items():
        kit.equal(os.pread(fd, 4096, block * 4096), data, f"block {block}")
    os.close(fd)


@kit.case
def a_snap_s_life_survives_memory_faults_in_every_thread():
    rng = random.Random(SEED)
    fd = os.open(kit.CONTROL, os.O_RDWR)
    for _ in range(ROUNDS // 4):
        kit.done(kit.add(kit.disk("a"), kit.state_folder("state"), minor=0)[0], "add")
        kit.done(kit.start(0), "start")
        kit.done(ask(fd, "ADD_SNAP_NODE", snap_record(kit.state_folder("store")), aimed=False), "add snap")
        faults("failslab", 5)
        ask(fd, "START_NODE", of_minor(1))
        aims = [Aim(task) for task in kit.driver_threads()]
        for aim in aims:
            aim.__enter__()
        rewrite("/dev/snbf/snbf0", rng)
        for name in ("GET_INFO", "STOP_NODE"):
            ask(fd, name, kit.Info(minor=1) if name == "GET_INFO" else of_minor(1))
        faults("failslab", 0)
        for aim in aims:
            try:
                aim.__exit__()
            except ProcessLookupError:  # it ended with the snap
                pass
        clean_up()
    os.close(fd)


@kit.case
def a_snap_starts_while_requests_come_from_their_reserves_alone():
    """Starting takes many requests and keeps them: out of a reserve they would never come back."""
    pools = glob.glob("/sys/kernel/slab/bio-*/failslab")
    kit.check(pools, "slabs of requests")
    for pool in pools:
        with open(pool, encoding="ascii") as aimed_at:
            kit.equal(aimed_at.read(), "1\n", pool)
    kit.done(kit.add(kit.disk("a"), kit.state_folder("state"), minor=0)[0], "add")
    kit.done(kit.start(0), "start")
    kit.done(kit.control("ADD_SNAP_NODE", snap_record(kit.state_folder("store"))), "add snap")
    fd = os.open(kit.CONTROL, os.O_RDWR)
    setting("failslab", "cache-filter", "Y")
    faults("failslab", 100)
    setting("failslab", "task-filter", "N")
    try:
        kit.equal(ask(fd, "START_NODE", of_minor(1), aimed=False), 0, "start")
        rewrite("/dev/snbf/snbf0", random.Random(SEED))
    finally:
        faults("failslab", 0)
        setting("failslab", "cache-filter", "N")
        os.close(fd)
    clean_up()


def keep_in_memory(*programs):
    """The root's protocol loses count of what its server has open when it is short of memory, and then finds no file any
    more: the programs and their libraries are copied above it."""
    for program in programs:
        libraries = re.findall(r"(/\S+) \(0x", kit.run("ldd", program))
        for path in (program, *libraries):
            with open(os.path.realpath(path), "r+b"):
                pass


@kit.case
def the_tool_fails_in_its_own_words_or_works():
    def aim():
        with open("/proc/self/make-it-fail", "w", encoding="ascii") as out:
            out.write("1")

    verbs = [("attach", kit.disk("a"), "--name", "a", "--bitmaps", kit.state_folder("state"), "--start"), ("list",),
             ("status", "a"), ("changes", "a"), ("bitmap", "save", "a"), ("snap", "list"), ("stop", "a"), ("start", "a"),
             ("detach", "a")]
    keep_in_memory(TOOL, shutil.which("rmmod"))
    faults("failslab", 1)
    try:
        for _ in range(ROUNDS // 8):
            for words in verbs:
                try:
                    subprocess.run([TOOL, *words], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, preexec_fn=aim, check=False)
                except OSError as error:  # it is aimed at before it has become the tool
                    kit.check(error.errno in (errno.ENOMEM, errno.E2BIG), error)  # the latter of what its words take
    finally:
        faults("failslab", 0)
    clean_up()


@kit.case
def and_it_unloads():
    for kind in KINDS:
        faults(kind, 0)
    kit.unload()
    kit.equal(kit.slabs(), [], "slabs")
    kit.equal(kit.driver_threads(), [], "threads")


if __name__ == "__main__":
    kit.main()
