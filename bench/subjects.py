"""What is measured: the bare device, device-mapper's targets and the filter node on a backing.

A subject is created with nothing marked, copied or mapped apart; `renew()` brings it back there.
"""

import fcntl
import os
import struct

import workloads
from backings import null_disk, remove_null_disk, run

VOLUME_SECTORS = workloads.VOLUME_MIB * 2048


class Subject:
    """The bare device: the yardstick."""

    name = "raw"
    tracks = False  # a first touch does something that a rewrite does not
    touches = workloads.FIRST_TOUCHES
    sequence_mib = workloads.REGION_MIB

    def __init__(self, backing):
        self.backing = backing
        self.device = backing.volume

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
            run("dmsetup", "suspend", "--noudevsync", "origin")
            self.create(f"snap{number}", f"0 {VOLUME_SECTORS} snapshot {self.backing.volume} "
                                         f"{part} P {self.chunk_kib * 2}")
            run("dmsetup", "resume", "--noudevsync", "origin")
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


class Filter(Subject):
    """A filter node over the volume; its bitmap files lie on an ext4 file system on the store."""

    tracks = True
    CONTROL = "/dev/snbf/control"
    FOLDER = "/mnt/store"
    ADD_FILTER_NODE, DEL_NODE = 0xc8b04301, 0x40044303
    START_NODE, STOP_NODE, CLR_BMP = 0x40044304, 0x40044305, 0x4008430a
    BITMAPS = (0, 1)

    def __init__(self, backing, module, name="snbf", parameters=("snbf_debug=0",), volume=None):
        super().__init__(backing)
        self.name = name
        run("insmod", module, *parameters)
        run("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", backing.meta)
        os.makedirs(self.FOLDER, exist_ok=True)
        run("mount", backing.meta, self.FOLDER)
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

    def command(self, number, *words):
        fcntl.ioctl(self.control, number, struct.pack(f"<{1 + len(words)}I", self.minor, *words))

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
