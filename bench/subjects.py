"""What is measured: the bare device, device-mapper's targets and the filter node on a backing.

A subject is created with nothing marked, copied or mapped apart; `renew()` brings it back there.
"""

import fcntl
import os
import struct
import time

import workloads
from backings import null_disk, remove_null_disk, run

VOLUME_SECTORS = workloads.VOLUME_MIB * 2048


class Subject:
    """The bare device: the yardstick."""

    name = "raw"
    tracks = False  # a first touch does something that a rewrite does not
    touches = workloads.FIRST_TOUCHES
    touch_unit = workloads.EXTENT_BYTES  # what is copied or marked at once
    sequence_mib = workloads.REGION_MIB
    oldest = None  # device file of the oldest snapshot

    def __init__(self, backing):
        self.backing = backing
        self.device = backing.volume
        self.created_ms = []  # how long each snapshot took

    def renew(self):
        pass

    def remove(self):
        pass


class Mapped(Subject):
    """A device-mapper device that is made anew to renew it."""

    def __init__(self, backing):
        super().__init__(backing)
        self.made = []
        self.device = self.build()

    def build(self):
        raise NotImplementedError

    def create(self, name, table):
        run("dmsetup", "create", name, "--noudevsync", "--noudevrules", "--table", table)
        self.made.append(name)
        # By the kernel's own name: without udev nothing keeps /dev/mapper true.
        kernel_name = run("dmsetup", "info", "-c", "--noheadings", "-o", "blkdevname", name)
        return "/dev/" + kernel_name.strip()

    def renew(self):
        self.remove()
        self.device = self.build()

    def remove(self):
        while self.made:
            run("dmsetup", "remove", "--noudevsync", "--noudevrules", self.made.pop())


class Linear(Mapped):
    name = "dm-linear"

    def build(self):
        return self.create("linear", f"0 {VOLUME_SECTORS} linear {self.backing.volume} 0")


class Era(Mapped):
    name = "dm-era"
    tracks = True

    def __init__(self, backing, volume=None, sectors=VOLUME_SECTORS, meta=None):
        self.volume = volume or backing.volume
        self.meta = meta or backing.meta
        self.sectors = sectors
        super().__init__(backing)

    def build(self):
        workloads.wipe_front(self.meta)
        return self.create("era", f"0 {self.sectors} era {self.meta} {self.volume} "
                                  f"{workloads.EXTENT_BYTES >> 9}")


class Snapshots(Mapped):
    """An origin with N snapshots, each with a slice of the store: a first touch copies into all."""

    tracks = True

    def __init__(self, backing, chunk_kib, count):
        self.name = f"dm-snap-{chunk_kib}k-{count}"
        self.chunk_kib = chunk_kib
        self.touch_unit = chunk_kib << 10
        self.count = count
        # N copies of everything: less of it, for the store to hold it.
        self.touches = {1: 3200, 4: 1600, 16: 800}[count]
        self.sequence_mib = {1: workloads.REGION_MIB, 4: 160, 16: 48}[count]
        super().__init__(backing)

    def build(self):
        copied_mib = max(self.touches * workloads.EXTENT_BYTES // workloads.MIB, self.sequence_mib)
        tables = self.backing.slices(self.count, copied_mib + workloads.REWRITE_MIB + 24)
        origin = self.create("origin", f"0 {VOLUME_SECTORS} snapshot-origin {self.backing.volume}")
        for number, table in enumerate(tables):
            part = self.create(f"slice{number}", table)
            workloads.wipe_front(part)
            began = time.monotonic_ns()
            run("dmsetup", "suspend", "--noudevsync", "origin")
            snapshot = self.create(f"snap{number}",
                                   f"0 {VOLUME_SECTORS} snapshot {self.backing.volume} "
                                   f"{part} P {self.chunk_kib * 2}")
            run("dmsetup", "resume", "--noudevsync", "origin")
            self.created_ms.append((time.monotonic_ns() - began) / 1e6)
            if number == 0:
                self.oldest = snapshot
        return origin


class Thin(Mapped):
    """A provisioned thin volume with N snapshots in the pool."""

    tracks = True

    def __init__(self, backing, count):
        self.name = f"dm-thin-{count}"
        self.count = count
        super().__init__(backing)

    def build(self):
        pool_mib = 2 * workloads.VOLUME_MIB + 32
        workloads.wipe_front(self.backing.meta)
        data = self.create("data", self.backing.slices(1, pool_mib)[0])
        pool = self.create("pool", f"0 {pool_mib * 2048} thin-pool {self.backing.meta} {data} "
                                   f"{workloads.EXTENT_BYTES >> 9} 0")
        run("dmsetup", "message", "pool", "0", "create_thin 0")
        thin = self.create("thin", f"0 {VOLUME_SECTORS} thin {pool} 0")
        workloads.write_zeroes(thin, workloads.VOLUME_MIB)
        run("dmsetup", "suspend", "--noudevsync", "thin")
        for number in range(self.count):
            run("dmsetup", "message", "pool", "0", f"create_snap {number + 1} 0")
        run("dmsetup", "resume", "--noudevsync", "thin")
        return thin


def mount_new_ext4(device, folder, *size):
    """Lazy initialisation is off: it would go on while something is measured."""
    run("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", device, *size)
    run("mount", device, folder)


class Filter(Subject):
    """A filter node over the volume; its bitmap files lie on an ext4 file system on the store."""

    tracks = True
    CONTROL = "/dev/snbf/control"
    FOLDER = "/mnt/store"
    ADD_FILTER_NODE, DEL_NODE = 0xc8b04301, 0x40044303
    START_NODE, STOP_NODE, CLR_BMP = 0x40044304, 0x40044305, 0x4008430a
    ADD_SNAP_NODE, RESUME_SNAP = 0xc8b44302, 0x40104311
    BITMAPS = (0, 1)

    def __init__(self, backing, module, name="snbf", parameters=("snbf_debug=0",), volume=None):
        super().__init__(backing)
        self.name = name
        run("insmod", module, *parameters)
        os.makedirs(self.FOLDER, exist_ok=True)
        self.mount_folder()
        self.control = os.open(self.CONTROL, os.O_RDWR)
        volume = volume or backing.volume
        record = bytearray(struct.pack("<1024sii1024s39s128sx", volume.encode(), -1,
                                       workloads.EXTENT_BYTES, self.FOLDER.encode(), b"",
                                       name.encode()))
        fcntl.ioctl(self.control, self.ADD_FILTER_NODE, record)
        self.minor = struct.unpack_from("<i", record, 1024)[0]
        self.device = f"/dev/snbf/snbf{self.minor}"
        self.command(self.START_NODE)
        # As a mounted file system does: the bitmaps are saved when the last one lets go.
        self.opened = os.open(self.device, os.O_RDONLY)
        self.renew()

    def mount_folder(self):
        mount_new_ext4(self.backing.meta, self.FOLDER)

    def command(self, number, *words, minor=None):
        fcntl.ioctl(self.control, number, struct.pack(
            f"<{1 + len(words)}I", self.minor if minor is None else minor, *words))

    def add_snap(self, number, chunk_size):
        """A snap that is not started: its minor."""
        record = bytearray(struct.pack("<IiI1024s1024s39s128sx", self.minor, -1, chunk_size,
                                       f"{self.FOLDER}/cow{number}.bmp".encode(),
                                       f"{self.FOLDER}/cow{number}.data".encode(), b"", b""))
        fcntl.ioctl(self.control, self.ADD_SNAP_NODE, record)
        return struct.unpack_from("<i", record, 4)[0]

    def renew(self):
        for bitmap in self.BITMAPS:
            self.command(self.CLR_BMP, bitmap)

    def remove(self):
        os.close(self.opened)
        self.command(self.STOP_NODE)
        self.command(self.DEL_NODE)
        os.close(self.control)
        run("umount", self.FOLDER)
        run("rmmod", "snbf")


class Snaps(Filter):
    """A filter node with N started snaps; its files and theirs lie on ext4 on the store."""

    STORE_MIB = 900
    sequence_mib = 160

    def __init__(self, backing, module, chunk_kib, count):
        self.touch_unit = chunk_kib << 10
        self.count = count
        self.snaps = []
        super().__init__(backing, module, name=f"snbf-snap-{chunk_kib}k-{count}")

    def mount_folder(self):
        self.backing.slices(1, self.STORE_MIB)  # gives memory to it
        mount_new_ext4(self.backing.store, self.FOLDER, f"{self.STORE_MIB}M")

    def create(self, number):
        began = time.monotonic_ns()
        minor = self.add_snap(number, self.touch_unit)
        self.command(self.START_NODE, minor=minor)
        self.created_ms.append((time.monotonic_ns() - began) / 1e6)
        return minor

    def delete_snaps(self):
        for minor in self.snaps:  # the oldest first: the others would wait for it
            self.command(self.STOP_NODE, minor=minor)
            self.command(self.DEL_NODE, minor=minor)
        self.snaps = []

    def renew(self):
        super().renew()
        self.delete_snaps()
        self.snaps = [self.create(number) for number in range(self.count)]
        self.oldest = f"/dev/snbf/snbf{self.snaps[0]}"
        os.sync()

    def remove(self):
        self.delete_snaps()
        super().remove()


class Floor:
    """The file work of copies alone, on ext4 on the store as snaps have it."""

    FOLDER = Filter.FOLDER

    def __init__(self, backing, program, chunk_kib):
        self.name = f"floor-file-{chunk_kib}k"
        self.backing = backing
        self.program = program
        self.chunk = chunk_kib << 10
        backing.slices(1, Snaps.STORE_MIB)
        os.makedirs(self.FOLDER, exist_ok=True)
        mount_new_ext4(backing.store, self.FOLDER, f"{Snaps.STORE_MIB}M")

    def measure(self, workload):
        """((requests, ms), bytes that a user would have written)."""
        if workload == workloads.FIRST_SEQ:
            size = Snaps.sequence_mib * workloads.MIB
            units = size // self.chunk
            requests, group, count = size // (128 << 10), max(1, (128 << 10) // self.chunk), units
        else:
            units, count = 2 * workloads.FIRST_TOUCHES, workloads.FIRST_TOUCHES
            requests, group = count, int(workload.rpartition("qd")[2])
            size = 4096 * count
        took = run(self.program, self.FOLDER, *map(str, (self.chunk, group, count, units)))
        return (requests, int(took) / 1e6), size

    def remove(self):
        run("umount", self.FOLDER)


class CopiedSnap(Filter):
    """A filter node with a snap of 4 KiB chunks, resumed from files that call them all copied."""

    def __init__(self, backing, module, volume, sectors):
        super().__init__(backing, module, volume=volume)
        chunks = sectors // 8
        with open(f"{self.FOLDER}/cow0.bmp", "wb") as bitmap:
            for _ in range(0, chunks // 8, workloads.MIB):
                bitmap.write(b"\xff" * min(chunks // 8, workloads.MIB))
            os.fsync(bitmap.fileno())
        with open(f"{self.FOLDER}/cow0.data", "wb") as copies:
            copies.truncate(sectors * 512)
        os.sync()
        before = used_bytes()  # the store's own disk has memory for the files by now
        self.snap = self.add_snap(0, 4096)
        self.command(self.RESUME_SNAP, 1, 0, 0, minor=self.snap)
        self.held = used_bytes() - before

    def remove(self):
        self.command(self.STOP_NODE, minor=self.snap)
        self.command(self.DEL_NODE, minor=self.snap)
        super().remove()


def used_bytes():
    """All memory that is neither free nor a cache of files: for those who take whole pages."""
    with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as knob:
        knob.write("3")
    with open("/proc/meminfo", encoding="ascii") as lines:
        kib = {line.split(":")[0]: int(line.split()[1]) for line in lines}
    # Free pages that a CPU keeps at hand, some MiB after a large file has left the cache.
    with open("/proc/zoneinfo", encoding="ascii") as lines:
        at_hand = sum(int(line.split()[1]) for line in lines if line.split()[0] == "count:")
    taken = kib["MemTotal"] - kib["MemFree"] - kib["Cached"] - kib["Buffers"]
    return (taken << 10) - (at_hand << 12)


def held_bytes():
    """Kernel memory in slabs and in vmalloc space, but for what the kernel may drop at once."""
    with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as knob:
        knob.write("3")
    total = 0
    with open("/proc/meminfo", encoding="ascii") as lines:
        total += sum(int(line.split()[1]) << 10 for line in lines if line.startswith("Slab:"))
    with open("/proc/vmallocinfo", encoding="ascii") as lines:
        for line in lines:
            total += sum(int(word[6:]) << 12 for word in line.split() if word.startswith("pages="))
    return total


def copied_snap_per_tib(backing, module):
    """What the snap alone holds over 1 TiB, all of it copied, less the same over 1 GiB."""
    held = {}
    for gib in (1, 1, 1024):
        disk = null_disk("nullb9", size=gib << 10)
        subject = CopiedSnap(backing, module, disk, gib << 21)
        held[gib] = subject.held
        subject.remove()
        remove_null_disk(disk)
    return (held[1024] - held[1]) * 1024 // 1023


def bytes_per_tib(make):
    """What grows with the volume: make(disk, sectors) over 1 TiB less the same over 1 GiB.

    The first round only fills the kernel's caches, so that the others find them alike.
    """
    held = {}
    for gib in (1, 1, 1024):
        disk = null_disk("nullb9", size=gib << 10)
        before = held_bytes()
        subject = make(disk, gib << 21)
        held[gib] = held_bytes() - before
        subject.remove()
        remove_null_disk(disk)
    return (held[1024] - held[1]) * 1024 // 1023
