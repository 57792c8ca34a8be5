"""Backups around hooks, into a program, onto a server's disk; a chain that is pruned; a dry run."""

import os
import socket
import stat
import subprocess

import kit
from kit import KIB, MIB
from tool import answer, good, refused, tool

GUEST = {"minutes": 3, "kernels": "installed", "disks": ["a:64M", "back:64M", "store:512M", "state:256M"],
         "limit": 500}

DEST = "/mnt/store/chain"
NODE = "/dev/snbf/snbf0"
SOCKET = "/tmp/nbd.sock"
SERVER = f"nbd+unix:///?socket={SOCKET}"


def changed():
    return kit.marked(0, kit.INCR)


def write(first, count):
    """So many extents."""
    fd = os.open(NODE, os.O_WRONLY)
    for number in range(first, first + count):
        os.pwrite(fd, os.urandom(64 * KIB), number * 64 * KIB)
    os.fsync(fd)
    os.close(fd)


def listens():
    """The socket's file is there before anybody listens."""
    with socket.socket(socket.AF_UNIX) as client:
        return client.connect_ex(SOCKET) == 0


def same(path):
    kit.run("cmp", "-n", str(64 * MIB), path, NODE)


def whole(*words):
    """A backup of all bytes: nothing is free on a device without a file system."""
    return answer("backup", "data", *words)


@kit.case
@kit.essential
def the_node_is_there():
    kit.state_folder()
    kit.state_folder("store")
    kit.load()
    good("attach", kit.disk("a"), "--name", "data", "--bitmaps", "/mnt/state", "--start")
    write(0, 100)


@kit.case
def a_dry_run_says_what_would_be_copied_and_changes_nothing():
    before = changed()
    plan = answer("backup", "data", DEST, "--dry-run")
    kit.equal((plan["level"], plan["full_because"], plan["from"], plan["to"]),
              ("full", "no-earlier-backup", "snap", DEST), "a first one")
    kit.equal(plan["bytes_at_most"], 64 * MIB, "how much")
    kit.check(not os.path.exists(DEST), "no folder is made")
    good("backup", "data", DEST)
    write(3, 2)
    plan = answer("backup", "data", DEST, "--dry-run")
    kit.equal((plan["level"], plan["parent"], plan["bytes_at_most"]), ("incr", 1, 128 * KIB), "a next one")
    kit.equal(changed(), {3, 4}, "the bitmap")
    kit.check(before, "there was something to lose")


@kit.case
def hooks_run_around_the_instant_and_are_told_how_it_went():
    log = "/tmp/hooks"
    hook = f"echo $SNBF_HOOK $SNBF_NODE $SNBF_POINT $SNBF_OUTCOME >> {log}"
    good("backup", "data", DEST, "--before-freeze", hook, "--after-thaw", hook)
    with open(log, encoding="ascii") as text:
        kit.equal(text.read(), "before-freeze data 2\nafter-thaw data 2 done\n", "the hooks")
    os.unlink(log)
    write(5, 1)
    refused(1, "backup", "data", DEST, "--before-freeze", "exit 1", "--after-thaw", hook)
    with open(log, encoding="ascii") as text:
        kit.equal(text.read(), "after-thaw data 3 failed\n", "the second hook")
    kit.equal(changed(), {5}, "the bitmap")
    refused(1, "backup", "data", DEST, "--before-freeze", "sleep 1000", "--hook-limit", "1s", "--after-thaw", hook)
    status, _, err = tool("backup", "data", DEST, "--after-thaw", "exit 9")
    kit.equal(status, 3, "the point stands")
    kit.check("status 9" in err, err)
    kit.equal(changed(), set(), "the bitmap counts from it")
    err = refused(1, "backup", "data", "--pipe", "exit 1", "--after-thaw", "exit 9")
    kit.check("status 9" in err, "it is told although the copy fails: " + err)


@kit.case
def what_is_not_mounted_or_there_yet():
    with open("/etc/fstab", "a", encoding="ascii") as fstab:
        fstab.write("/dev/nowhere /mnt/absent ext4 noauto 0 0\n")
    err = refused(6, "backup", "data", "/mnt/absent/chain")
    kit.check("/mnt/absent is not mounted" in err, err)
    kit.check(not os.path.exists("/mnt/absent"), "nothing is made below it")
    plan = answer("backup", "data", DEST, "--cow", "/mnt/store/cow", "--dry-run")
    kit.equal(plan["cow_dir"], "/mnt/store/cow", "a dry run names it")
    kit.check(not os.path.exists("/mnt/store/cow"), "and makes nothing")
    good("backup", "data", DEST, "--cow", "/mnt/store/cow")
    for path in (DEST, "/mnt/store/cow"):
        kit.equal(stat.S_IMODE(os.stat(path).st_mode), 0o700, f"the mode of {path}")
    for name in os.listdir(DEST):
        kit.equal(stat.S_IMODE(os.stat(f"{DEST}/{name}").st_mode) & 0o077, 0, f"the mode of {name}")


@kit.case
def a_program_is_given_the_whole_image():
    refused(2, "backup", "data", DEST, "--pipe", "cat")
    refused(2, "backup", "data", "--pipe", "cat", "--no-snap")
    write(9, 1)
    refused(1, "backup", "data", "--pipe", "head -c 1000000 > /dev/null; exit 1")
    kit.equal(changed(), {9}, "a program that fails leaves it")
    point = whole("--pipe", "cat > /mnt/store/piped")
    kit.equal((point["level"], point["full_because"]), ("full", "whole-image"), "what it is")
    same("/mnt/store/piped")
    os.unlink("/mnt/store/piped")
    kit.equal(changed(), {9}, "nothing can stand on what it keeps")
    kit.equal(answer("backup", "data", DEST)["level"], "incr", "the chain goes on")


@kit.case
def restic_keeps_it_and_gives_it_back():
    os.environ.update(RESTIC_REPOSITORY="/mnt/store/restic", RESTIC_PASSWORD="a test's", RESTIC_CACHE_DIR="/tmp/restic")
    kit.run("restic", "init")
    good("backup", "data", "--pipe", "restic backup --stdin --stdin-filename data.img")
    with open("/mnt/store/back", "wb") as out:
        subprocess.run(["restic", "dump", "latest", "data.img"], stdout=out, check=True)
    same("/mnt/store/back")
    kit.run("rm", "-rf", "/mnt/store/back", "/mnt/store/restic")


@kit.case
def a_servers_disk_holds_the_newest_point():
    with open("/mnt/store/disk", "wb") as disk:
        disk.truncate(64 * MIB)
    server = subprocess.Popen(["qemu-nbd", "-t", "-f", "raw", "-e", "8", "-k", SOCKET, "/mnt/store/disk"])
    try:
        kit.wait_until(listens, seconds=60, what="the server")
        refused(1, "backup", "data", SERVER, "--before-freeze", "exit 1")
        with open("/mnt/store/disk", "r+b") as disk:
            disk.write(b"somebody's")
        refused(6, "backup", "data", SERVER)
        with open("/mnt/store/disk", "r+b") as disk:
            kit.equal(disk.read(10), b"somebody's", "what the disk was given to before any byte of ours")
            disk.seek(0)
            disk.write(bytes(10))
        kit.equal(whole(SERVER)["full_because"], "no-earlier-backup", "the first one")
        same("/mnt/store/disk")
        write(20, 3)
        point = whole(SERVER)
        kit.equal((point["level"], point["extents"]), ("incr", 3), "the next one")
        same("/mnt/store/disk")
        kit.equal(len(answer("backup", "data", SERVER, "--list")["points"]), 1, "points on it")
        with open("/mnt/store/disk", "r+b") as disk:
            disk.write(os.urandom(64 * MIB))
        write(30, 1)
        kit.check("not as the last backup left it" in refused(6, "backup", "data", SERVER), "it says why")
        kit.equal(changed(), {30}, "the bitmap")
        kit.equal(whole(SERVER, "--yes")["full_because"], "chain-broken", "asked for, it is full")
        same("/mnt/store/disk")
    finally:
        server.terminate()
        server.wait()
    refused(1, "backup", "data", SERVER)


@kit.case
def pruned_points_restore_as_before():
    good("backup", "data", DEST, "--level", "full")
    for turn in range(5):
        write(40 + turn, 4)
        good("backup", "data", DEST)
    points = [point["point"] for point in answer("verify", DEST)["points"]]
    good("restore", f"{DEST}@{points[-3]}", "/mnt/store/before")
    kit.check("nothing was changed" in tool("prune", DEST, "--keep-last", "3", "--dry-run")[2], "a dry run")
    kit.equal(answer("prune", DEST, "--keep-last", "3", "--dry-run")["points"], points[-3:], "what would be left")
    kit.equal([point["point"] for point in answer("verify", DEST)["points"]], points, "it changes nothing")
    refused(2, "prune", DEST)
    kept = answer("prune", DEST, "--keep-last", "3")["points"]
    kit.equal(kept, points[-3:], "what is left")
    kit.check(answer("verify", DEST, "--deep")["sound"], "it is sound")
    good("restore", f"{DEST}@{points[-3]}", "/mnt/store/after")
    kit.run("cmp", "/mnt/store/before", "/mnt/store/after")
    good("restore", DEST, kit.disk("back"), "--yes")
    same(kit.disk("back"))
    write(50, 1)
    kit.equal(answer("backup", "data", DEST)["level"], "incr", "the chain goes on")
    kit.equal(answer("backup", "data", DEST, "--level", "diff")["level"], "diff",
              "also from the full point that others were merged into")


@kit.case
def the_end():
    good("detach", "data")
    kit.unload()


if __name__ == "__main__":
    kit.main()
