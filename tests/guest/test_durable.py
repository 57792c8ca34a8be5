"""What a writer of the node is told to be durable has reached the partition: each write that asks for it, and each flush,
whether it passed at once, was parked for the dirty flag or was held for a snap's copy. The log of a device beneath the
node (device-mapper's log-writes) tells; every prefix of it, and cuts that tear what a flush makes durable, are judged."""

import contextlib
import os
import random
import zlib

import images
import kit
import logged
import replay
import replay_files
from kit import KIB

GUEST = {"disks": ["base:32M", "log:1G", "state:48M"], "limit": 180}

SEED = 20261123
FILES = "/mnt/files"
TURNS = 3


class DurableWrites:
    """Files of a block, on a file system on node 0 over a logged device, each durable when a call here returns."""

    WAYS = {"passes": None, "is parked for the flag": "Appending dirty request", "is held for a copy": "COWing"}

    def __init__(self, device, snaps):
        self.device, self.snaps = device, snaps
        self.rng = random.Random(SEED)
        self.log = kit.KernelLog()
        self.snap = None
        # What is written over an old block in place needs nothing else: one write, which asks to be durable itself.
        with open(f"{FILES}/old", "wb") as file:
            file.write(bytes(4 * KIB))
        self.old = os.open(f"{FILES}/old", os.O_WRONLY | os.O_DIRECT | os.O_DSYNC)
        os.sync()

    def close(self):
        os.close(self.old)
        self.log.close()

    def prepare(self, way):
        """The next write to a block goes this way."""
        if way == "is parked for the flag":
            kit.clear(0)
        if way == "is held for a copy":
            if self.snap:
                kit.done(kit.stop(self.snap.minor), "stop")
            self.snap = self.snaps.start(b"", chunk_size=4 * KIB)
        self.log.texts()

    def write(self, way, name):
        self.prepare(way)
        data = self.rng.randbytes(4 * KIB)
        self.device.mark(f"going:{name}")
        if name == "old":
            with images.aligned(4 * KIB) as page:
                page[:] = data
                kit.equal(os.pwrite(self.old, page, 0), 4 * KIB, "write")
        else:
            with open(f"{FILES}/{name}", "wb", buffering=0) as file:
                file.write(data)
                os.fsync(file.fileno())
        self.device.mark(f"file:{name}:{zlib.crc32(data)}")
        line = self.WAYS[way]
        kit.check(not line or any(line in text for text in self.log.texts()), f"no write of {name!r} {way}")


@kit.case
def what_is_told_to_be_durable_is_in_every_log():
    kit.run("modprobe", "dm-log-writes")
    kit.load(snbf_debug=2)
    device = logged.Logged("durable", kit.disk("base"))
    with contextlib.ExitStack() as stack:
        stack.callback(device.remove)
        path, snaps = stack.enter_context(images.snapped(device.path, kit.state_folder(), extent_size=4 * KIB))
        kit.run("mkfs.ext4", "-q", *replay.Ext4.OPTIONS, path)
        os.makedirs(FILES, exist_ok=True)
        kit.run("mount", path, FILES)
        stack.callback(lambda: kit.run("umount", FILES))
        writes = stack.enter_context(contextlib.closing(DurableWrites(device, snaps)))
        device.mark("begin")
        for turn in range(TURNS):
            for number, way in enumerate(writes.WAYS):
                writes.write(way, "old")
                writes.write(way, f"new{turn}{number}")
        device.mark("end")
    kit.unload()
    logged.judge_now(replay_files.Judge(kit.size_of(kit.disk("base"))))


if __name__ == "__main__":
    kit.main()
