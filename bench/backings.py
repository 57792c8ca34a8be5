"""What the subjects stand on: a volume that is measured, and a store for what they keep beside it.

"brd" is RAM disks: a request costs instructions and no time. "lat" is null_blk with memory behind
it, each request completed 100 us after it came, any number at once: it shows what waits for what.
"""

import contextlib
import os
import subprocess
import time

import workloads

STORE_MIB = 3072
META_MIB = 64  # the store's front, for metadata and a file system; the slices lie behind it
VOLUME_START = 2048  # sectors
LATENCY_NS = 100_000
NULL_DISKS = "/sys/kernel/config/nullb"


def run(*command):
    done = subprocess.run(command, check=False, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"{command}: {done.returncode}: {done.stderr}{done.stdout}")
    return done.stdout


class Backing:
    """Disks are partitioned in the kernel's memory only: nothing writes or scans a table."""

    def __init__(self, name, volume_disk, store_disk):
        self.name = name
        self.disks = (volume_disk, store_disk)
        self.slow = name == "lat"
        self.volume = self.partition(volume_disk, 1, VOLUME_START, workloads.VOLUME_MIB)
        self.meta = self.partition(store_disk, 1, 2048, META_MIB)
        self.store = self.partition(store_disk, 2, 2048 * (META_MIB + 1), STORE_MIB - META_MIB - 2)
        self.touched_mib = 0
        workloads.write_zeroes(self.volume, workloads.VOLUME_MIB)
        workloads.write_zeroes(self.meta, META_MIB)

    @staticmethod
    def partition(disk, number, start, mib):
        run("addpart", disk, str(number), str(start), str(mib * 2048))
        path = f"{disk}p{number}"
        for _ in range(1000):
            if os.path.exists(path):
                return path
            time.sleep(0.01)
        raise RuntimeError(f"{path} does not appear")

    def remove(self):
        """Gives the memory back, where the next backing needs it."""
        for disk in self.disks:
            subprocess.run(["delpart", disk, "1"], check=True)
            subprocess.run(["delpart", disk, "2"], check=False, capture_output=True)
        if not self.slow:
            run("rmmod", "brd")

    @contextlib.contextmanager
    def count_written(self):
        """Answers a function: bytes that went to both disks meanwhile. RAM disks do not count."""
        os.sync()
        before = self.written()
        yield lambda: after - before
        os.sync()
        after = self.written()

    def written(self):
        total = 0
        for disk in self.disks:
            with open(f"/sys/class/block/{os.path.basename(disk)}/stat", encoding="ascii") as line:
                total += int(line.read().split()[6]) * 512
        return total

    def slices(self, count, mib):
        """Tables of `count` parts of the store, as a volume manager lays them."""
        if count * mib > STORE_MIB - META_MIB - 2:
            raise RuntimeError("the store is too small")
        if count * mib > self.touched_mib:
            workloads.write_zeroes(self.store, count * mib)
            self.touched_mib = count * mib
        sectors = mib * 2048
        return [f"0 {sectors} linear {self.store} {number * sectors}" for number in range(count)]


def ram_disks():
    run("modprobe", "brd", "rd_nr=2", f"rd_size={STORE_MIB << 10}", "max_part=4")
    return Backing("brd", "/dev/ram0", "/dev/ram1")


def slow_disks():
    disks = [null_disk(name, size=mib, memory_backed=1, queue_mode=2, irqmode=2,
                       completion_nsec=LATENCY_NS, hw_queue_depth=1024, blocksize=512)
             for name, mib in (("nullb0", workloads.VOLUME_MIB + 2), ("nullb1", STORE_MIB))]
    return Backing("lat", *disks)


def null_disk(name, **settings):
    folder = f"{NULL_DISKS}/{name}"
    os.mkdir(folder)
    for key, value in (*settings.items(), ("power", 1)):
        with open(f"{folder}/{key}", "w", encoding="ascii") as knob:
            knob.write(str(value))
    return f"/dev/{name}"


def remove_null_disk(disk):
    os.rmdir(f"{NULL_DISKS}/{os.path.basename(disk)}")


ALL = {"brd": ram_disks, "lat": slow_disks}
