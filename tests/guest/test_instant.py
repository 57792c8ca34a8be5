"""A restore that is in use while it is copied: mounted and written to, left alone, cut off, gone on with, refused;
and killed or without power at any step of its end."""

import glob
import os
import signal
import subprocess

import kit
from tool import TOOL, a_backed_up_node, good, refused

GUEST = {"minutes": 4, "kernels": "installed", "disks": ["a:32M", "back:32M", "store:128M", "state:32M"],
         "boots": ["main!", "after"], "limit": 600}

DEST = "/mnt/store/chain"
BACK = kit.disk("back")
SHOP = "/dev/mapper/shop"
THERE = "/run/shop"
RESTORE = ("restore", DEST, BACK, "--instant", "shop", "--scratch", "/mnt/store", "--yes")
OVERLAY = "/mnt/store/shop.instant.qcow2"
MARK = "/mnt/store/shop.instant.whole"
HOLD = f"{DEST}/.instant-shop"
TRACE = "/tmp/strace.log"


class Restore:
    """The tool, from when the device is there."""

    def __init__(self):
        self.running = subprocess.Popen([TOOL, *RESTORE], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        kit.equal(self.running.stdout.readline().strip(), SHOP, "what it prints")

    def end(self, ask=None):
        if ask:
            self.running.send_signal(ask)
        kit.equal(self.running.wait(), 0, "its status")
        self.running.stdout.close()


def throttle(percent):
    with open("/sys/module/dm_mirror/parameters/raid1_resync_throttle", "w", encoding="ascii") as out:
        out.write(str(percent))


def regions():
    done, _, every = kit.run("dmsetup", "status", "shop").split()[6].partition("/")
    return int(done), int(every)


def put(name):
    kit.run("mount", SHOP, THERE)
    with open(f"{THERE}/{name}", "wb") as out:
        out.write(name.encode() * 1000)
        os.fsync(out.fileno())
    kit.run("umount", THERE)


def has(device, *names):
    kit.run("mount", "-o", "ro", device, THERE)
    for name in names:
        with open(f"{THERE}/{name}", "rb") as text:
            kit.equal(text.read(), name.encode() * 1000, name)
    kit.run("umount", THERE)


@kit.case(boot="main")
@kit.essential
def a_chain_is_there():
    os.environ["DM_DISABLE_UDEV"] = "1"  # nobody makes the device's file but dmsetup
    a_backed_up_node(DEST)
    kit.run("modprobe", "-a", "dm-mirror", "nbd")
    os.makedirs(THERE)


@kit.case(boot="main")
def a_file_and_another_ones_name_are_refused():
    refused(2, "restore", DEST, "/mnt/store/file", "--instant", "shop")
    refused(2, "restore", DEST, BACK, "--instant", "a/b", "--scratch", "/mnt/store")
    kit.run("dmsetup", "create", "shop", "--table", "0 8 zero")
    refused(8, *RESTORE)
    kit.run("dmsetup", "remove", "shop")
    kit.check(not os.path.exists(OVERLAY))


@kit.case(boot="main")
@kit.essential
def it_is_used_while_it_is_copied():
    throttle(0)
    restore = Restore()
    put("first")
    done, every = regions()
    kit.check(done < every, f"{done} of {every} regions are copied")
    restore.end(signal.SIGTERM)
    kit.check(os.path.exists(SHOP), "it goes on without the tool")
    good(*RESTORE, "--dry-run")
    kit.check("mirror" in kit.run("dmsetup", "table", "shop"), "a rehearsal ends nothing")
    put("second")


@kit.case(boot="main")
@kit.essential
def after_a_cut_what_was_written_is_there():
    done, every = regions()
    kit.check(done < every, f"{done} of {every} regions are copied")
    kit.run("dmsetup", "remove", "shop")
    kit.run("qemu-nbd", "--disconnect", "/dev/nbd0")
    kit.wait_until(lambda: not os.path.exists("/sys/block/nbd0/pid"), what="the end of the server")
    restore = Restore()
    has(SHOP, "first", "second")
    restore.end(signal.SIGINT)


@kit.case(boot="main")
def nothing_is_pruned_below_it():
    said = refused(8, "prune", DEST, "--keep-last", "1")
    kit.check(HOLD in said and SHOP in said, said)


@kit.case(boot="main")
def another_point_does_not_take_its_place():
    said = refused(8, "restore", DEST, kit.disk("state"), *RESTORE[3:])
    kit.check("shop" in said, said)


@kit.case(boot="main")
@kit.essential
def it_ends_as_the_target_alone():
    throttle(100)
    Restore().end()
    kit.check("linear" in kit.run("dmsetup", "table", "shop"))
    kit.check(not os.path.exists(OVERLAY) and not os.path.exists(HOLD), "the overlay is gone")
    good("prune", DEST, "--keep-last", "1")
    kit.check(not glob.glob("/sys/block/nbd*/pid"), "nothing is served")
    has(SHOP, "first", "second")
    put("third")
    kit.run("dmsetup", "remove", "shop")
    has(BACK, "first", "second", "third")
    kit.run("e2fsck", "-fn", BACK)


@kit.case(boot="main")
def a_left_overlay_of_another_point_is_refused():
    good("backup", "data", DEST)
    kit.run("qemu-img", "create", "-q", "-f", "qcow2", "-b", f"{DEST}/0001-full.qcow2", "-F", "qcow2", OVERLAY)
    said = refused(6, *RESTORE)
    kit.check("0001-full.qcow2" in said, said)
    os.unlink(OVERLAY)


# --- killed, or without power, at its end -----------------------------------------------------------

class Ends:
    """Restores whose end is interrupted, and what was written to them."""

    behind_the_mark = switched = None  # steps, once they are known

    def __init__(self):
        self.turn = 0
        self.written = []

    def put(self):
        name = f"written{self.turn}-{len(self.written)}"
        put(name)
        self.written.append(name)

    def begin(self):
        """A restore that is copied, and that nobody looks after."""
        self.turn += 1
        self.written = []
        throttle(0)
        restore = Restore()
        self.put()
        restore.end(signal.SIGTERM)
        throttle(100)
        kit.wait_until(lambda: len(set(regions())) == 1, seconds=300, what="the copy")

    def traced(self, *inject):
        """(its status, strace's lines) of the tool as it ends that."""
        command = ["strace", "-o", TRACE, "-e", "trace=clone,rename,unlink,fsync", *inject, TOOL, *RESTORE]
        status = subprocess.run(command, stdin=subprocess.DEVNULL, check=False).returncode
        with open(TRACE, encoding="utf-8") as lines:
            return status, lines.read().splitlines()

    def killed(self, call, number):
        status, lines = self.traced("-e", f"inject={call}:signal=KILL:when={number}")
        kit.check(status != 0 and lines[-1].startswith("+++ killed"), f"{call} {number}: {status} {lines[-1:]}")

    def check_all(self, what):
        """The same command ends it, and what was written is on the target."""
        good(*RESTORE)
        kit.equal([path for path in (OVERLAY, MARK, HOLD) if os.path.exists(path)], [], f"files left after {what}")
        kit.check(not os.path.exists("/sys/block/nbd0/pid"), f"it is served after {what}")
        kit.equal(os.path.exists("/sys/block/nbd3/pid"), what.startswith("a kill"), "what is another's is left alone")
        if os.path.exists(SHOP):
            kit.check("linear" in kit.run("dmsetup", "table", "shop"), f"the target alone after {what}")
            self.put()
            kit.run("dmsetup", "remove", "shop")
        has(BACK, *self.written)


def is_in_use():
    return os.path.exists(SHOP) and "s" not in kit.run("dmsetup", "info", "-c", "--noheadings", "-o", "attr", "shop")


def end_steps(lines):
    """(system call, number of the call) of what changes something from the first sync on, with which the end
    begins. A program that is run is a clone. A kill comes before its call, and so right after the one before."""
    counts = {"clone": 0, "rename": 0, "unlink": 0, "fsync": 0}
    found = []
    for line in lines:
        call = line.partition("(")[0]
        if call not in counts:
            continue
        counts[call] += 1
        if call != "fsync" and counts["fsync"]:
            found.append((call, counts[call]))
    return found


@kit.case(boot="main")
@kit.essential
def killed_at_any_step_of_its_end_it_is_ended_by_the_next():
    kit.run("qemu-img", "create", "-q", "-f", "qcow2", "/mnt/store/other.qcow2", "1M")
    kit.run("qemu-nbd", "--connect=/dev/nbd3", "--socket=/run/other.sock", "--format=qcow2",
            "/mnt/store/other.qcow2")
    ends = Ends()
    ends.begin()
    status, lines = ends.traced()
    kit.equal(status, 0, "one that is not killed")
    kit.run("dmsetup", "remove", "shop")
    plan = end_steps(lines)
    print(plan)
    mark = plan.index(("rename", 1))
    Ends.behind_the_mark = plan[mark + 1]
    Ends.switched = plan[-3]
    for what, step, in_use in (("suspended", plan[mark - 1], False), ("marked", plan[mark + 1], False),
                               ("loaded", plan[mark + 2], False), ("resumed", plan[mark + 3], True),
                               ("not served any more", plan[-3], True), ("without overlay", plan[-2], True)):
        ends.begin()
        ends.killed(*step)
        kit.equal(is_in_use(), in_use, f"in use when it is {what}")
        if in_use:
            ends.put()
        ends.check_all(f"a kill of one that is {what}")
    kit.run("qemu-nbd", "--disconnect", "/dev/nbd3")


@kit.case(boot="main")
def a_cut_behind_the_mark_finds_the_target_whole():
    """The device is taken away while it is suspended, and its server with it: so does a cut."""
    ends = Ends()
    ends.begin()
    ends.killed(*ends.behind_the_mark)
    kit.check(os.path.exists(MARK) and not is_in_use(), "it is marked and suspended")
    good(*RESTORE, "--dry-run")
    kit.check(os.path.exists(MARK) and not is_in_use(), "a rehearsal resumes nothing")
    kit.run("dmsetup", "remove", "shop")
    kit.run("qemu-nbd", "--disconnect", "/dev/nbd0")
    ends.check_all("a cut behind the mark")
    kit.check(not os.path.exists(SHOP), "there is no device any more")


@kit.case(boot="main")
def the_power_goes_when_the_device_is_the_target():
    ends = Ends()
    ends.begin()
    ends.killed(*ends.switched)
    kit.check(os.path.exists(OVERLAY) and os.path.exists(MARK), "the overlay is there, and older")
    put("newer")
    kit.crash()


@kit.case(boot="after")
def what_was_written_since_is_there():
    os.environ["DM_DISABLE_UDEV"] = "1"
    kit.state_folder("store")
    os.makedirs(THERE)
    kit.check(os.path.exists(OVERLAY), "the overlay has outlived the cut")
    kit.run("modprobe", "-a", "dm-mirror", "nbd")
    refused(6, "restore", DEST, kit.disk("state"), *RESTORE[3:])
    kit.equal(good(*RESTORE), f"{BACK}\n", "what is to be used now")
    kit.equal([path for path in (OVERLAY, MARK, SHOP) if os.path.exists(path)], [], "what is left")
    has(BACK, "newer", "written1-0")
    kit.run("e2fsck", "-fn", BACK)


if __name__ == "__main__":
    kit.main()
