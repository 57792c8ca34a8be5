#!/usr/bin/env python3
"""The Debian packages on a Debian of its own, through docs/first-day.md: installed, used, restarted with a newer
kernel, replaced, removed, purged.

The packages are installed, and dkms builds for each kernel, while the machine is off: an emulated CPU takes
long for a compiler. All else happens on the running machine, as its administrator would have it.
"""

import glob
import os
import re
import threading

import kit
import story
import tool
from kit import case, check, equal, essential, run

GUEST = {
    "machine": "installed",
    "disks": ["data:160M", "dest:400M", "new:160M"],
    "boots": ["installed", "newer"],
    "chroot": {"newer": ". /etc/os-release; apt-get -q -y --no-install-recommends "
                        "-t $VERSION_CODENAME-backports install linux-image-amd64 linux-headers-amd64"},
    "limit": 400,
    "minutes": 5,
    "kernels": "installed",
}

tool.TOOL = "/usr/bin/snbf"
DISK = "/dev/disk/by-id/virtio-data"
FOLDER = "/var/lib/snbf"
MOUNT = "/srv/shop"
PAPER = story.of("first-day.md")
PACKAGES = ("snbf-dkms", "snbf", "libsnbf0", "libsnbf-dev")
# What the triggers do, a new initramfs for each kernel, takes an emulated CPU long: that they are set off is enough.
DPKG = ("dpkg", "--no-triggers")
DEBS = os.path.join(os.environ.get("SNBF_BUILD", ""), "deb")

def release():
    return os.uname().release


def comes_up():
    """That the machine is up with no unit failed, and the driver with it, by itself."""
    state = run("systemctl", "is-system-running", "--wait", ok=False).strip()
    equal(state, "running", run("systemctl", "--failed", "--no-pager", ok=False))
    check(kit.loaded(), "the driver is not loaded")
    check(os.path.exists(kit.CONTROL))
    path = run("modinfo", "-F", "filename", "snbf").strip()
    check(path.startswith(f"/lib/modules/{release()}/updates/dkms/snbf.ko"), path)
    check(run("modinfo", "-F", "signer", "snbf").strip() != "", "dkms has not signed the module")


def write(name, size=kit.MIB):
    with open(f"{MOUNT}/{name}", "wb") as out:
        out.write(os.urandom(size))
        out.flush()
        os.fsync(out.fileno())


def changed():
    return kit.marked(0, kit.INCR)


@case(boot="installed")
@essential
def the_driver_is_there_after_the_first_boot():
    check(release().startswith("6.1."), release())
    comes_up()
    check(re.search(rf"snbf/.*{re.escape(release())}.*installed", run("dkms status")), run("dkms status"))


@case(boot="installed")
@essential
def the_machine_of_the_paper_is_there():
    run("mkfs.ext4", "-q", "-L", "shop", DISK)
    equal(os.path.realpath(DISK), "/dev/vdb", "the paper's name of it")
    os.makedirs("/srv/shop")
    os.makedirs("/backups")
    run("mkfs.ext4", "-q", "-L", "backups", "/dev/disk/by-id/virtio-dest")
    with open("/etc/fstab", "a", encoding="ascii") as fstab:
        fstab.write("LABEL=backups /backups ext4 defaults 0 2\n")
    run("systemctl", "daemon-reload")
    run("mount", "/backups")
    run("mount", DISK, "/srv/shop")
    run("cp", "-r", "/usr/share/common-licenses", "/srv/shop")
    run("umount", "/srv/shop")


@case(boot="installed")
@essential
def its_first_part_goes_as_it_says():
    PAPER.tell("Morning", "Put the node", "The first backup", "Noon", "When something")


@case(boot="newer")
@essential
def the_newer_kernel_has_its_own_driver():
    check(release().startswith("6.12."), release())
    comes_up()
    equal(len(re.findall("installed", run("dkms status"))), 2, run("dkms status"))


@case(boot="newer")
@essential
def its_second_part_goes_as_it_says():
    PAPER.tell("Another day", "The disk is lost")


def replacement(package):
    """The package as of a later version, which is all that tells it from the one that is installed."""
    [deb] = glob.glob(f"{DEBS}/{package}_*.deb")
    tree = f"/var/tmp/{package}"
    run("dpkg-deb", "-R", deb, tree)
    run("sed", "-i", "s/^Version: .*/&+1/; s/(= \\([0-9.]*\\))/(= \\1+1)/", f"{tree}/DEBIAN/control")
    run("dpkg-deb", "-Znone", "-b", tree, f"{tree}.deb")
    run("rm", "-rf", tree)
    return f"{tree}.deb"


@case(boot="newer")
def a_later_package_does_not_touch_a_node_in_use():
    # The module's package too, if there is the time for its compiler.
    names = [name for name in PACKAGES if name != "snbf-dkms" or os.environ.get("SNBF_LONG")]
    debs = [replacement(name) for name in names]
    began = changed()
    ended = threading.Event()
    failures = []

    def keep_writing():
        at = 0
        while not ended.is_set():
            try:
                write(f"busy{at % 8}", 256 * kit.KIB)
            except OSError as error:
                failures.append(error)
                return
            at += 1
            ended.wait(0.2)
    writer = threading.Thread(target=keep_writing)
    writer.start()
    log = kit.KernelLog()
    try:
        print(run(*DPKG, "-i", *debs))
    finally:
        ended.set()
        writer.join()
    equal(failures, [])
    node = kit.info(0)
    check(node.started and node.use_cnt > 0, "the node is still in use")
    check(began < changed(), "what was marked is marked, and what was written meanwhile")
    equal([text for text in log.texts() if "error" in text.lower()], [])
    equal(run("systemctl", "is-active", "snbf-stop.service").strip(), "active")
    check("+1" in run("dpkg-query", "-W", "snbf"))


@case(boot="newer")
def a_removed_package_leaves_a_node_in_use_its_driver():
    said = run(*DPKG, "--remove", "libsnbf-dev", "snbf")
    check(kit.loaded() and kit.info(0).started, said)
    write("after")
    check(glob.glob(f"{FOLDER}/snbf0.*"), "the maps are there until the purge")
    debs = [f"/var/tmp/{name}.deb" for name in PACKAGES if name not in ("snbf-dkms", "libsnbf0")]
    run(*DPKG, "-i", *debs)


def traces():
    """The files that have the project's name, or lie in a folder that has: where software is kept, not who wrote of it."""
    found = run("find", "/etc", "/usr", "/lib", "/var/lib", "/run", "/boot", "/tmp", "/var/tmp", "-xdev", "-path", "*snbf*")
    # What systemd and fsck remember of this boot, in memory, goes with it.
    others = ("/run/host", "/run/packages", "/run/fsck", "/run/systemd")
    return [path for path in found.splitlines() if not path.startswith(others)]


@case(boot="newer")
def a_purge_leaves_nothing_behind():
    PAPER.tell("And away with it")
    run("umount", MOUNT)
    run("snbf", "attach", DISK, "--name", "data", "--start")
    run("udevadm", "settle")
    print(run(*DPKG, "--remove", "libsnbf-dev", "snbf"))
    equal(kit.minors(), [], "a node that nobody uses goes with the tool")
    records = f"{FOLDER}/data.nbd-0123456789abcdef"
    os.makedirs(records)
    for path in (f"{records}/manifest.json", f"{records}/0001.skipped", f"{records}/.lock", f"{FOLDER}/shop.instant.qcow2",
                 f"{FOLDER}/shop.instant.whole"):
        with open(path, "wb") as out:
            out.write(b"x")
    print(run(*DPKG, "--purge", *PACKAGES))
    check(not kit.loaded(), "the driver is loaded")
    check("snbf" not in run("dkms", "status"), run("dkms", "status"))
    check("update-initramfs" in run("dpkg-query", "-W", "-f", "${db:Status-Status} ${Triggers-Pending}", "initramfs-tools"))
    run("rm", "-rf", *glob.glob("/var/tmp/*.deb"))
    equal(traces(), [], "what a purge leaves")


if __name__ == "__main__":
    kit.main()
