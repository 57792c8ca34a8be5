"""The command-line tool, as the guest tests call it."""

import hashlib
import json
import os
import subprocess

import kit

TOOL = os.path.join(os.environ.get("SNBF_BUILD", ""), "snbf")


def tool(*words):
    """(exit status, stdout, stderr) of the tool."""
    found = subprocess.run([TOOL, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                           stdin=subprocess.DEVNULL, check=False)
    print(f"$ snbf {' '.join(words)}\n{found.stdout}{found.stderr}status {found.returncode}")
    return found.returncode, found.stdout, found.stderr


def good(*words):
    """Its stdout; it must succeed."""
    status, out, err = tool(*words)
    kit.check(status == 0, f"snbf {' '.join(words)}: status {status}: {err}")
    return out


def answer(*words):
    return json.loads(good(*words, "--json"))


def refused(wanted, *words):
    """All that it said; it must refuse with that status, and say why."""
    status, out, err = tool(*words)
    kit.equal(status, wanted, f"status of snbf {' '.join(words)} ({err})")
    kit.check(err.strip() != "", "a refusal says why")
    return out + err


def write(device, first, count, unit=64 * kit.KIB):
    """Random bytes, synced, in `count` units from that one on."""
    fd = os.open(device, os.O_WRONLY)
    for number in range(first, first + count):
        os.pwrite(fd, os.urandom(unit), number * unit)
    os.fsync(fd)
    os.close(fd)


def a_backed_up_node(dest):
    """The driver, the node "data" over the disk a with one full backup in `dest`, and its snap "monday"."""
    kit.state_folder()
    kit.state_folder("store")
    kit.load()
    kit.run("mkfs.ext4", "-q", "-F", kit.disk("a"))
    good("attach", kit.disk("a"), "--name", "data", "--bitmaps", "/mnt/state", "--start")
    good("backup", "data", dest)
    good("snap", "create", "data", "--name", "monday", "--cow", "/mnt/store/cow")


def holds(dest, restored, device):
    """That a disk has what the newest point of `dest` promises of the device: its bytes, and zeros in what
    the point has left out."""
    with open(f"{dest}/manifest.json", encoding="ascii") as text:
        manifest = json.load(text)
    size, unit, name = manifest["size"], manifest["extent_size"], manifest["points"][-1]["skipped_file"]
    skipped = set()
    if name:
        with open(f"{dest}/{name}", "rb") as bits:
            skipped = kit.extents(bits.read(), -(-size // unit))
    with open(restored, "rb") as one, open(device, "rb") as other:
        for extent in range(-(-size // unit)):
            found, wanted = one.read(unit), other.read(unit)
            if extent in skipped:
                wanted = bytes(len(wanted))
            kit.check(found == wanted, f"extent {extent}, {'left out' if extent in skipped else 'copied'}")


def tree_of(folder):
    """Every path below it, with what is in it."""
    found = {}
    for here, folders, files in os.walk(folder):
        for name in folders + files:
            path = os.path.join(here, name)
            about = os.lstat(path)
            contents = os.readlink(path) if os.path.islink(path) else ""
            if name in files and not contents:
                with open(path, "rb") as data:
                    contents = hashlib.sha256(data.read()).hexdigest()
            found[os.path.relpath(path, folder)] = (about.st_mode, about.st_uid, about.st_size, contents)
    return found
