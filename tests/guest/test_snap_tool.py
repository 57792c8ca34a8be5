"""Snaps by the tool: made, mounted, deleted, resumed over restarts; and backups taken from one, under a writer,
killed at every step, and with the snap lost on the way."""

import glob
import hashlib
import json
import os
import re
import shutil
import signal
import subprocess
import threading

import kit
import worker
from kit import KIB, MIB
from tool import TOOL, answer, good, refused, tool, tree_of, write

GUEST = {"minutes": 12, "kernels": "installed", "disks": ["a:64M", "x:320M", "k:8M", "r:16M", "back:64M", "store:512M", "state:256M", "small:16M"],
         "limit": 1500, "boots": ["main", "again!", "after"],
         "allow": [r"Buffer I/O error on dev(ice)? (snbf|small)", r"EXT4-fs .*small"]}

DEST = "/mnt/store/chain"
DATA = "/mnt/data"
XFS = "/mnt/xfs"
LOOK = "/mnt/look"
STATE = "/mnt/state"
JOURNAL = f"{STATE}/snbf2.capture"


def snaps(node=None):
    """The tool's list, by name."""
    found = answer("snap", "list", *([node] if node else []))["snaps"]
    return {snap["name"]: snap for snap in found}


def states(node):
    return {name: snap["state"] for name, snap in snaps(node).items()}


def nothing_is_left(folder=STATE):
    kit.equal(kit.minors(2), [], "snap nodes")
    kit.equal([name for name in os.listdir(folder) if re.search(r"\.(snap|cow|cowmap)$", name)], [],
              f"files in {folder}")


def hash_of(device):
    """Of all its bytes, past the page cache."""
    found = hashlib.sha256()
    fd = os.open(device, os.O_RDONLY)
    try:
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
        while piece := os.read(fd, MIB):
            found.update(piece)
    finally:
        os.close(fd)
    return found.hexdigest()


@kit.case(boot="main")
@kit.essential
def the_nodes_are_attached():
    kit.state_folder()
    kit.state_folder("store")
    kit.state_folder("small")
    kit.load()
    kit.run("mkfs.ext4", "-q", "-F", kit.disk("a"))
    kit.run("mkfs.xfs", "-q", "-f", kit.disk("x"))
    for disk, name in (("a", "data"), ("x", "xfs"), ("k", "kill"), ("r", "raw")):
        good("attach", kit.disk(disk), "--name", name, "--bitmaps", STATE, "--start")
    for folder in (DATA, XFS, LOOK):
        os.makedirs(folder, exist_ok=True)
    kit.run("mount", kit.node_path("snbf0"), DATA)
    kit.run("mount", kit.node_path("snbf1"), XFS)


@kit.case(boot="main")
def misuse_is_told_apart():
    refused(2, "snap")
    refused(2, "snap", "create")
    refused(2, "snap", "delete")
    refused(2, "snap", "create", "data", "--chunk", "6K")
    refused(2, "snap", "create", "data", "--name", "control")
    refused(2, "snap", "create", "data", "--name", "snbf1")
    refused(2, "backup", "data", DEST, "--no-snap", "--cow", STATE)
    kit.equal(tool("snap", "create", "nobody")[0], 1, "an unknown node")
    kit.equal(tool("snap", "delete", "nobody")[0], 1, "an unknown snap")
    kit.equal(tool("mount", "nobody", LOOK)[0], 1, "an unknown snap")
    nothing_is_left()


@kit.case(boot="main")
def cow_files_are_kept_off_the_partition_by_whatever_path():
    refused(6, "snap", "create", "data", "--cow", DATA)
    refused(6, "snap", "create", "data", "--cow", "/dev/shm")
    image = f"{DATA}/image"
    with open(image, "wb") as out:
        out.truncate(16 * MIB)
    kit.run("mkfs.ext4", "-q", "-F", image)
    kit.run("modprobe", "loop")
    os.makedirs("/mnt/loop", exist_ok=True)
    kit.run("mount", "-o", "loop", image, "/mnt/loop")
    refused(6, "snap", "create", "data", "--cow", "/mnt/loop")
    # A ring: the snap of one lies on the other, whose own snap then may not lie on the first.
    good("snap", "create", "data", "--cow", XFS, "--name", "ring")
    refused(6, "snap", "create", "xfs", "--cow", DATA)
    good("snap", "delete", "ring")
    kit.run("umount", "/mnt/loop")
    os.unlink(image)
    nothing_is_left()
    nothing_is_left(XFS)


@kit.case(boot="main")
def a_deleted_file_is_fetched_from_a_snap():
    for node, folder, kind in (("data", DATA, "ext4"), ("xfs", XFS, "xfs")):
        wanted = os.urandom(2 * MIB)
        with open(f"{folder}/letter", "wb") as out:
            out.write(wanted)
        out = good("snap", "create", node, "--name", f"{node}-monday")
        kit.equal(out.strip(), f"/dev/snbf/{node}-monday", "the device")
        os.unlink(f"{folder}/letter")
        with open(f"{folder}/filler", "wb") as out:
            out.write(os.urandom(4 * MIB))
        os.sync()
        found = answer("mount", f"{node}-monday", LOOK)
        kit.equal(found["type"], kind, "file system")
        with open(f"{LOOK}/letter", "rb") as letter:
            kit.check(letter.read() == wanted, f"the letter on {kind}")
        kit.check(not os.path.exists(f"{LOOK}/filler"), "what came later is not there")
        refused(8, "snap", "delete", f"{node}-monday")
        good("umount", f"{node}-monday")
        kit.equal(tool("umount", f"{node}-monday")[0], 1, "it is not mounted any more")
        os.unlink(f"{folder}/filler")


@kit.case(boot="main")
def snaps_are_listed_with_what_they_hold():
    found = snaps()
    kit.equal(sorted(found), ["data-monday", "xfs-monday"], "names")
    kit.equal(found["data-monday"]["state"], "started", "state")
    kit.check(found["data-monday"]["cow_data_bytes"] > 0, "something was copied")
    kit.check("xfs-monday" in good("snap", "list", "xfs", "--tree"), "tree")
    kit.check("data-monday" in good("status", "data"), "status")
    kit.equal(answer("status", "data")["snap_list"][0]["name"], "data-monday", "status as JSON")
    kit.equal(answer("list")["nodes"][0]["snaps"], 1, "number")
    kit.equal(answer("status", "data")["cow_full_in_seconds"], None, "there is room for everything")
    refused(2, "snap", "create", "data", "--chunk", "8K")
    refused(1, "snap", "create", "data", "--name", "data-monday")


@kit.case(boot="main")
def a_newer_snap_is_not_deleted_from_under_an_older_one():
    good("snap", "create", "data", "--name", "tuesday")
    kit.check("data-monday" in refused(6, "snap", "delete", "tuesday"), "it names the older one")
    kit.equal(states("data")["tuesday"], "started", "and changes nothing")
    good("snap", "delete", "tuesday", "--yes")
    kit.equal(states("data"), {"data-monday": "started", "tuesday": "going"}, "postponed")
    kit.equal(tool("mount", "tuesday", LOOK)[0], 1, "it cannot be read")
    good("snap", "delete", "data-monday")
    kit.equal(states("data"), {}, "both are gone")
    good("snap", "delete", "xfs-monday")
    nothing_is_left()


@kit.case(boot="main")
def given_together_they_go_oldest_first():
    for name in ("one", "two", "three"):
        good("snap", "create", "data", "--name", name)
    good("snap", "delete", "two", "one")
    kit.equal(states("data"), {"three": "started"}, "what is left")
    good("snap", "create", "data", "--name", "four")
    good("snap", "delete", "--all", "data")
    nothing_is_left()


@kit.case(boot="main")
def cow_files_that_are_there_are_not_overwritten_unasked():
    with open(f"{STATE}/kept.cow", "wb") as out:
        out.write(b"somebody's")
    refused(6, "snap", "create", "data", "--name", "kept")
    kit.equal(os.path.getsize(f"{STATE}/kept.cow"), 10, "untouched")
    good("snap", "create", "data", "--name", "kept", "--yes")
    refused(6, "detach", "data")
    good("snap", "delete", "kept")
    nothing_is_left()


# --- backups from a snap ----------------------------------------------------------------------------

class Writer:
    """Creates, overwrites, appends to and deletes files until it is told to stop."""

    def __init__(self, folder):
        self.folder = folder
        self.done = threading.Event()
        self.rounds = 0
        self.worker = worker.Worker(self.work)

    def work(self):
        while not self.done.is_set():
            path = f"{self.folder}/file{self.rounds * 7 % 40}"
            if self.rounds % 5 == 4 and os.path.exists(path):
                os.unlink(path)
            else:
                with open(path, "r+b" if os.path.exists(path) else "wb") as out:
                    out.seek(self.rounds % 3 * 50 * KIB)
                    out.write(os.urandom(60 * KIB))
                    out.flush()
                    os.fsync(out.fileno())
            self.rounds += 1

    def __enter__(self):
        self.worker.start()
        return self

    def __exit__(self, failure, *_):
        self.done.set()
        self.worker.join()
        if failure is None:
            self.worker.check()


class Held:
    """A backup that stops itself in the moment in which it opens its snap, until it is told to go on."""

    def __init__(self, node, *words):
        device = kit.node_path(f"{node}-backup")
        self.process = subprocess.Popen(
            ["strace", "-o", "/dev/null", "-e", "trace=openat", "-P", device, "-e",
             "inject=openat:signal=STOP:when=1", TOOL, "backup", node, *words, "--json"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.device = device
        self.pid = None
        kit.wait_until(lambda: self.opened() or self.process.poll() is not None, seconds=120, what=device)
        kit.check(self.process.poll() is None, "it still runs")

    def opened(self):
        """Whether the tool has its snap open. It does not get further than that."""
        folder = f"/proc/{self.process.pid}"
        try:
            with open(f"{folder}/task/{self.process.pid}/children", encoding="ascii") as children:
                for self.pid in map(int, children.read().split()):
                    files = f"/proc/{self.pid}/fd"
                    if any(os.readlink(f"{files}/{number}") == self.device for number in os.listdir(files)):
                        return True
        except (FileNotFoundError, ProcessLookupError):  # it ends while we look
            pass
        return False

    def end(self, *signals):
        """Goes on, after these signals: (status, output, what it said)."""
        for number in (*signals, signal.SIGCONT):
            os.kill(self.pid, number)
        out, err = self.process.communicate()
        return self.process.returncode, out, err


def compare_trees(one, other):
    kit.run("diff", "-r", "--no-dereference", one, other)


def backup_under_a_writer(level):
    """The point, and what is mounted at LOOK: the snap that it was copied from."""
    with Writer(DATA) as writer:
        kit.wait_until(lambda: writer.rounds > 30, seconds=60, what="the writer")
        held = Held("data", DEST)
        good("mount", "data-backup", LOOK)
        status, out, err = held.end()
        before = writer.rounds
        kit.wait_until(lambda: writer.rounds > before + 10, seconds=60, what="the writer goes on")
    kit.equal(status, 0, f"status ({err})")
    point = json.loads(out)
    kit.equal((point["level"], point["source"], point["exact"]), (level, "snap", True), "the point")
    return point


def the_restored_tree_is_the_snaps():
    good("restore", DEST, kit.disk("back"), "--yes")
    os.makedirs("/mnt/back", exist_ok=True)
    kit.run("mount", "-o", "ro,noload", kit.disk("back"), "/mnt/back")
    compare_trees(LOOK, "/mnt/back")
    kit.check(len(os.listdir("/mnt/back")) > 5, "there is something to compare")
    kit.run("umount", "/mnt/back")
    kit.run("fsck.ext4", "-fn", kit.disk("back"))
    good("umount", LOOK)


@kit.case(boot="main")
def a_full_backup_under_a_writer_is_of_one_moment():
    backup_under_a_writer("full")
    the_restored_tree_is_the_snaps()


@kit.case(boot="main")
def an_incremental_one_too_and_it_takes_the_last_ones_snap_away():
    kit.equal(list(snaps("data")), ["data-backup"], "it was mounted, and could not go")
    backup_under_a_writer("incr")
    kit.equal(len(snaps("data")), 1, "the first one's snap is gone, the second's is mounted")
    the_restored_tree_is_the_snaps()
    good("backup", "data", DEST)
    nothing_is_left()


@kit.case(boot="main")
def a_differential_one_leads_from_the_full_one():
    with open(f"{DATA}/late", "wb") as out:
        out.write(os.urandom(MIB))
    point = answer("backup", "data", DEST, "--level", "diff")
    kit.equal((point["level"], point["parent"], point["source"]), ("diff", 1, "snap"), "the point")
    os.sync()
    shutil.copy(f"{DATA}/late", "/tmp/late")
    good("restore", DEST, kit.disk("back"), "--yes")
    kit.run("mount", "-o", "ro,noload", kit.disk("back"), "/mnt/back")
    kit.run("cmp", "/tmp/late", "/mnt/back/late")
    kit.run("umount", "/mnt/back")


@kit.case(boot="main")
def an_xfs_comes_back_without_what_it_did_not_use():
    chain, image, back = "/mnt/store/xfs", "/mnt/store/xfs.img", "/mnt/xfs-back"
    os.makedirs(back, exist_ok=True)

    def comes_back():
        good("restore", chain, image, "--yes")
        kit.run("mount", "-o", "loop,nouuid", image, back)  # replays the log of the moment of the snap
        kit.equal(tree_of(back), tree_of(XFS), "files")
        kit.run("umount", back)
        kit.run("xfs_repair", "-n", image)

    def fill(path, first, count):
        with open(path, "ab"):
            pass
        write(path, first, count)

    fill(f"{XFS}/kept", 0, 64)
    fill(f"{XFS}/gone", 0, 320)
    full = answer("backup", "xfs", chain)
    kit.equal((full["level"], full["whole_because"]), ("full", ""), "the first")
    kit.check(200 * MIB < full["skipped_bytes"] < 300 * MIB, f"{full['skipped_bytes']} skipped")
    comes_back()
    os.unlink(f"{XFS}/gone")
    fill(f"{XFS}/short", 0, 320)
    os.unlink(f"{XFS}/short")
    fill(f"{XFS}/kept", 32, 64)
    point = answer("backup", "xfs", chain)
    kit.equal((point["level"], point["whole_because"]), ("incr", ""), "the second")
    kit.check(point["copied_bytes"] < 16 * MIB, f"{point['copied_bytes']} copied")
    comes_back()
    os.unlink(image)
    nothing_is_left()


@kit.case(boot="main")
def beside_an_older_snap_the_backups_own_stays_until_that_goes():
    good("snap", "create", "data", "--name", "older")
    status, out, err = tool("backup", "data", DEST, "--json")
    kit.equal((status, json.loads(out)["source"]), (0, "snap"), "the backup")
    kit.check("data-backup" in err and "older" in err, err)
    kit.equal(states("data"), {"older": "started", "data-backup": "going"}, "behind it")
    good("backup", "data", DEST)
    good("snap", "delete", "older")
    kit.equal(states("data"), {}, "all of them")
    nothing_is_left()


@kit.case(boot="main")
def one_that_is_interrupted_gives_everything_back_itself():
    write(kit.node_path("snbf3"), 0, 4)
    status, _, err = Held("raw", "/mnt/store/raw").end(signal.SIGINT)
    kit.equal(status, 1, f"status ({err})")
    kit.check(set(range(4)) <= kit.marked(3, kit.INCR), "every change is still marked")
    kit.check(not os.path.exists(f"{STATE}/snbf3.capture"), "the journal is gone")
    nothing_is_left()


@kit.case(boot="main")
def a_snap_that_is_lost_on_the_way_costs_no_change():
    write(kit.node_path("snbf3"), 0, 8)
    good("backup", "raw", "/mnt/store/raw")
    write(kit.node_path("snbf3"), 8, 4)
    before = kit.marked(3, kit.INCR)
    with open("/mnt/small/filler", "wb") as out:
        out.write(bytes(os.statvfs("/mnt/small").f_bavail * 1024 - 4 * MIB))
        os.fsync(out.fileno())
    held = Held("raw", "/mnt/store/raw", "--cow", "/mnt/small")
    write(kit.node_path("snbf3"), 0, 256)
    minor = kit.minors(2)[0]
    kit.wait_until(lambda: not kit.info(minor).snap_valid, seconds=60, what="the snap is lost")
    status, _, err = held.end()
    kit.equal(status, 4, f"status ({err})")
    kit.check("lost" in err and "/mnt/small" in err, err)
    kit.check(before <= kit.marked(3, kit.INCR), "every change is still marked")
    kit.check(not os.path.exists(f"{STATE}/snbf3.capture"), "the journal is gone")
    nothing_is_left("/mnt/small")
    kit.equal(answer("backup", "raw", "/mnt/store/raw")["level"], "incr", "the next one")
    good("restore", "/mnt/store/raw", "/tmp/raw.img")
    kit.run("cmp", "/tmp/raw.img", kit.node_path("snbf3"))
    os.unlink("/tmp/raw.img")


@kit.case(boot="main")
def without_a_place_for_cow_files_it_copies_without_a_snap_and_says_so():
    kit.check("lies on the partition" in refused(6, "backup", "data", DEST, "--cow", DATA), "asked for")
    good("stop", "raw")
    good("detach", "raw")
    good("attach", kit.disk("r"), "--name", "raw", "--bitmaps", "/mnt/small", "--minor", "3", "--start")
    os.makedirs("/dev/shm/raw", exist_ok=True)
    status, out, err = tool("backup", "raw", "/dev/shm/raw", "--json")
    kit.check("without a snap" in err and "/dev/shm/raw" in err, err)
    kit.equal((status, json.loads(out)["source"]), (0, "unmounted"), "what it did instead")
    refused(6, "backup", "raw", "/dev/shm/raw", "--snap", "always")
    shutil.rmtree("/dev/shm/raw")


# --- killed at every step ---------------------------------------------------------------------------

TRACE = "/tmp/strace.log"
ADD_SNAP = 0x02
MUTATING = {0x02, 0x03, 0x04, 0x05, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0e, 0x11}


def begin_traced(*inject):
    """One backup of the node "kill" under strace."""
    return subprocess.Popen(["strace", "-o", TRACE, "-e", "trace=ioctl,rename,unlink", *inject, TOOL, "backup",
                             "kill", "/mnt/store/kill"], stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)


def end_traced(process):
    """(status, strace's log, what it said)."""
    _, err = process.communicate()
    with open(TRACE, encoding="utf-8", errors="replace") as lines:
        return process.returncode, lines.read().splitlines(), err


def traced(*inject):
    return end_traced(begin_traced(*inject))


def command_of(line):
    """The number of the driver's command, or None."""
    found = re.match(r"ioctl\(.*0x43, 0x([0-9a-f]+),", line)
    return int(found.group(1), 16) if found else None


def steps(lines):
    """(system call, number of the call) of everything that changes something. A kill comes before its call, and
    so right after the one before."""
    found = []
    counts = {"ioctl": 0, "rename": 0, "unlink": 0}
    for line in lines:
        call = line.partition("(")[0]
        if call not in counts:
            continue
        counts[call] += 1
        if call != "ioctl" or command_of(line) in MUTATING:
            found.append((call, counts[call]))
    return found


class Kills:
    def __init__(self):
        self.turn = 0

    def change(self):
        write(kit.node_path("snbf2"), self.turn * 5 % 120, 3)
        self.turn += 1

    def check_all(self, what, restore=True):
        """The next backup finds everything, and leaves nothing behind."""
        status, _, err = tool("backup", "kill", "/mnt/store/kill")
        kit.equal(status, 0, f"the backup after {what} ({err})")
        kit.check(not os.path.exists(JOURNAL), f"the journal is gone after {what}")
        kit.equal(kit.minors(2), [], f"snaps after {what}")
        if not restore:
            return
        good("restore", "/mnt/store/kill", "/tmp/kill.img", "--yes", "--no-verify")
        kit.run("cmp", "/tmp/kill.img", kit.node_path("snbf2"))

    def all_steps(self, plan):
        """A change that is lost is not written again for many steps: not each of them needs a restore."""
        for turn, (call, number) in enumerate(plan, 1):
            what = f"a kill at {call} {number}"
            self.change()
            status, lines, err = traced("-e", f"inject={call}:signal=KILL:when={number}")
            kit.check(status != 0 and lines[-1].startswith("+++ killed"), f"{what}: {status} {err} {lines[-1:]}")
            self.change()
            self.check_all(what, restore=turn % 4 == 0 or turn == len(plan))


@kit.case(boot="main")
def killed_at_every_step_no_change_is_lost():
    kills = Kills()
    kills.change()
    good("backup", "kill", "/mnt/store/kill")
    kills.change()
    status, lines, err = traced()
    kit.equal(status, 0, f"one that is not killed ({err})")
    plan = steps(lines)
    kit.check(len(plan) >= 12, f"{plan}")
    print(f"{len(plan)} steps")
    kills.all_steps(plan)
    nothing_is_left()


def has_captured():
    try:
        with open(JOURNAL, "rb") as journal:
            return b"\ncaptured=1\n" in journal.read()
    except FileNotFoundError:
        return False


@kit.case(boot="main")
def what_is_written_between_the_taking_and_the_snap_is_copied():
    kills = Kills()
    kills.change()
    _, lines, _ = traced()
    ioctls = [line for line in lines if line.startswith("ioctl(")]
    at = [command_of(line) for line in ioctls].index(ADD_SNAP) + 1
    kills.change()
    process = begin_traced("-e", f"inject=ioctl:delay_enter=6000000:when={at}")
    kit.wait_until(has_captured, seconds=60, what="the capture")
    kit.equal(kit.minors(2), [], "there is no snap yet")
    write(kit.node_path("snbf2"), 121, 3)
    status, lines, err = end_traced(process)
    kit.equal(status, 0, f"the backup ({err})")
    kit.check({121, 122, 123} <= kit.marked(2, kit.INCR), "it is marked for the next one too")
    good("restore", "/mnt/store/kill", "/tmp/kill.img", "--yes", "--no-verify")
    kit.run("cmp", "/tmp/kill.img", kit.node_path("snbf2"))


@kit.case(boot="main")
def another_nodes_journal_is_refused():
    Kills().change()
    kit.check(Held("kill", "/mnt/store/kill").end(signal.SIGKILL)[0] != 0, "it was killed")
    shutil.copy(JOURNAL, f"{STATE}/snbf0.capture")
    kit.check("another node" in refused(6, "backup", "data", DEST), "it says whose it is not")
    os.unlink(f"{STATE}/snbf0.capture")
    Kills().check_all("a kill with the snap started")
    nothing_is_left()


# --- over stops and restarts ------------------------------------------------------------------------

@kit.case(boot="main")
def snaps_come_back_with_their_node():
    node = kit.node_path("snbf2")
    good("snap", "create", "kill", "--name", "first")
    first = hash_of("/dev/snbf/first")
    write(node, 0, 10)
    good("snap", "create", "kill", "--name", "second")
    second = hash_of("/dev/snbf/second")
    write(node, 5, 10)
    good("stop", "kill")
    kit.equal(states("kill"), {"first": "resumable", "second": "resumable"}, "stopped")
    good("snap", "resume", "kill")
    kit.equal(states("kill"), {"first": "started", "second": "started"}, "resumed")
    write(node, 12, 10)
    kit.equal((hash_of("/dev/snbf/first"), hash_of("/dev/snbf/second")), (first, second), "their images")
    with open(f"{STATE}/hashes", "w", encoding="ascii") as out:
        json.dump([first, second], out)


@kit.case(boot="main")
def everything_is_stopped_and_unloaded():
    kit.run("umount", DATA)
    kit.run("umount", XFS)
    good("stop", "--all")
    kit.unload()
    kit.check(os.path.exists(f"{STATE}/first.cow"), "the files are kept")


@kit.case(boot="again")
@kit.essential
def an_attach_brings_them_back():
    kit.state_folder()
    kit.state_folder("store")
    kit.load()
    good("attach", kit.disk("k"), "--name", "kill", "--bitmaps", STATE)
    kit.equal(states("kill"), {"first": "resumable", "second": "resumable"}, "before the start")
    good("start", "kill")
    node = kit.node_path("snbf2")
    kit.equal(states("kill"), {"first": "started", "second": "started"}, "behind it")
    write(node, 0, 60)
    with open(f"{STATE}/hashes", encoding="ascii") as hashes:
        kit.equal([hash_of("/dev/snbf/first"), hash_of("/dev/snbf/second")], json.load(hashes), "images")


@kit.case(boot="again")
def what_ran_without_them_made_them_worthless():
    good("stop", "kill")
    good("start", "kill", "--no-resume")
    good("stop", "kill")
    kit.equal(states("kill"), {"first": "dead", "second": "dead"}, "states")
    refused(6, "snap", "resume", "kill")
    good("snap", "delete", "--all", "kill")
    nothing_is_left()


@kit.case(boot="again")
def the_power_fails_with_a_snap_started_and_a_backup_under_way():
    good("start", "kill")
    good("snap", "create", "kill", "--name", "third")
    write(kit.node_path("snbf2"), 0, 10)
    Held("kill", "/mnt/store/kill")
    kit.crash()


@kit.case(boot="after")
def a_snap_without_a_clean_stop_is_not_believed():
    kit.state_folder()
    kit.state_folder("store")
    kit.load()
    status, _, err = tool("attach", kit.disk("k"), "--name", "kill", "--bitmaps", STATE, "--start")
    kit.check(status == 3 and "third" in err, f"status {status}: {err}")
    kit.check("kill-backup" not in err, "nobody misses a backup's own")
    kit.equal(states("kill"), {"third": "dead", "kill-backup": "dead"}, "states")
    kit.equal(answer("backup", "kill", "/mnt/store/kill")["level"], "full", "nothing is trusted")
    kit.equal(states("kill"), {"third": "dead"}, "it took the other's snap away")
    good("restore", "/mnt/store/kill", "/tmp/kill.img")
    kit.run("cmp", "/tmp/kill.img", kit.node_path("snbf2"))
    good("snap", "delete", "third")
    nothing_is_left()
    good("snap", "create", "kill", "--name", "fourth")
    refused(6, "detach", "kill")
    good("detach", "kill", "--yes")
    kit.equal(glob.glob(f"{STATE}/fourth*"), [], "its files")
    kit.unload()


if __name__ == "__main__":
    kit.main()
