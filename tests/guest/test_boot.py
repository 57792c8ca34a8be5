"""Nodes that come up by themselves on a Debian of its own: one over a partition with a file system of fstab, one
over the root; from boot to boot, with a partition that is missing, and after a power cut."""

import json
import os
import struct

import kit
import tool
from kit import INCR, MIB, case, check, equal, essential, run
from tool import answer, good

GUEST = {
    "machine": "installed",
    "disks": ["data:128M", "maps:64M"],
    "boots": ["configured", "first", "second!", "cut"],
    "long_boots": ["newer"],
    "chroot": {"first": "update-initramfs -u",
               "newer": ". /etc/os-release; apt-get -q -y --no-install-recommends "
                        "-t $VERSION_CODENAME-backports install linux-image-amd64 linux-headers-amd64"},
    # Emulated, everything takes long; what is to be waited for in vain says so itself.
    "words": ["systemd.default_timeout_start_sec=900", "systemd.default_device_timeout_sec=900"],
    "limit": 400,
    "minutes": 5,
    "kernels": "installed",
}

tool.TOOL = "/usr/bin/snbf"
DATA = "/dev/disk/by-id/virtio-data-part1"
ROOT = "/dev/disk/by-id/virtio-root"
MAPS = "/dev/disk/by-id/virtio-maps"
EARLY = "/run/initramfs/snbf/snbf"
CHAIN = "/var/backups/data"
NODES = "/etc/snbf/nodes"


def divide(disk, size_mib):
    """One partition, in a table of the old kind: there is no program for it on the machine."""
    entry = struct.pack("<BBBBBBBBII", 0, 0, 0, 0, 0x83, 0, 0, 0, 2048, size_mib * 2048)
    with open(disk, "r+b") as device:
        device.seek(440)
        device.write(struct.pack("<IH", 0x5EED5EED, 0) + entry + bytes(48) + b"\x55\xaa")
    run("udevadm", "settle")  # udev has looked into it since, and a disk that is open keeps its old table
    kit.wait_until(lambda: not run("blockdev", "--rereadpt", disk, ok=False), what="the new table")
    run("udevadm", "settle")


def device_of(path):
    return os.stat(path).st_rdev


def device_below(mount):
    return os.stat(mount).st_dev


def file_of(name):
    return answer("status", name)["device"]


def minor_of(name):
    return answer("status", name)["minor"]


def write(path):
    with open(path, "wb") as out:
        out.write(os.urandom(MIB))
        out.flush()
        os.fsync(out.fileno())


def comes_up(wanted="running"):
    state = run("systemctl", "is-system-running", "--wait", ok=False).strip()
    equal(state, wanted, run("systemctl", "--failed", "--no-pager", ok=False))
    print(run("systemd-analyze", ok=False), run("systemd-analyze", "critical-chain", "local-fs.target", "--no-pager",
                                                ok=False), sep="")


def both_are_mounted():
    equal(device_below("/srv/data"), device_of(file_of("data")), "what /srv/data is on")
    equal(device_below("/"), device_of(file_of("root")), "what the root is on")


def share_of(name):
    """Of its extents, how many are marked."""
    minor = minor_of(name)
    return len(kit.marked(minor, INCR)) / kit.info(minor).extent_cnt


def trust_the_root():
    """As a full backup of it does, which would take long: its bitmaps begin anew, and are believed."""
    path = f"{EARLY}/snbf{minor_of('root')}.state"
    with open(path, encoding="ascii") as text:
        lines = ["distrust=\n" if line.startswith("distrust=") else line for line in text]
    with open(path, "w", encoding="ascii") as text:
        text.writelines(lines)
    for kind in kit.BITMAPS:
        kit.done(kit.bmp_select("CLR_BMP", minor_of("root"), kind), "clear")


@case(boot="configured")
@essential
def a_partition_and_the_root_are_configured():
    divide("/dev/disk/by-id/virtio-data", 100)
    run("mkfs.ext4", "-q", "-L", "shop", DATA)
    run("mkfs.ext4", "-q", MAPS)
    run("udevadm", "settle")
    good("attach", os.path.realpath(DATA), "--name", "data", "--start", "--at-boot")
    os.makedirs("/srv/data", exist_ok=True)
    with open("/etc/fstab", "a", encoding="ascii") as fstab:
        fstab.write("/dev/snbf/data /srv/data ext4 defaults 0 2\n")
    run("systemctl", "daemon-reload")
    run("mount", "/srv/data")
    write("/srv/data/one")
    equal(answer("backup", "data", CHAIN)["level"], "full", "the first backup")
    write("/srv/data/two")
    check("update-initramfs" in tool.tool("attach", ROOT, "--name", "root", "--store", MAPS)[2])
    with open(NODES, encoding="ascii") as nodes:
        print(nodes.read())


@case(boot="configured")
def the_units_are_in_order():
    equal(run("systemctl", "is-active", "snbf-node@data.service").strip(), "active")
    said = run("systemd-analyze", "verify", "--man=no", "default.target", "shutdown.target", "snbf-node@data.service", ok=False)
    check("cycle" not in said and "snbf" not in said, said)


@case(boot="first")
@essential
def both_nodes_have_come_up_before_their_file_systems():
    comes_up()
    both_are_mounted()


@case(boot="first")
def by_uuid_and_by_label_are_the_nodes():
    run("udevadm", "settle")
    uuid = run("blkid", "-o", "value", "-s", "UUID", DATA).strip()
    for link in ("/dev/disk/by-label/shop", f"/dev/disk/by-uuid/{uuid}", "/dev/snbf/data"):
        equal(device_of(link), device_of(file_of("data")), link)
    check(os.path.exists(DATA), "the partition keeps its own names")


@case(boot="first")
def a_stopped_node_has_no_links():
    run("umount", "/srv/data")
    good("stop", "data")
    run("udevadm", "settle")
    for link in ("/dev/disk/by-label/shop", "/dev/snbf/data"):
        check(not os.path.lexists(link), link)
    good("start", "data")
    run("udevadm", "settle")
    run("mount", "/srv/data")
    both_are_mounted()


@case(boot="first")
def what_was_written_before_the_shutdown_is_in_the_next_backup():
    equal(answer("status", "data")["next_backup_full_because"], "", "why the next backup would be full")
    check(0 < share_of("data") < 0.2, f"{share_of('data')} of its extents are marked")
    equal(answer("backup", "data", CHAIN)["level"], "incr", "the backup")
    write("/srv/data/three")


@case(boot="first")
def the_root_is_tracked():
    equal(share_of("root"), 1, "at first everything counts as changed")
    trust_the_root()
    write("/root/written")
    run("sync")
    check(0 < share_of("root") < 0.2, f"{share_of('root')} of its extents are marked")


@case(boot="first")
def a_snap_stays_out_of_the_links():
    good("snap", "create", "data", "--name", "monday")
    run("udevadm", "settle")
    equal(device_of("/dev/disk/by-label/shop"), device_of("/dev/snbf/data"), "by-label")
    good("snap", "delete", "monday")


@case(boot="first")
def one_more_is_configured_whose_partition_is_gone():
    with open(NODES, "a", encoding="ascii") as nodes:
        nodes.write("gone PARTUUID=0bad0bad-01 /var/lib/snbf\nnot a line\n")
    unit = "/etc/systemd/system/dev-disk-by\\x2dpartuuid-0bad0bad\\x2d01.device.d"
    os.makedirs(unit)
    with open(f"{unit}/wait.conf", "w", encoding="ascii") as conf:
        conf.write("[Unit]\nJobRunningTimeoutSec=5\n")


@case(boot="second")
@essential
def the_boot_goes_on_without_it():
    comes_up("degraded")
    equal(run("systemctl", "list-units", "--failed", "--plain", "--no-legend").split()[0], "snbf-node@gone.service")
    said = run("journalctl", "-b", "-u", "snbf-node@gone.service", "--no-pager")
    check("gone: its partition PARTUUID=0bad0bad-01 is not there" in said, said)
    said = run("journalctl", "-b", "-k", "--no-pager")
    check(f"{NODES}, line 6: a is no partition" in said, said[-2000:])
    both_are_mounted()


@case(boot="second")
def the_bitmaps_of_both_have_come_through_the_shutdown():
    for name in ("data", "root"):
        check(0 < share_of(name) < 0.3, f"{name}: {share_of(name)} of its extents are marked")
    equal(answer("backup", "data", CHAIN)["level"], "incr", "the backup")


@case(boot="second")
def then_the_power_goes():
    write("/srv/data/four")
    write("/root/four")
    kit.crash()


@case(boot="cut")
@essential
def the_nodes_are_up_again():
    comes_up("degraded")
    both_are_mounted()


@case(boot="cut")
def all_counts_as_changed_and_they_say_why():
    for name in ("data", "root"):
        equal(share_of(name), 1, name)
    check(answer("status", "data")["next_backup_full_because"] in ("bitmap-dirty", "unclean-stop"), "why")
    point = answer("backup", "data", CHAIN)
    equal(point["level"], "full", "the backup")
    print(json.dumps(point))
    write("/srv/data/five")


@case(boot="newer")
def a_newer_kernel_takes_the_nodes_over():
    check(os.uname().release.startswith("6.12."), os.uname().release)
    comes_up("degraded")
    both_are_mounted()
    check(0 < share_of("data") < 0.2, f"{share_of('data')} of its extents are marked")
    equal(answer("backup", "data", CHAIN)["level"], "incr", "the backup")


if __name__ == "__main__":
    kit.main()
