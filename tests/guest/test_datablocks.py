"""Data-block maps of file systems that a kernel has written, aged, and frozen for a snap: no chunk that holds
a used block is called free, by what the file system's own tools say of the snap and by what its files own."""

import ctypes
import dataclasses
import fcntl
import os
import random
import re
import struct
import subprocess

import images
import kit
from kit import KIB

GUEST = {"minutes": 4, "kernels": "installed", "disks": ["fs:420M", "large:1700M", "store:700M"], "limit": 600,
         "memory": 2048, "allow": [r"reiserfs", r"REISERFS"]}

SEED = 20241104
FIEMAP = 0xc020660b
FIBMAP = 1
FIEMAP_HEADER = struct.Struct("<QQIIII")
FIEMAP_EXTENT = struct.Struct("<QQQQQIIII")


@dataclasses.dataclass
class Kind:
    tool: list
    fill: str = "age"
    size: str = ""         # blocks, for the tool; none: all of the device
    mounts: bool = True    # this kernel mounts it; else it stays as its tool made it
    # A map must be there while it is mounted. The journal of a ReiserFS may hold what its bitmaps lack.
    has_map: bool = True
    chunk_size: int = 4096
    height: int = 0        # that one of its trees reaches
    disk: str = "fs"


KINDS = {
    "ext2": Kind(["mkfs.ext2", "-q", "-F", "-b", "1024"]),
    "ext2-odd": Kind(["mkfs.ext2", "-q", "-F", "-b", "1024", "-g", "5000"], size="301111"),
    "ext3": Kind(["mkfs.ext3", "-q", "-F"]),
    "ext3-small": Kind(["mkfs.ext3", "-q", "-F", "-b", "2048", "-g", "1024"]),
    "ext4": Kind(["mkfs.ext4", "-q", "-F", "-g", "8192"]),
    "ext4-full": Kind(["mkfs.ext4", "-q", "-F"], fill="fill_up"),
    "ext4-bigalloc": Kind(["mkfs.ext4", "-q", "-F", "-O", "bigalloc", "-C", "16384"]),
    "ext4-1k": Kind(["mkfs.ext4", "-q", "-F", "-b", "1024", "-O", "^flex_bg"]),
    "ext4-64k": Kind(["mkfs.ext4", "-q", "-F", "-b", "65536"], mounts=False, chunk_size=64 * KIB),
    "xfs-4": Kind(["mkfs.xfs", "-q", "-f", "-m", "crc=0"]),
    "xfs-4-512": Kind(["mkfs.xfs", "-q", "-f", "-m", "crc=0", "-b", "size=512", "-d", "agcount=2"], fill="perforate",
                      height=3),
    "xfs-5": Kind(["mkfs.xfs", "-q", "-f", "-m", "rmapbt=1,reflink=1"]),
    "xfs-5-1k": Kind(["mkfs.xfs", "-q", "-f", "-b", "size=1024"], fill="perforate", height=2),
    "xfs-5-groups": Kind(["mkfs.xfs", "-q", "-f", "-d", "agcount=25"], fill="fill_up", chunk_size=64 * KIB,
                         disk="large"),
    "xfs-5-64k": Kind(["mkfs.xfs", "-q", "-f", "-b", "size=65536"], mounts=False, chunk_size=64 * KIB),
    "reiserfs": Kind(["mkfs.reiserfs", "-q", "-f"], has_map=False),
    "reiserfs-1k": Kind(["mkfs.reiserfs", "-q", "-f", "-b", "1024"], mounts=False),
}

store = ""
sums = {}  # of each file system: images, used chunks called free, free chunks, of them called used


@kit.case
@kit.essential
def the_module_loads():
    global store
    store = kit.state_folder("store")
    kit.load(snbf_debug=1)


def age(folder, rng):
    """Files of all sizes, every third gone again, others cut short or with holes: free space in many pieces."""
    names = []
    for number in range(350):
        name = f"{folder}/{number}"
        with open(name, "wb") as out:
            out.write(rng.randbytes(rng.choice((1, 5, 40, 200)) * KIB + rng.randrange(4096)))
        names.append(name)
    for number, name in enumerate(names):
        if number % 3 == 0:
            os.unlink(name)
        elif number % 7 == 0:
            os.truncate(name, os.path.getsize(name) // 2)
    os.sync()
    for number in range(120):
        with open(f"{folder}/late{number}", "wb") as out:
            out.seek(rng.randrange(64 * KIB))
            out.write(rng.randbytes(rng.choice((1, 9, 30)) * KIB))


def fill_up(folder, rng):
    """All but one part in fifty."""
    age(folder, rng)
    os.sync()
    room = os.statvfs(folder)
    with open(f"{folder}/rest", "wb") as out:
        os.posix_fallocate(out.fileno(), 0, room.f_bfree * room.f_frsize // 50 * 49)


def perforate(folder, rng):
    """Every second block of a file is a hole: a free extent for each."""
    age(folder, rng)
    size = os.statvfs(folder).f_bsize
    keep_size_punch = 0x1 | 0x2
    fallocate = ctypes.CDLL(None, use_errno=True).fallocate
    with open(f"{folder}/net", "wb") as out:
        os.posix_fallocate(out.fileno(), 0, 7200 * size)
        for number in range(0, 7200, 2):
            if fallocate(out.fileno(), keep_size_punch, ctypes.c_long(number * size), ctypes.c_long(size)) != 0:
                raise OSError(ctypes.get_errno(), "hole")


def tree_height(device):
    text = "".join(said("xfs_db", "-r", "-c", f"agf {number}", "-c", "print bnolevel", device) for number in range(2))
    return max(int(level) for level in re.findall(r"bnolevel = (\d+)", text))


def said(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False).stdout


def ext_free(device):
    text = said("dumpe2fs", device)
    block = int(re.search(r"^Block size: +(\d+)", text, re.M)[1])
    cluster = re.search(r"^Cluster size: +(\d+)", text, re.M)
    # Both ends of a range are named by the first block of their cluster.
    width = int(cluster[1]) if cluster else block
    for line in re.findall(r"^  Free blocks: (.+)$", text, re.M):
        for item in line.split(","):
            first, _, last = item.strip().partition("-")
            yield int(first) * block, int(last or first) * block + width


def xfs_free(device):
    geometry = said("xfs_db", "-r", "-c", "sb 0", "-c", "print blocksize agblocks", device)
    block = int(re.search(r"blocksize = (\d+)", geometry)[1])
    group = int(re.search(r"agblocks = (\d+)", geometry)[1])
    for line in said("xfs_db", "-r", "-c", "freesp -d", device).split("\n"):
        fields = line.split()
        if len(fields) == 3 and all(field.isdigit() for field in fields):
            number, start, count = map(int, fields)
            at = (number * group + start) * block
            yield at, at + count * block


def reiserfs_free(device):
    text = said("debugreiserfs", "-m", device)
    block = int(re.search(r"^Blocksize: (\d+)", text, re.M)[1])
    for first, last in re.findall(r"Free\((\d+)-(\d+)\)", text):
        yield int(first) * block, (int(last) + 1) * block


def free_chunks(ranges, chunk_size, chunk_count):
    """Numbers of the chunks that hold free blocks only."""
    merged = []
    for first, end in sorted(ranges):
        if merged and merged[-1][1] >= first:
            merged[-1][1] = max(end, merged[-1][1])
        else:
            merged.append([first, end])
    return {chunk for first, end in merged
            for chunk in range(-(-first // chunk_size), min(end // chunk_size, chunk_count))}


def owned(folder):
    """Byte ranges of the device that files own."""
    for entry in os.scandir(folder):
        if not entry.is_file():
            continue
        with open(entry.path, "rb") as opened:
            request = bytearray(FIEMAP_HEADER.pack(0, (1 << 64) - 1, 1, 0, 200, 0)) + bytearray(200 * 56)
            fcntl.ioctl(opened, FIEMAP, request)
        for number in range(FIEMAP_HEADER.unpack_from(request)[3]):
            _, at, length, _, _, flags, *_ = FIEMAP_EXTENT.unpack_from(request, 32 + number * 56)
            if not flags & 0x20a:  # unknown place, not yet written, inside a metadata block
                yield at, at + length


def mapped(folder):
    """The same where a file system knows only single blocks."""
    size = os.statvfs(folder).f_bsize
    for entry in os.scandir(folder):
        if not entry.is_file():
            continue
        with open(entry.path, "rb") as opened:
            for number in range(os.path.getsize(entry.path) // size):
                block, = struct.unpack("I", fcntl.ioctl(opened, FIBMAP, struct.pack("I", number)))
                if block:
                    yield block * size, (block + 1) * size


def judge(name, minor, files, when, has_map=True):
    at = kit.info(minor)
    used = set(kit.used_chunks(minor))
    path = f"/dev/snbf/snbf{minor}"
    tool = {"ext": ext_free, "xfs": xfs_free, "rei": reiserfs_free}[name[:3]]
    free = free_chunks(tool(path), at.chunk_size, at.chunk_cnt)
    kit.check(len(free) > 100, f"{name} {when}: the tools know of {len(free)} free chunks")
    wrong = [chunk for chunk in range(at.chunk_cnt) if chunk not in used and chunk not in free]
    if name.startswith("xfs"):  # behind the last group, where version 4 calls everything free
        wrong = [chunk for chunk in wrong if chunk < max(free)]
    kit.check(not wrong, f"{name} {when}: {len(wrong)} used chunks are called free: {wrong[:20]}")
    for first, end in files:
        chunks = range(first // at.chunk_size, -(-end // at.chunk_size))
        lost = [chunk for chunk in chunks if chunk not in used]
        kit.check(not lost, f"{name} {when}: chunks of files are called free: {lost[:20]}")
    over = len(free & used)
    print(f"{name} {when}: {at.chunk_cnt} chunks, {len(free)} free, {over} of them called used")
    if has_map or len(used) < at.chunk_cnt:
        kit.check(over * 50 <= len(free), f"{name} {when}: {over} of {len(free)} free chunks called used")
        row = sums.setdefault(name.partition("-")[0] if name[0] != "x" else name[:5], [0, 0, 0, 0])
        for index, more in enumerate((1, len(wrong), len(free), over)):
            row[index] += more


def started(snaps, kind):
    minor = snaps.add(chunk_size=kind.chunk_size)
    kit.done(kit.start(minor), "start")
    return minor


def maps_of(name):
    kind = KINDS[name]
    device = kit.disk(kind.disk)
    kit.run("wipefs", "-qa", device)
    kit.run(*kind.tool, device, *kind.size.split())
    with images.snapped(device, store) as (path, snaps):
        minor = started(snaps, kind)
        judge(name, minor, [], "fresh")
        kit.done(kit.stop(minor), "stop")
        if not kind.mounts:
            return
        mount_point = f"/mnt/{name}"
        os.makedirs(mount_point, exist_ok=True)
        kit.run("mount", path, mount_point)
        try:
            globals()[kind.fill](mount_point, random.Random(SEED))
            minor = started(snaps, kind)
            files = list((mapped if name == "reiserfs" else owned)(mount_point))
            kit.check(len(files) > 200, f"{name}: {len(files)} ranges of files")
            judge(name, minor, files, "mounted", kind.has_map)
            if kind.height:
                kit.check(tree_height(f"/dev/snbf/snbf{minor}") >= kind.height, f"{name}: low trees")
        finally:
            kit.run("umount", mount_point)
        kit.done(kit.stop(minor), "stop")
        judge(name, started(snaps, kind), [], "unmounted")


def register(name):
    def body():
        maps_of(name)
    body.__name__ = f"no_used_chunk_of_{name.replace('-', '_')}_is_called_free"
    kit.case(body)


for _name in KINDS:
    register(_name)


@kit.case
def every_file_system_was_among_them():
    for name, (tried, wrong, free, over) in sums.items():
        print(f"{name}: {tried} images, {wrong} used chunks called free, {over / free:.3%} of free chunks called used")
    kit.equal(sorted(sums), ["ext2", "ext3", "ext4", "reiserfs", "xfs-4", "xfs-5"], "file systems")


if __name__ == "__main__":
    kit.main()
