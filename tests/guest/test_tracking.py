"""Every write marks exactly its extents in both bitmaps: raw writers against a model of the same writes,
file systems against the kernel's trace of requests and against the bytes that differ afterwards."""

import contextlib
import mmap
import os
import random
import shutil
import threading

import kit
import trace
import worker
import writers
from kit import DIFF, INCR, KIB, MIB

GUEST = {"minutes": 4, "disks": ["raw:64M", "ext4:256M", "xfs:320M", "state:64M", "big:4G"], "limit": 700}

SEED = 20240607
state = ""


@kit.case
@kit.essential
def the_module_loads():
    global state
    state = kit.state_folder()
    kit.load(snbf_debug=0)


@contextlib.contextmanager
def tracked(name, extent_size=64 * KIB):
    """A started node over a disk, both bitmaps empty; answers its device file."""
    with kit.node(kit.disk(name), state, minor=0, extent_size=extent_size):
        kit.clear(0)
        yield "/dev/snbf/snbf0"


def numbers(mask):
    return sorted(kit.extents(mask.to_bytes((mask.bit_length() + 7) // 8, "little")))


def raw_rounds(extent_size, rounds):
    rng = random.Random(SEED + extent_size)
    with tracked("raw", extent_size) as path, contextlib.closing(writers.RawWriter(path, rng)) as writer:
        every = [writer.write_direct, writer.write_buffered, writer.write_mapped, writer.discard, writer.zero,
                 writer.read]
        model = {INCR: 0, DIFF: 0}  # bit e is extent e
        for number in range(rounds):
            action = rng.choice(every)
            at, length = action()
            for kind in kit.BITMAPS:
                for extent in kit.covering(at, length, extent_size):
                    model[kind] |= 1 << extent
                found = int.from_bytes(kit.bitmap(0, kind), "little")
                if found != model[kind]:
                    raise kit.Failed(f"seed {SEED}, round {number}: {action.__name__} at {at}, {length} bytes: "
                                     f"bitmap {kind} misses {numbers(model[kind] & ~found)}, "
                                     f"has {numbers(found & ~model[kind])} too many")
            if number % 25 == 24:  # an incremental backup takes its bitmap; the other goes on
                handed = int.from_bytes(kit.bitmap(0, INCR, "GET_AND_CLR_BMP"), "little")
                kit.equal(handed, model[INCR], "handed out")
                model[INCR] = 0


@kit.case
def raw_writers_of_every_kind_mark_exactly_what_they_touch():
    raw_rounds(64 * KIB, 200)


@kit.case
def the_smallest_extents_are_exact_too():
    raw_rounds(4 * KIB, 100)


@kit.case
def one_huge_discard_marks_every_extent():
    with tracked("big", 64 * KIB) as path:
        kit.run("blkdiscard", path)
        info = kit.info(0)
        kit.equal((info.incr_bmp_full, info.diff_bmp_full), (1, 1), "full")


@kit.case
def empty_flushes_mark_nothing():
    with tracked("raw") as path:
        fd = os.open(path, os.O_RDWR)
        for _ in range(10):
            os.fsync(fd)
        os.close(fd)
        kit.equal(kit.info(0).incr_bmp_empty, 1, "empty")


def read_extents(device):
    with open(device, "rb") as disk:
        while chunk := disk.read(64 * KIB):
            yield hash(chunk)


def use_files(folder, rng):
    """A day's work: a tree copied in, files edited, appended, mapped, punched, moved and deleted."""
    shutil.copytree("/usr/share/perl5", f"{folder}/tree", symlinks=True,
                    ignore=lambda _, names: names[12:])
    files = [os.path.join(where, name) for where, _, names in os.walk(f"{folder}/tree") for name in names]
    files = sorted(path for path in files if os.path.isfile(path) and not os.path.islink(path))
    for path in rng.sample(files, min(40, len(files))):
        with open(path, "ab") as out:
            out.write(rng.randbytes(rng.randint(1, 9000)))
    for path in rng.sample(files, min(20, len(files))):
        os.unlink(path)
    with open(f"{folder}/mapped", "w+b") as out:
        out.truncate(8 * MIB)
        with mmap.mmap(out.fileno(), 8 * MIB) as view:
            for _ in range(60):
                at = rng.randrange(0, 8 * MIB - 3000)
                view[at:at + 3000] = rng.randbytes(3000)
    kit.run("fallocate", "--punch-hole", "--offset", "1MiB", "--length", "2MiB", f"{folder}/mapped")
    fd = os.open(f"{folder}/direct", os.O_RDWR | os.O_CREAT | os.O_DIRECT)
    with mmap.mmap(-1, 256 * KIB) as page:
        page.write(rng.randbytes(256 * KIB))
        for _ in range(20):
            os.pwrite(fd, page, rng.randrange(0, 64) * 256 * KIB)
    os.close(fd)
    os.rename(f"{folder}/direct", f"{folder}/tree/moved")


def agree_with_trace(tracer, when, since):
    """Both bitmaps against the trace: the Incremental of this step, the Differential of all steps."""
    step = tracer.written()
    since |= step
    handed = kit.extents(kit.bitmap(0, INCR, "GET_AND_CLR_BMP"), kit.info(0).extent_cnt)
    kit.equal((sorted(step - handed), sorted(handed - step)), ([], []), f"{when}: missing, too many")
    whole = kit.marked(0, DIFF)
    kit.equal((sorted(since - whole), sorted(whole - since)), ([], []), f"{when}: Differential")
    return step


def file_system(kind, make):
    rng = random.Random(SEED)
    folder = f"/mnt/{kind}"
    os.makedirs(folder, exist_ok=True)
    with tracked(kind) as path, contextlib.closing(trace.Trace(0, 64 * KIB)) as tracer:
        since = set()
        kit.run(*make, path)
        agree_with_trace(tracer, "mkfs", since)
        before = list(read_extents(path))
        for day in range(2):
            kit.run("mount", "-o", "discard" if day else "noatime", path, folder)
            use_files(folder, rng)
            if day:
                kit.run("fstrim", folder)
            shutil.rmtree(f"{folder}/tree")
            kit.run("umount", folder)
            step = agree_with_trace(tracer, f"day {day}", since)
            after = list(read_extents(path))
            differing = {number for number, (old, new) in enumerate(zip(before, after)) if old != new}
            kit.equal(differing - step, set(), f"day {day}: extents that differ and are not marked")
            kit.check(len(differing) > 20, f"only {len(differing)} extents changed: nothing was tested")
            print(f"{kind}: day {day}: {len(step)} extents marked, {len(differing)} differ")
            before = after
    kit.run(f"fsck.{kind}" if kind == "ext4" else "xfs_repair", "-n", kit.disk(kind))


@kit.case
def ext4_is_tracked_bit_for_bit():
    file_system("ext4", ["mkfs.ext4", "-q", "-F"])


@kit.case
def xfs_is_tracked_bit_for_bit():
    file_system("xfs", ["mkfs.xfs", "-q", "-f"])


def fio(path, *more):
    kit.run("fio", "--name=verify", f"--filename={path}", "--direct=1", "--verify=crc32c", "--verify_fatal=1",
            "--randseed=7", "--verify_dump=0", "--output-format=terse", *more, cwd="/tmp")


@kit.case
def what_passes_through_arrives_unharmed_at_every_size_and_depth():
    with tracked("raw") as path:
        for engine, depth, sizes, pattern in (
                ("psync", 1, "512-128k", "randwrite"), ("libaio", 4, "512-64k", "randwrite"),
                ("libaio", 32, "4k-1m", "randwrite"), ("libaio", 128, "512-16k", "randwrite"),
                ("io_uring", 16, "4k-4m", "write")):
            fio(path, f"--ioengine={engine}", f"--iodepth={depth}", f"--bsrange={sizes}", f"--rw={pattern}",
                "--size=24M")


@kit.case
def node_and_partition_hold_the_same_bytes():
    with tracked("raw") as path:
        fio(path, "--ioengine=libaio", "--iodepth=16", "--bsrange=512-256k", "--rw=randwrite", "--size=16M")
        through = list(read_extents(path))
    kit.equal(list(read_extents(kit.disk("raw"))) == through, True, "the same bytes")


@kit.case
def no_change_is_lost_between_two_bitmaps_that_are_handed_out():
    stop = threading.Event()
    handed = []

    def take():
        while not stop.is_set():
            handed.append(kit.extents(kit.bitmap(0, INCR, "GET_AND_CLR_BMP"), kit.info(0).extent_cnt))

    with tracked("raw", 4 * KIB) as path, contextlib.closing(trace.Trace(0, 4 * KIB)) as tracer:
        backup = worker.Worker(take)
        backup.start()
        try:
            kit.run("fio", "--name=load", f"--filename={path}", "--direct=1", "--ioengine=libaio", "--iodepth=16",
                    "--numjobs=3", "--rw=randwrite", "--bsrange=512-32k", "--size=48M", "--io_size=12M",
                    "--norandommap", "--output-format=terse", cwd="/tmp")
        finally:
            stop.set()
            backup.join()
        backup.check()
        take_last = kit.marked(0, INCR)
        written = tracer.written()
        every = set().union(take_last, *handed)
        kit.equal((written - every, every - written), (set(), set()), "lost, invented")
        kit.equal(kit.marked(0, DIFF) - written, set(), "Differential: invented")
        kit.equal(written - kit.marked(0, DIFF), set(), "Differential: lost")
        kit.check(len(handed) > 3, f"only {len(handed)} bitmaps were handed out meanwhile")


@kit.case
def writers_that_ask_for_much_at_once_come_through():
    # Many large requests in flight each need several elements of the same pools.
    with tracked("big") as path:
        for size in ("4m", "1m"):
            kit.run("fio", "--name=deep", f"--filename={path}", "--direct=1", "--ioengine=libaio", "--iodepth=32",
                    "--numjobs=4", "--rw=randwrite", f"--bs={size}", "--size=256M", "--io_size=32M",
                    "--output-format=terse", cwd="/tmp")


@kit.case
def a_rewrite_does_not_touch_the_bitmap_files():
    with tracked("raw") as path:
        fd = os.open(path, os.O_WRONLY | os.O_SYNC)
        os.pwrite(fd, b"a" * 4096, 0)
        kit.wait_until(lambda: os.path.getsize(f"{state}/snbf0.incr") == 8, what="the dirty flag")
        kit.wait_until(lambda: os.path.getsize(f"{state}/snbf0.diff") == 8, what="the dirty flag")
        times = [os.stat(f"{state}/snbf0.{kind}").st_mtime_ns for kind in ("incr", "diff")]
        for _ in range(100):
            os.pwrite(fd, b"b" * 4096, 0)
        kit.equal([os.stat(f"{state}/snbf0.{kind}").st_mtime_ns for kind in ("incr", "diff")], times, "times")
        os.close(fd)  # the last release saves
        kit.equal(os.path.getsize(f"{state}/snbf0.incr"), 16 + 128, "saved")


@kit.case
def the_module_unloads():
    kit.unload()
    kit.equal(kit.slabs(), [], "slab caches")


if __name__ == "__main__":
    kit.main()
