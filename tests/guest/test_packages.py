#!/usr/bin/env python3
"""The Debian packages on a Debian of its own: installed, restarted, with a newer kernel, replaced, removed.

The packages are installed, and dkms builds for each kernel, while the machine is off: an emulated CPU takes
long for a compiler. All else happens on the running machine, as its administrator would have it.
"""

import glob
import json
import os
import re
import threading

import kit
import tool
from kit import case, check, equal, essential, run

GUEST = {
    "machine": "installed",
    "disks": ["data:256M", "dest:256M"],
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
MOUNT = "/mnt/data"
PACKAGES = ("snbf-dkms", "snbf", "libsnbf0", "libsnbf-dev")
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


def doctor_is_content():
    for words in ((), (DISK,)):
        findings = json.loads(tool.tool("doctor", *words, "--json")[1])["findings"]
        bad = [one for one in findings if one["grade"] == "bad"]
        equal(bad, [], "what the doctor finds")


def mount_node():
    os.makedirs(MOUNT, exist_ok=True)
    run("mount", "/dev/snbf/snbf0", MOUNT)


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
def the_doctor_finds_nothing_bad():
    doctor_is_content()


@case(boot="installed")
@essential
def a_node_is_attached_and_backed_up():
    run("mkfs.ext4", "-q", DISK)
    tool.good("attach", DISK, "--name", "data", "--minor", "0", "--start")
    mount_node()
    write("one")
    run("mkfs.ext4", "-q", "/dev/disk/by-id/virtio-dest")
    os.makedirs("/mnt/dest", exist_ok=True)
    run("mount", "/dev/disk/by-id/virtio-dest", "/mnt/dest")
    tool.good("backup", "data", "/mnt/dest/data")
    write("two")
    check(0 < len(changed()) < 4096, len(changed()))


@case(boot="newer")
@essential
def the_newer_kernel_has_its_own_driver():
    check(release().startswith("6.12."), release())
    comes_up()
    equal(len(re.findall("installed", run("dkms status"))), 2, run("dkms status"))


@case(boot="newer")
@essential
def the_node_is_used_again():
    doctor_is_content()
    if not kit.minors():
        tool.good("attach", DISK, "--name", "data", "--minor", "0", "--start")
    mount_node()


@case(boot="newer")
def the_bitmaps_have_come_through_the_shutdown():
    check(0 < len(changed()) < 4096, f"{len(changed())} of 4096 extents are marked")
    os.makedirs("/mnt/dest", exist_ok=True)
    run("mount", "/dev/disk/by-id/virtio-dest", "/mnt/dest")
    tool.good("backup", "data", "/mnt/dest/data")
    with open("/mnt/dest/data/manifest.json", encoding="ascii") as text:
        equal([point["level"] for point in json.load(text)["points"]], ["full", "incr"])


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
        print(run("dpkg", "-i", *debs))
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
    said = run("dpkg", "--remove", "libsnbf-dev", "snbf")
    check(kit.loaded() and kit.info(0).started, said)
    write("after")
    check(glob.glob(f"{FOLDER}/snbf0.*"), "the maps are there until the purge")
    debs = [f"/var/tmp/{name}.deb" for name in PACKAGES if name not in ("snbf-dkms", "libsnbf0")]
    run("dpkg", "-i", *debs)


if __name__ == "__main__":
    kit.main()
