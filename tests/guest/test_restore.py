"""Restores: what a deep look at a chain finds, where a point may go, and what is left of a restore that is cut off."""

import contextlib
import ctypes
import json
import os
import signal
import subprocess

import kit
import mapper
from kit import MIB
from tool import TOOL, answer, good, refused, tool

GUEST = {"quick": True, "minutes": 3, "kernels": "installed", "limit": 500,
         "disks": ["a:64M", "back:96M", "small:32M", "store:384M", "state:64M"]}

DEST = "/mnt/store/chain"
NODE = "/dev/snbf/snbf0"
WORK = "/mnt/work"
BACK = kit.disk("back")


def write(path, size):
    with open(path, "wb") as out:
        out.write(os.urandom(size))
        os.fsync(out.fileno())


def manifest():
    with open(f"{DEST}/manifest.json", encoding="ascii") as text:
        return json.load(text)


def image(number):
    return f"{DEST}/{manifest()['points'][number]['file']}"


def put(path, data):
    with open(path, "wb") as out:
        out.write(data)


def get(path):
    with open(path, "rb") as file:
        return file.read()


class Hash(ctypes.Structure):
    _fields_ = [("low", ctypes.c_uint64), ("high", ctypes.c_uint64)]


def rehash(path):
    """The manifest agrees with a file that was changed: only a deep look tells."""
    library = ctypes.CDLL("libxxhash.so.0")
    library.XXH3_128bits.restype = Hash
    library.XXH3_128bits.argtypes = [ctypes.c_char_p, ctypes.c_size_t]
    data = get(path)
    digest = library.XXH3_128bits(data, len(data))
    found = manifest()
    for point in found["points"]:
        if point["file"] == os.path.basename(path):
            point["xxh3_128"], point["file_bytes"] = f"{digest.high:016x}{digest.low:016x}", len(data)
    put(f"{DEST}/manifest.json", json.dumps(found).encode())


@contextlib.contextmanager
def changed(path):
    """A file of the chain may be changed in the block; then all is as it was."""
    before, record = get(path), get(f"{DEST}/manifest.json")
    yield
    put(path, before)
    put(f"{DEST}/manifest.json", record)
    good("verify", DEST)


def refused_with(status, *words):
    found, out, err = tool(*words)
    kit.equal(found, status, err)
    return out + err


@kit.case
@kit.essential
def a_chain_of_two_points():
    kit.state_folder()
    kit.state_folder("store")
    kit.load()
    kit.run("mkfs.ext4", "-q", "-F", "-L", "fresh", kit.disk("a"))
    good("attach", kit.disk("a"), "--name", "data", "--bitmaps", "/mnt/state", "--start")
    os.makedirs(WORK, exist_ok=True)
    kit.run("mount", NODE, WORK)
    write(f"{WORK}/one", 4 * MIB)
    good("backup", "data", DEST)
    write(f"{WORK}/two", 2 * MIB)
    good("backup", "data", DEST)
    kit.run("umount", WORK)


@kit.case
def a_deep_look_reads_it_whole_and_checks_its_file_system():
    kit.run("modprobe", "fuse")
    found = answer("verify", DEST, "--deep")
    deep = found["deep"]
    kit.equal((found["sound"], deep["point"], deep["read_bytes"]), (True, 2, 64 * MIB), "the newest point")
    kit.equal((deep["file_system"], deep["file_system_checked_by"]), ("ext4", "e2fsck"), "what stands on it")
    kit.equal(answer("verify", DEST + "@1", "--deep")["deep"]["point"], 1, "another point")
    kit.equal([name for name in os.listdir("/var/tmp") if name.startswith("snbf-")], [], "what it leaves")


@kit.case
def an_image_that_stands_on_another_file_is_found():
    path = image(1)
    with changed(path):
        kit.run("qemu-img", "rebase", "-u", "-f", "qcow2", "-b", "/etc/passwd", "-F", "raw", path)
        rehash(path)
        good("verify", DEST)
        out = refused_with(7, "verify", DEST, "--deep")
        kit.check("stands on /etc/passwd" in out, out)


@kit.case
def a_file_system_with_errors_is_found():
    about = kit.run("dumpe2fs", kit.disk("a"))
    block = int(about.split("Block size:")[1].split()[0])
    first = int(about.split("Block bitmap at ")[1].split()[0].rstrip(","))
    with changed(image(0)):
        kit.run("qemu-io", "-f", "qcow2", "-c", f"write -P 0 {first * block} {block}", image(0))
        rehash(image(0))
        good("verify", DEST)
        out = refused_with(7, "verify", DEST + "@1", "--deep")
        kit.check("e2fsck finds errors" in out, out)


@kit.case
def a_dry_run_says_what_over_what_and_writes_nothing():
    kit.run("mkfs.ext4", "-q", "-F", "-L", "theirs", BACK)
    before = get(BACK)
    kit.check("ext4, labelled theirs" in refused(6, "restore", DEST, BACK, "--dry-run"), "what is on it")
    said = tool("restore", DEST, BACK, "--dry-run", "--yes")
    kit.check(said[0] == 0 and "over ext4, labelled theirs" in said[2] and "stay as it is" in said[2], said[2])
    found = answer("restore", DEST, BACK, "--dry-run", "--yes")
    kit.equal((found["dry_run"], found["over"], found["size"]), (True, "ext4, labelled theirs", 64 * MIB), "JSON")
    kit.check(6 * MIB <= found["data_bytes"] <= 24 * MIB, f"{found['data_bytes']} of data")
    kit.check(get(BACK) == before, "nothing is written")
    good("restore", DEST, "/mnt/store/new.img", "--dry-run")
    kit.check(not os.path.exists("/mnt/store/new.img"), "no file is made")


@kit.case
def both_refuse_the_same_targets():
    os.makedirs("/mnt/back", exist_ok=True)
    kit.run("mount", BACK, "/mnt/back")
    for words in ((), ("--dry-run",)):
        kit.check("mounted at /mnt/back" in refused(6, "restore", DEST, BACK, "--yes", *words), "mounted")
        refused(6, "restore", DEST, kit.disk("small"), *words)
        refused(8, "restore", DEST, kit.disk("a"), "--yes", *words)
        refused(6, "restore", DEST, f"{DEST}/mine.img", *words)
        refused(2, "restore", DEST, "/mnt/back", *words)
        refused(1, "restore", DEST, "/dev/guest/nothing", *words)
        refused(1, "restore", DEST + "@9", BACK, *words)
        refused(1, "restore", "/mnt/store", BACK, *words)
    kit.run("umount", "/mnt/back")


@kit.case
def a_restored_disk_is_read_back_from_the_disk():
    found = answer("restore", DEST, BACK, "--yes")
    kit.equal((found["verified"], found["point"]), (True, 2), "JSON")
    kit.run("fsck.ext4", "-fn", BACK)
    kit.equal(answer("restore", DEST + "@1", BACK, "--yes", "--no-compare")["verified"], False, "not compared")


@kit.case
def a_target_that_forgets_what_was_written_is_found():
    disk = mapper.Mapped("forgets", BACK)
    disk.become(f"0 {disk.sectors} flakey {BACK} 0 0 3600 1 drop_writes")
    out = refused_with(7, "restore", DEST, disk.path, "--yes")
    kit.check("differs from point 2" in out, out)
    disk.become(disk.good())
    disk.remove()


@kit.case
def a_file_is_sparse_and_takes_its_name_when_it_is_whole():
    path = "/mnt/store/old.img"
    good("restore", DEST, path)
    about = os.stat(path)
    kit.equal(about.st_size, 64 * MIB, "its size")
    kit.check(about.st_blocks * 512 < 40 * MIB, "it is sparse")
    kit.run("fsck.ext4", "-fn", path)
    refused(6, "restore", DEST, path)


@kit.case
def one_that_is_interrupted_says_what_the_target_holds():
    slow = mapper.Mapped("slow", BACK)
    slow.become(f"0 {slow.sectors} delay {BACK} 0 0 {BACK} 0 400")
    with subprocess.Popen([TOOL, "restore", DEST, slow.path, "--yes"], stdin=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True) as process:
        kit.wait_until(lambda: "qemu-img convert" in kit.run("ps", "-A", "-o", "args"), seconds=60, what="the copy")
        process.send_signal(signal.SIGTERM)
        err = process.communicate()[1]
    print(err)
    kit.equal(process.returncode, 1, "status")
    kit.check("holds a part of point 2" in err and "--yes" in err, err)
    kit.check("qemu-img" not in kit.run("ps", "-A", "-o", "comm"), "nobody writes any more")
    slow.become(slow.good())
    slow.remove()
    good("restore", DEST, BACK, "--yes")


@kit.case
def it_leaves_nothing():
    good("detach", "data")
    kit.unload()


if __name__ == "__main__":
    kit.main()
