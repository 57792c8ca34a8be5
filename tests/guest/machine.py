"""A machine for the tests: a disk with a stock Debian, booted by QEMU with systemd as its first process.

guest.py borrows this computer's root and needs no boot to speak of; what a package does to a system, and
what becomes of a node from boot to boot, takes a system. Two images are kept below build/machine:

    base       the Debian alone; made by machine_image, anew when its recipe has changed
    installed  base with the packages of `make deb`, by apt

A boot takes kernel and initramfs from /boot of the disk, as a boot loader would: the newest that is there.
What would take an emulated CPU too long, the builds that dkms makes, is done in a chroot on the image.
Jobs are run, and followed, as in the other guests; this computer's root is /run/host there. A job's end
shuts the machine down, as an administrator would; that it wants to be cut off ends it at once.
"""

import fcntl
import glob
import hashlib
import os
import shutil
import subprocess

import guest

FOLDER = os.path.join(guest.BUILD, "machine")
PACKAGES = os.path.join(guest.BUILD, "deb")
HOST = "/run/host"


def digest(*paths):
    seed = hashlib.sha256()
    for path in paths:
        with open(path, "rb") as text:
            seed.update(text.read())
    return seed.hexdigest()


def made(name, origin, make):
    """The image `name`, made by make(path) unless it is there and of that origin."""
    image = os.path.join(FOLDER, name + ".img")
    os.makedirs(FOLDER, exist_ok=True)
    with open(os.path.join(FOLDER, name + ".lock"), "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        stamp = image + ".origin"
        if os.path.exists(stamp):
            with open(stamp, encoding="ascii") as text:
                if text.read() == origin:
                    return image
            os.unlink(stamp)
        make(image)
        with open(stamp, "w", encoding="ascii") as out:
            out.write(origin)
    return image


def logged(name, *command, **more):
    """Runs a program; HarnessError with the end of what it said if it fails."""
    path = os.path.join(FOLDER, name + ".log")
    with open(path, "w+", encoding="utf-8", errors="replace") as log:
        if subprocess.run(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, check=False,
                          **more).returncode != 0:
            log.seek(0)
            raise guest.HarnessError(f"{' '.join(command)[:200]}\n{log.read()[-4000:]}")
    return path


def base():
    recipe = [os.path.join(guest.HERE, "machine_image"), os.path.join(guest.HERE, "machine_image.hook")]
    return made("base", digest(*recipe), lambda image: logged("base", recipe[0], image))


def copy(source, target):
    subprocess.run(["cp", "--sparse=always", "--reflink=auto", source, target], check=True)


# Nothing may start in a chroot, and the tools that ask for the running kernel are given the image's.
CHROOT = """set -eu
root=$1; shift
mount "$1" "$root"; shift
mount -t proc proc "$root/proc"
mount -t devtmpfs dev "$root/dev"
mkdir -p "$root/run/packages"
[ -z "$1" ] || mount --bind -o ro "$1" "$root/run/packages"; shift
printf '#!/bin/sh\\nexit 101\\n' > "$root/usr/sbin/policy-rc.d"
chmod 755 "$root/usr/sbin/policy-rc.d"
status=0
env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
  chroot "$root" sh -euc "$1" || status=$?
rm "$root/usr/sbin/policy-rc.d"
umount -R "$root"
exit $status
"""


def chroot(image, name, job, packages=""):
    """Runs shell text as root in the system of an image that is not booted; the folder of packages is
    /run/packages there. Answers the path of its output."""
    root = image + ".root"
    os.makedirs(root, exist_ok=True)
    try:
        return logged(name, "unshare", "--mount", "--pid", "--fork", "sh", "-c", CHROOT, "chroot", root, image,
                      packages, job)
    finally:
        os.rmdir(root)


def debs():
    """The packages of this tree, built if they are not; once, however many tests ask at a time."""
    os.makedirs(FOLDER, exist_ok=True)
    with open(os.path.join(FOLDER, "deb.lock"), "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        logged("deb", os.path.join(guest.TOP, "packaging", "deb"), PACKAGES)
    return sorted(glob.glob(os.path.join(PACKAGES, "*.deb")))


INSTALL = "apt-get -q -y --no-install-recommends install /run/packages/*.deb"


def installed():
    system = base()
    packages = debs()

    def make(image):
        copy(system, image)
        chroot(image, "installed", INSTALL, PACKAGES)
    return made("installed", digest(system + ".origin", *packages), make)


IMAGES = {"base": base, "installed": installed}


class Kernel(guest.Kernel):
    """The newest kernel of an image, as a boot loader finds it."""
    host = HOST
    powers_off = True

    def __init__(self, image, folder):
        self.folder = folder
        os.makedirs(folder, exist_ok=True)
        names = [line.split("/")[5] for line in self.debugfs(image, "ls -p /boot").splitlines() if line.count("/") > 5]
        versions = [name[len("vmlinuz-"):] for name in names if name.startswith("vmlinuz-")]
        super().__init__(max(versions, key=guest.version_key), "/")
        for name in ("vmlinuz-", "initrd.img-"):
            self.debugfs(image, f"dump /boot/{name}{self.version} {folder}/{name}{self.version}")

    @staticmethod
    def debugfs(image, request):
        # After a power cut its journal is not replayed, and debugfs would stumble over its bitmaps: -c passes over them.
        return subprocess.run(["debugfs", "-c", "-R", request, image], check=True, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout

    @property
    def image(self):
        return os.path.join(self.folder, "vmlinuz-" + self.version)

    def initramfs(self):
        return os.path.join(self.folder, "initrd.img-" + self.version)


def build_agent(folder):
    """The program that the image's service runs: the first process of the other guests."""
    subprocess.run(["gcc", "-O2", "-Wall", "-Wextra", "-Werror", "-static", "-o", os.path.join(folder, "agent"),
                    os.path.join(guest.HERE, "init.c")], check=True)


def run(name, job, image="installed", disks=(), fresh=True, words=(), **more):
    """guest.run on a copy of an image, which is the disk `root`; with fresh=False on the one of the last run."""
    folder = os.path.join(guest.BUILD, "guest", name)
    root = os.path.join(folder, "root.img")
    if fresh:
        source = IMAGES[image]()
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(folder)
        build_agent(folder)
        copy(source, root)
    disks = [guest.Disk("root", root)] + [
        disk if isinstance(disk, guest.Disk) else guest.Disk.parse(disk, folder) for disk in disks]
    return guest.run(name, job, disks, kernel=Kernel(root, os.path.join(folder, "boot")), fresh=False,
                     words=["root=LABEL=root", "rw", "systemd.show_status=0",
                            "systemd.mask=e2scrub_reap.service", *words], **more)
