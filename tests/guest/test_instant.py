"""A restore that is in use while it is copied: mounted and written to, left alone, cut off, gone on with, refused."""

import glob
import os
import signal
import subprocess

import kit
from tool import TOOL, a_backed_up_node, good, refused

GUEST = {"minutes": 2, "kernels": "installed", "disks": ["a:32M", "back:32M", "store:128M", "state:32M"], "limit": 300}

DEST = "/mnt/store/chain"
BACK = kit.disk("back")
SHOP = "/dev/mapper/shop"
THERE = "/run/shop"
RESTORE = ("restore", DEST, BACK, "--instant", "shop", "--scratch", "/mnt/store", "--yes")
OVERLAY = "/mnt/store/shop.instant.qcow2"


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


@kit.case
@kit.essential
def a_chain_is_there():
    os.environ["DM_DISABLE_UDEV"] = "1"  # nobody makes the device's file but dmsetup
    a_backed_up_node(DEST)
    kit.run("modprobe", "-a", "dm-mirror", "nbd")
    os.makedirs(THERE)


@kit.case
def a_file_and_another_ones_name_are_refused():
    refused(2, "restore", DEST, "/mnt/store/file", "--instant", "shop")
    refused(2, "restore", DEST, BACK, "--instant", "a/b", "--scratch", "/mnt/store")
    kit.run("dmsetup", "create", "shop", "--table", "0 8 zero")
    refused(8, *RESTORE)
    kit.run("dmsetup", "remove", "shop")
    kit.check(not os.path.exists(OVERLAY))


@kit.case
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


@kit.case
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


@kit.case
def another_point_does_not_take_its_place():
    said = refused(8, "restore", DEST, kit.disk("state"), *RESTORE[3:])
    kit.check("shop" in said, said)


@kit.case
@kit.essential
def it_ends_as_the_target_alone():
    throttle(100)
    Restore().end()
    kit.check("linear" in kit.run("dmsetup", "table", "shop"))
    kit.check(not os.path.exists(OVERLAY), "the overlay is gone")
    kit.check(not glob.glob("/sys/block/nbd*/pid"), "nothing is served")
    has(SHOP, "first", "second")
    put("third")
    kit.run("dmsetup", "remove", "shop")
    has(BACK, "first", "second", "third")
    kit.run("e2fsck", "-fn", BACK)


@kit.case
def a_left_overlay_of_another_point_is_refused():
    good("backup", "data", DEST)
    kit.run("qemu-img", "create", "-q", "-f", "qcow2", "-b", f"{DEST}/0001-full.qcow2", "-F", "qcow2", OVERLAY)
    said = refused(6, *RESTORE)
    kit.check("another point" in said, said)
    os.unlink(OVERLAY)


if __name__ == "__main__":
    kit.main()
