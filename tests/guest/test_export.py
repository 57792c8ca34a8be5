"""A snap over NBD: its bytes, the driver's own extents, and nothing left when it ends."""

import json
import os
import signal
import subprocess

import kit
from kit import KIB, MIB
from tool import TOOL, good, refused

GUEST = {"minutes": 1, "kernels": "installed", "disks": ["a:32M", "store:128M", "state:32M"], "limit": 200}

NODE = "/dev/snbf/snbf0"
WORK = "/mnt/work"
SOCKET = "/run/monday.sock"
URI = f"nbd+unix:///monday?socket={SOCKET}"


def put(path, data):
    with open(path, "wb") as out:
        out.write(data)


class Export:
    def __init__(self, *words):
        self.process = subprocess.Popen([TOOL, "export", "monday", "--nbd", SOCKET, *words],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        self.said = self.process.stdout.readline()

    def end(self, sent=signal.SIGTERM):
        self.process.send_signal(sent)
        return self.process.wait()


def pieces(context):
    return [(piece["offset"], piece["length"], piece["type"])
            for piece in json.loads(kit.run("nbdinfo", "--json", f"--map={context}", URI))]


@kit.case
@kit.essential
def a_snap_is_served_with_the_drivers_own_extents():
    kit.state_folder()
    kit.state_folder("store")
    kit.load()
    kit.run("mkfs.ext4", "-q", "-F", kit.disk("a"))
    good("attach", kit.disk("a"), "--name", "data", "--bitmaps", "/mnt/state", "--start")
    kit.clear(0)
    os.makedirs(WORK, exist_ok=True)
    kit.run("mount", NODE, WORK)
    put(f"{WORK}/file", os.urandom(MIB))
    os.sync()
    good("snap", "create", "data", "--name", "monday", "--cow", "/mnt/store/cow")
    kit.run("umount", WORK)  # from here on nobody writes
    served = Export("--bitmap", "incr", "--pid-file", "/run/export.pid")
    kit.equal(served.said.strip(), URI, "what it says when it is ready")
    with open("/run/export.pid", encoding="ascii") as text:
        kit.equal(int(text.read()), served.process.pid, "whom to end")
    marked = kit.marked(0, kit.INCR)
    dirty = set()
    for offset, length, kind in pieces("qemu:dirty-bitmap:incr"):
        if kind:
            dirty |= kit.covering(offset, length)
    kit.check(len(marked) >= MIB // (64 * KIB), f"{marked}")
    kit.equal(dirty, marked, "extents")
    kit.equal(sum(length for _, length, _ in pieces("base:allocation")), 32 * MIB, "allocation")
    refused(8, "export", "monday", "--nbd", SOCKET)
    refused(8, "snap", "delete", "monday")
    kit.run("nbdcopy", URI, "/mnt/store/copied")
    kit.run("cmp", "-n", str(32 * MIB), "/mnt/store/copied", "/dev/snbf/monday")
    kit.equal(served.end(), 0, "it ends well")
    left = [name for name in os.listdir("/run") if name.startswith("snbf-export")]
    kit.equal((left, os.path.exists(SOCKET), os.path.exists("/run/export.pid")), ([], False, False), "what it leaves")


@kit.case
def without_a_bitmap_the_snap_alone_is_served():
    served = Export("--json")
    rest = served.said + "".join(iter(served.process.stdout.readline, "}\n")) + "}"
    kit.equal(json.loads(rest)["uri"], URI, "JSON")
    kit.run("nbdcopy", URI, "/mnt/store/copied")
    kit.run("cmp", "-n", str(32 * MIB), "/mnt/store/copied", "/dev/snbf/monday")
    kit.equal(served.end(signal.SIGINT), 0, "it ends well")
    good("snap", "delete", "monday")


@kit.case
def what_cannot_be_served_is_refused():
    refused(1, "export", "monday", "--nbd", SOCKET)
    good("snap", "create", "data", "--name", "monday", "--cow", "/mnt/store/cow")
    put(SOCKET, b"")
    refused(1, "export", "monday", "--nbd", SOCKET)
    refused(1, "export", "monday", "--nbd", "/nowhere/sock")
    refused(2, "export", "monday", "--nbd", "/run/" + "long" * 40)
    refused(2, "export", "monday", "--nbd", SOCKET, "--bitmap", "both")
    refused(2, "export", "monday")
    os.unlink(SOCKET)
    good("snap", "delete", "monday")
    good("detach", "data")
    kit.unload()


if __name__ == "__main__":
    kit.main()
