"""Snaps of file systems at work: whole for fsck, with every byte that was synced before their start."""

import contextlib
import fcntl
import hashlib
import mmap
import multiprocessing
import os
import random
import struct
import subprocess
import time

import images
import kit
import mapper
import worker
import writers
from kit import KIB, MIB

GUEST = {"minutes": 6, "disks": ["both:400M", "ext4:160M", "xfs:320M", "scratch:320M", "store:900M"], "limit": 500,
         "memory": 2048}

SEED = 20240717
FIFREEZE, FITHAW = 0xc0045877, 0xc0045878
FIBMAP = 1
KINDS = {
    "ext3": (["mkfs.ext3", "-q", "-F"], "noload"),
    "ext4": (["mkfs.ext4", "-q", "-F"], "noload"),
    "xfs": (["mkfs.xfs", "-q", "-f"], "norecovery,nouuid"),
}


@kit.case
@kit.essential
def the_module_loads():
    kit.state_folder("store")
    os.makedirs("/mnt/look")
    kit.load(snbf_debug=1)


@contextlib.contextmanager
def at_work(folder):
    """Two exercisers, and fio that verifies; each is to have met its own bytes when it ends."""
    stop_file = f"/tmp/stop-{os.path.basename(folder)}"
    with contextlib.suppress(FileNotFoundError):
        os.unlink(stop_file)
    exercisers = [multiprocessing.get_context("fork").Process(
        target=writers.exercise, args=(f"{folder}/exercised{number}", SEED + number, stop_file))
        for number in range(2)]
    for process in exercisers:
        process.start()
    fio = subprocess.Popen(
        ["fio", "--name=work", f"--directory={folder}", "--size=8M", "--rw=randwrite", "--bsrange=512-32k",
         "--direct=1", "--ioengine=libaio", "--iodepth=8", "--verify=crc32c", "--verify_fatal=1",
         "--verify_backlog=64", "--verify_dump=0", "--loops=1000", "--randseed=3", "--rate_iops=300"],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, cwd="/tmp")
    try:
        yield
    finally:
        with open(stop_file, "w", encoding="ascii"):
            pass
        early = fio.poll()
        fio.terminate()
        said = fio.communicate()[0]
        for process in exercisers:
            process.join(60)
        os.unlink(stop_file)
    kit.check(early is None and "verify:" not in said, f"fio ended early: {early}: {said[-1500:]}")
    kit.equal([process.exitcode for process in exercisers], [0, 0], "exercisers")


class Witnesses:
    """Files that are synced before a start, and spoilt behind it."""

    def __init__(self, folder, rng):
        self.folder = folder
        self.rng = rng
        self.names = [f"witness{number}" for number in range(12)]

    def write(self):
        """Their hashes, once they are on the disk."""
        hashes = {}
        for name in self.names:
            data = self.rng.randbytes(self.rng.randint(1, 300 * KIB))
            with open(f"{self.folder}/{name}", "r+b" if os.path.exists(f"{self.folder}/{name}") else "wb") as out:
                out.write(data)
                out.truncate()
                out.flush()
                os.fsync(out.fileno())
            hashes[name] = hashlib.md5(data).hexdigest()
        folder = os.open(self.folder, os.O_RDONLY)
        os.fsync(folder)
        os.close(folder)
        return hashes

    def spoil(self):
        for name in self.rng.sample(self.names, 8):
            with open(f"{self.folder}/{name}", "r+b") as out:
                out.write(self.rng.randbytes(os.path.getsize(out.name)))
                os.fsync(out.fileno())
        for name in self.rng.sample(self.names, 2):
            os.unlink(f"{self.folder}/{name}")


def check_witnesses(path, options, hashes, when):
    look = "/mnt/look"
    kit.run("mount", "-o", f"ro,{options}", path, look)
    try:
        for name, wanted in hashes.items():
            with open(f"{look}/{name}", "rb") as text:
                kit.equal(hashlib.md5(text.read()).hexdigest(), wanted, f"{when}: {name}")
    finally:
        kit.run("umount", look)


def frozen_start(folder, device, snaps, chunk_size):
    """Frozen by hand, so that what the partition holds can be read before the start, and after it."""
    fd = os.open(folder, os.O_RDONLY)
    fcntl.ioctl(fd, FIFREEZE, 0)
    try:
        wanted = images.hashes(device, chunk_size)
        image = snaps.start(wanted, mapped=True, chunk_size=chunk_size)
    finally:
        fcntl.ioctl(fd, FITHAW, 0)
        os.close(fd)
    return image


def free_start(snaps, chunk_size):
    """In the midst of writes: what the image is, only itself can tell."""
    minor = snaps.add(chunk_size=chunk_size)
    kit.done(kit.start(minor), "start while the file system is at work")
    image = images.Image(minor, None, mapped=True)
    image.wanted = images.hashes(image.path, chunk_size)
    return image


def is_whole(path, kind):
    """Whole as it is; but XFS counts its free blocks anew only when it is mounted: a copy of it then."""
    if kind != "xfs":
        kit.run("e2fsck", "-fn", path)
        return
    scratch, look = kit.disk("scratch"), "/mnt/look"
    kit.run("dd", f"if={path}", f"of={scratch}", "bs=4M", "iflag=direct", "oflag=direct")
    kit.run("mount", "-o", "nouuid", scratch, look)
    kit.run("umount", look)
    kit.run("xfs_repair", "-n", scratch)


def check_snap(image, hashes, kind, when):
    image.check(when)
    is_whole(image.path, kind)
    check_witnesses(image.path, KINDS[kind][1], hashes, when)


def starts_at_work(kind, device, folder, snaps, chunk_size):
    rng = random.Random(SEED)
    witnesses = Witnesses(folder, rng)
    started = []
    with at_work(folder):
        for number in range(4):
            hashes = witnesses.write()
            time.sleep(rng.uniform(0.1, 0.6))
            if number % 2 == 0:
                image = frozen_start(folder, device, snaps, chunk_size)
            else:
                image = free_start(snaps, chunk_size)
            started.append((image, hashes))
            witnesses.spoil()
        for image, hashes in started[:1]:
            check_snap(image, hashes, kind, f"{kind} at work: snap {image.minor}")
    for image, hashes in started:
        check_snap(image, hashes, kind, f"{kind}: snap {image.minor}")
    return [image for image, _ in started]


def file_system(kind, device, chunk_size):
    make = KINDS[kind][0]
    folder = f"/mnt/{kind}"
    os.makedirs(folder, exist_ok=True)
    kit.run(*make, device)
    with images.snapped(device, "/mnt/store") as (node, snaps):
        kit.run("mount", node, folder)
        try:
            started = starts_at_work(kind, device, folder, snaps, chunk_size)
        finally:
            kit.run("umount", folder)
        copied = sum(len(image.copied()) for image in started)
        kit.check(copied > 20, f"only {copied} chunks were copied: nothing was tested")
        print(f"{kind}: {copied} chunks of {chunk_size} copied, {len(started[0].used)} of "
              f"{len(started[0].wanted)} used")
    is_whole(device, kind)


@kit.case
def ext4_with_chunks_of_4_kib():
    file_system("ext4", kit.disk("ext4"), 4 * KIB)


@kit.case(once=True)
def xfs_with_chunks_of_64_kib():
    file_system("xfs", kit.disk("xfs"), 64 * KIB)


def ask_file_system(folder, request):
    """FIFREEZE or FITHAW: 0 or the error."""
    fd = os.open(folder, os.O_RDONLY)
    try:
        fcntl.ioctl(fd, request, 0)
        return 0
    except OSError as error:
        return error.errno
    finally:
        os.close(fd)


def place_of(path):
    """Where the file's first block lies on its device, in bytes."""
    with open(path, "rb") as opened:
        block, = struct.unpack("I", fcntl.ioctl(opened, FIBMAP, struct.pack("I", 0)))
        return block * os.statvfs(path).f_bsize


def write_past_the_file_system(path, offset):
    fd = os.open(path, os.O_WRONLY | os.O_DIRECT)
    os.pwrite(fd, mmap.mmap(-1, 4 * KIB), offset)
    os.close(fd)


class Instant:
    """The start of a snap while a write waits for an older snap, whose store stalls: until go_on(), or until the driver
    gives the older snap up for it."""

    def __init__(self, minor, node, offset, store):
        self.minor = minor
        self.results = []
        self.store = store
        store.stall()
        self.threads = [worker.Worker(write_past_the_file_system, node, offset), worker.Worker(self.start)]
        self.threads[0].start()
        kit.wait_until(lambda: int(kit.proc("cowqueue_len", 0)) > 0, 30, "a write is held")
        self.threads[1].start()

    def start(self):
        self.results.append(kit.start(self.minor))

    def is_over(self):
        return bool(self.results)

    def go_on(self):
        self.store.go_on()
        for thread in self.threads:
            thread.finish()
        kit.equal(self.results, [0], "start")


@contextlib.contextmanager
def store_that_stalls(folder):
    kit.run("modprobe", "-a", "dm-mod", "dm-flakey")
    store = mapper.Mapped("slow", kit.disk("scratch"))
    kit.run("mkfs.ext4", "-q", "-F", store.path)
    kit.run("mount", store.path, folder)
    try:
        yield store
    finally:
        store.go_on()
        kit.run("umount", folder)
        store.remove()


def thaw_in_the_instant(unmounts):
    """By hand, and perhaps an unmount behind it: the file system can be mounted as before when the instant is over.

    Answers whether the instant lasted that long.
    """
    disk, folder, slow = kit.disk("ext4"), "/mnt/thawed", "/mnt/slow"
    for path in (folder, slow):
        os.makedirs(path, exist_ok=True)
    kit.run("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", disk)
    with store_that_stalls(slow) as store, kit.node(disk, "/mnt/store", minor=0):
        node = kit.node_path("snbf0")
        kit.run("mount", "-o", "noatime", node, folder)
        with open(f"{folder}/file", "wb") as out:
            out.write(bytes(MIB))
            os.fsync(out.fileno())
        for minor, where in ((1, slow), (2, "/mnt/store")):
            kit.done(kit.add_snap(0, f"{where}/thawed", minor=minor)[0], "add snap")
        kit.done(kit.start(1), "start")
        kit.run("umount", folder)
        kit.run("mount", "-o", "noatime", node, folder)
        offset = place_of(f"{folder}/file")
        # What opening, freezing and unmounting write themselves has its copy then, and need not wait.
        for request in (FIFREEZE, FITHAW):
            kit.equal(ask_file_system(folder, request), 0, "by hand")
        instant = Instant(2, node, offset, store)
        thawed = []

        def thaw():
            thawed[:] = [ask_file_system(folder, FITHAW)]
            return thawed == [0] or instant.is_over()

        try:
            kit.wait_until(thaw, 30, "the freeze")
            if unmounts:
                kit.run("umount", folder)
            lasted = thawed == [0] and not instant.is_over()
        finally:
            instant.go_on()
        if not unmounts:
            kit.run("umount", folder)
        kit.run("mount", "-o", "noatime", node, folder)
        kit.run("umount", folder)
        kit.wait_until(lambda: kit.info(0).use_cnt == 0, 30, "the node is closed")
        for minor in (1, 2):
            kit.done(kit.stop(minor), "stop")
            kit.done(kit.delete(minor), "delete snap")
    kit.run("e2fsck", "-fn", disk)
    return lasted


@kit.case
def a_thaw_by_hand_in_the_instant_leaves_nothing_frozen():
    kit.check(any(thaw_in_the_instant(unmounts=False) for _ in range(4)), "an instant that lasted")


@kit.case
def an_unmount_behind_such_a_thaw_is_no_trap():
    kit.check(any(thaw_in_the_instant(unmounts=True) for _ in range(4)), "an instant that lasted")


def bytes_written(group, device):
    """What the group is charged with on the disk."""
    number = os.stat(device).st_rdev
    with open(f"{group}/io.stat", encoding="ascii") as lines:
        for line in lines:
            words = line.split()
            if words[0] == f"{os.major(number)}:{os.minor(number)}":
                return int(dict(word.split("=") for word in words[1:])["wbytes"])
    return 0


def write_file(path, text):
    with open(path, "w", encoding="ascii") as out:
        out.write(text)


@contextlib.contextmanager
def control_group():
    """(the root of the groups, a group that is accounted for)"""
    groups = "/tmp/groups"
    group = f"{groups}/writer"
    os.makedirs(groups, exist_ok=True)
    kit.run("mount", "-t", "cgroup2", "none", groups)
    write_file(f"{groups}/cgroup.subtree_control", "+io +memory")
    os.makedirs(group)
    try:
        yield groups, group
    finally:
        os.rmdir(group)
        kit.run("umount", groups)


def dd_in_group(group, *words):
    return ["sh", "-c", f"echo $$ >{group}/cgroup.procs && exec dd if=/dev/zero conv=notrunc {' '.join(words)}"]


@kit.case
def the_writer_s_control_group_is_charged_for_what_a_snap_holds_back():
    disk, folder = kit.disk("ext4"), "/mnt/charged"
    os.makedirs(folder, exist_ok=True)
    kit.run("mkfs.ext4", "-q", "-F", disk)

    def write(group):
        """Into the page cache; what the flusher then writes is the group's, to whom the pages belong."""
        kit.run(*dd_in_group(group, f"of={folder}/file", "bs=1M", "count=8"))
        kit.run("sync")
        return bytes_written(group, disk)

    with control_group() as (_, group), kit.node(disk, "/mnt/store", minor=0):
        kit.run("mount", kit.node_path("snbf0"), folder)
        before = write(group)
        kit.check(before >= 8 * MIB, f"charged with {before} bytes without a snap")
        kit.done(kit.add_snap(0, "/mnt/store/charged", minor=1)[0], "add snap")
        kit.done(kit.start(1), "start")
        charged = write(group) - before
        kit.check(charged >= 8 * MIB, f"charged with {charged} bytes")
        kit.run("umount", folder)
        kit.done(kit.stop(1), "stop")
        kit.done(kit.delete(1), "delete snap")


@kit.case
def nobody_waits_for_the_share_of_another_s_control_group():
    """One thread passes on what a snap holds back, whoever sent it: here a group whose share of the disk is nothing."""
    disk, folder = kit.disk("ext4"), "/mnt/charged"
    os.makedirs(folder, exist_ok=True)
    number = f"{os.major(os.stat(disk).st_rdev)}:{os.minor(os.stat(disk).st_rdev)}"
    kit.run("mkfs.ext4", "-q", "-F", disk)
    with control_group() as (groups, group), kit.node(disk, "/mnt/store", minor=0):
        if not os.path.exists(f"{groups}/io.cost.model"):
            kit.check(kit.SLOWNESS > 1, "no io.cost, which Debian's own kernels have")
            return
        node = kit.node_path("snbf0")
        kit.run("mount", node, folder)
        kit.run("dd", "if=/dev/zero", f"of={folder}/file", "bs=1M", "count=8", "conv=fsync")
        offset = place_of(f"{folder}/file")
        kit.run("umount", folder)
        kit.done(kit.add_snap(0, "/mnt/store/charged", minor=1)[0], "add snap")
        kit.done(kit.start(1), "start")
        write_file(f"{groups}/io.cost.model", f"{number} ctrl=user model=linear rbps=1024 rseqiops=1 rrandiops=1 "
                                              "wbps=1024 wseqiops=1 wrandiops=1")
        write_file(f"{groups}/io.cost.qos", f"{number} enable=1 ctrl=user min=100.00 max=100.00")
        with subprocess.Popen(dd_in_group(group, f"of={node}", "bs=1M", "count=2", "oflag=direct,seek_bytes",
                                          f"seek={offset}"), stderr=subprocess.DEVNULL) as poor:
            kit.wait_until(lambda: bytes_written(group, disk) > 0, 30, "a write of the group's")
            other = multiprocessing.get_context("fork").Process(target=write_past_the_file_system,
                                                                args=(node, offset + 4 * MIB))
            other.start()
            other.join(30 * kit.SLOWNESS)
            kit.equal(other.exitcode, 0, "a write of another's")
            write_file(f"{groups}/io.cost.qos", f"{number} enable=0")
            kit.equal(poor.wait(), 0, "the group's writes")
        kit.done(kit.stop(1), "stop")
        kit.done(kit.delete(1), "delete snap")


@kit.case(once=True)
def ext3_whose_snaps_lie_on_the_same_disk():
    volume, store = kit.partitions(kit.disk("both"), 2, 190)
    kit.run("umount", "/mnt/store")
    kit.run("mkfs.ext4", "-q", "-F", store)
    kit.run("mount", store, "/mnt/store")
    file_system("ext3", volume, 16 * KIB)


@kit.case
def the_module_unloads():
    kit.unload()
    kit.equal(kit.slabs(), [], "slab caches")


if __name__ == "__main__":
    kit.main()
