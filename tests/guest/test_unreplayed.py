"""File systems that nobody unmounted: what a replay would still change is not believed. Their maps come back with
it; and a file system that is frozen for its snap has a map at once, however it is frozen."""

import os

import images
import kit
import mapper
from kit import KIB

GUEST = {"kernels": "installed", "disks": ["xfs4:310M", "xfs5:310M", "ext3:64M", "ext4:64M", "reiserfs:128M", "store:200M"],
         "boots": ["work!", "main"], "limit": 400, "allow": [r"reiserfs", r"REISERFS"]}

LOG = "has a log that is not replayed"
JOURNAL = "has a journal that is not replayed"
KINDS = {
    "xfs4": (["mkfs.xfs", "-q", "-f", "-m", "crc=0"], LOG),
    "xfs5": (["mkfs.xfs", "-q", "-f"], LOG),
    "ext3": (["mkfs.ext3", "-q", "-F"], JOURNAL),
    "ext4": (["mkfs.ext4", "-q", "-F"], JOURNAL),
    "reiserfs": (["mkfs.reiserfs", "-q", "-f"], JOURNAL),
}

store = ""


def mounted(device, name):
    mount_point = f"/mnt/{name}"
    os.makedirs(mount_point, exist_ok=True)
    kit.run("mount", device, mount_point)
    return mount_point


def work(folder, stem="file", count=24):
    for number in range(count):
        with open(f"{folder}/{stem}{number}", "wb") as out:
            out.write(os.urandom(number * KIB))
            os.fsync(out.fileno())
        if number % 3 == 0:
            os.unlink(f"{folder}/{stem}{number}")


def has_map(snaps):
    """Of a snap that is started now."""
    minor = snaps.add(chunk_size=4096)
    kit.done(kit.start(minor), "start")
    used, count = len(kit.used_chunks(minor)), kit.info(minor).chunk_cnt
    kit.done(kit.stop(minor), "stop")
    kit.check(used == count or used * 2 < count, f"{used} of {count} chunks called used")
    return used < count


@kit.case(boot="work")
def the_power_is_cut_while_they_are_written():
    for name, (tool, _) in KINDS.items():
        kit.run(*tool, kit.disk(name))
        work(mounted(kit.disk(name), name))
    kit.crash()


@kit.case(boot="main")
@kit.essential
def the_module_loads():
    global store
    store = kit.state_folder("store")
    kit.load(snbf_debug=1)


def register(name, why):
    def body():
        log = kit.KernelLog()
        with images.snapped(kit.disk(name), store) as (path, snaps):
            kit.check(not has_map(snaps), "a map before the replay")
            log.expect(f"{why}{'' if name == 'reiserfs' else ' (features '}", kit.INFO_LEVEL)
            mounted(path, name)
            kit.run("umount", f"/mnt/{name}")
            kit.check(has_map(snaps), "no map after the replay")
    body.__name__ = f"no_map_of_{name}_before_its_replay"
    kit.case(body, boot="main")


for _name, (_, _why) in KINDS.items():
    register(_name, _why)


@kit.case(boot="main")
def an_xfs_that_is_at_work_above_another_device_is_not_frozen():
    log = kit.KernelLog()
    with images.snapped(kit.disk("xfs5"), store) as (path, snaps):
        above = mapper.Mapped("above", path)
        try:
            folder = mounted(above.path, "xfs5")
            work(folder, "above")
            kit.check(not has_map(snaps), "a map of a file system at work")
            log.expect(LOG, kit.INFO_LEVEL)
            kit.run("xfs_freeze", "-f", folder)
            try:
                kit.check(has_map(snaps), "no map while it is frozen by hand")
            finally:
                kit.run("xfs_freeze", "-u", folder)
            kit.run("umount", folder)
        finally:
            above.remove()


@kit.case(boot="main")
def an_xfs_that_is_frozen_by_hand_has_its_map():
    for name in ("xfs4", "xfs5"):
        with images.snapped(kit.disk(name), store) as (path, snaps):
            folder = mounted(path, name)
            work(folder, "again")
            kit.check(has_map(snaps), f"{name}: no map of a file system at work")
            kit.run("xfs_freeze", "-f", folder)
            try:
                kit.check(has_map(snaps), f"{name}: no map while it is frozen by hand")
            finally:
                kit.run("xfs_freeze", "-u", folder)
            kit.run("umount", folder)


if __name__ == "__main__":
    kit.main()
