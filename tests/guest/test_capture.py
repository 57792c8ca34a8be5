"""A backup without a snap that is cut off loses no change: killed, interrupted, out of room, without power, or overtaken by a writer."""

import json
import os
import signal
import subprocess
import threading
import time

import kit
import worker
from kit import KIB, MIB
from tool import TOOL, good, tool

GUEST = {"quick": True, "minutes": 3, "kernels": "installed", "disks": ["a:64M", "back:64M", "store:384M", "state:64M"], "limit": 400,
         "boots": ["capture!", "after"]}

DEST = "/mnt/store/chain"
JOURNAL = "/mnt/state/snbf0.capture"
NODE = "/dev/snbf/snbf0"


def backup():
    return json.loads(good("backup", "data", DEST, "--no-snap", "--json"))


def changed():
    return kit.marked(0, kit.INCR)


def write(first_mib, count_mib):
    fd = os.open(NODE, os.O_WRONLY)
    for number in range(count_mib):
        os.pwrite(fd, os.urandom(MIB), (first_mib + number) * MIB)
    os.fsync(fd)
    os.close(fd)


def comes_back_identical():
    good("restore", DEST, kit.disk("back"), "--yes")
    kit.run("cmp", "-n", str(64 * MIB), kit.disk("back"), NODE)


def has_captured():
    """The bitmap is taken, and the journal says what was in it."""
    try:
        with open(JOURNAL, "rb") as journal:
            return b"\ncaptured=1\n" in journal.read()
    except FileNotFoundError:
        return False


def cut_off(sent):
    """Begins a backup, sends the signal once it has taken the bitmap, and answers its status."""
    with subprocess.Popen([TOOL, "backup", "data", DEST, "--no-snap"], stdin=subprocess.DEVNULL) as process:
        kit.wait_until(has_captured, seconds=60, what="the capture")
        process.send_signal(sent)
        return process.wait()


@kit.case(boot="capture")
@kit.essential
def the_first_backup():
    kit.state_folder()
    kit.state_folder("store")
    kit.load()
    good("attach", kit.disk("a"), "--name", "data", "--bitmaps", "/mnt/state", "--start")
    write(0, 8)
    kit.equal(backup()["full_because"], "no-earlier-backup", "why")
    kit.equal(changed(), set(), "behind it")


@kit.case(boot="capture")
def one_that_is_killed_gives_everything_back_at_the_next():
    write(8, 24)
    before = changed()
    kit.check(cut_off(signal.SIGKILL) != 0, "it was killed")
    kit.check(os.path.exists(JOURNAL), "what it took is in the journal")
    point = backup()
    kit.equal((point["level"], point["extents"]), ("incr", len(before)), "the next one")
    kit.check(not os.path.exists(JOURNAL), "the journal is gone")
    comes_back_identical()


@kit.case(boot="capture")
def one_that_only_began_makes_the_next_full():
    write(40, 2)
    with open(JOURNAL, "wb") as journal:
        journal.write(b"cut off while it was written")
    kit.equal(backup()["full_because"], "capture-interrupted", "why")
    comes_back_identical()


@kit.case(boot="capture")
def one_that_is_interrupted_gives_everything_back_itself():
    write(2, 24)
    before = changed()
    kit.check(cut_off(signal.SIGINT) != 0, "it was interrupted")
    kit.check(not os.path.exists(JOURNAL), "the journal is gone")
    kit.equal(changed(), before, "the bitmap")


@kit.case(boot="capture")
def one_without_room_gives_everything_back():
    before = changed()
    os.makedirs("/mnt/small", exist_ok=True)
    kit.run("mount", "-t", "tmpfs", "-o", "size=2m", "tmpfs", "/mnt/small")
    kit.equal(tool("backup", "data", "/mnt/small/chain", "--no-snap")[0], 1, "status")
    kit.run("umount", "/mnt/small")
    kit.equal(changed(), before, "the bitmap")
    kit.equal(backup()["level"], "incr", "the chain goes on")
    comes_back_identical()


@kit.case(boot="capture")
def what_a_writer_overtakes_is_in_the_next_point():
    write(0, 8)
    done = threading.Event()

    def keep_writing():
        fd = os.open(NODE, os.O_WRONLY | os.O_SYNC)
        number = 0
        while not done.is_set():
            os.pwrite(fd, os.urandom(4 * KIB), (number * 97 % 900) * 64 * KIB)
            number += 1
            time.sleep(0.002)
        os.close(fd)

    writer = worker.Worker(keep_writing)
    writer.start()
    status, out, _ = tool("backup", "data", DEST, "--no-snap", "--json")
    done.set()
    writer.finish()
    kit.equal((status, json.loads(out)["exact"]), (3, False), "it says that it is not exact")
    kit.equal(backup()["exact"], True, "the next one is")
    comes_back_identical()


@kit.case(boot="capture")
def the_power_fails_in_the_middle_of_one():
    write(8, 24)
    with subprocess.Popen([TOOL, "backup", "data", DEST, "--no-snap"], stdin=subprocess.DEVNULL):
        kit.wait_until(has_captured, seconds=60, what="the capture")
        kit.crash()


@kit.case(boot="after")
def the_next_backup_is_full_says_why_and_is_right():
    kit.state_folder()
    kit.state_folder("store")
    kit.load()
    good("attach", kit.disk("a"), "--name", "data", "--bitmaps", "/mnt/state", "--start")
    kit.equal(changed(), set(range(1024)), "every extent counts as changed")
    point = backup()
    kit.equal(point["level"], "full", "level")
    kit.check(point["full_because"] in ("bitmap-dirty", "unclean-stop"), point["full_because"])
    comes_back_identical()
    good("detach", "data")
    kit.unload()


if __name__ == "__main__":
    kit.main()
