"""What is done to a subject, and how long it took: fio's figures, by the guest's own clock."""

import json
import os
import random
import subprocess

MIB = 1 << 20
EXTENT_BYTES = 64 << 10
VOLUME_MIB = 416
REWRITE_MIB = 16  # the front of the volume: written before it is measured
REGION_MIB = VOLUME_MIB - REWRITE_MIB  # the rest: where a first touch finds an extent untouched

# gtod_reduce: fio reads no clock around a request, so that what it costs itself is small and even.
FIO = ("fio", "--name=bench", "--direct=1", "--ioengine=libaio", "--gtod_reduce=1", "--eta=never",
       "--disk_util=0", "--output-format=json")

# name: (fio's options, request bytes, requests measured on a RAM disk, requests on the slow device)
AREA = (f"--size={REWRITE_MIB}m",)
REGION = (f"--offset={REWRITE_MIB}m", f"--size={REGION_MIB}m")
STEADY = {
    "write-4k-qd1": (("--rw=randwrite", "--bs=4k", "--iodepth=1", *AREA), 4096, 65536, 16384),
    "write-4k-qd32": (("--rw=randwrite", "--bs=4k", "--iodepth=32", *AREA), 4096, 65536, 65536),
    "read-4k-qd1": (("--rw=randread", "--bs=4k", "--iodepth=1", *REGION), 4096, 65536, 16384),
    "read-4k-qd32": (("--rw=randread", "--bs=4k", "--iodepth=32", *REGION), 4096, 65536, 65536),
    "write-128k-seq": (("--rw=write", "--bs=128k", "--iodepth=1", *AREA), 128 << 10, 8192, 2048),
    "read-1m-seq": (("--rw=read", "--bs=1m", "--iodepth=1", *REGION), 1 << 20, 800, 400),
}
# Of the oldest snapshot, over the part of the region of which the first touches changed one half.
SNAP_READS = {
    "snap-4k-qd1": (("--rw=randread", "--bs=4k", "--iodepth=1"), 4096, 32768, 8192),
    "snap-4k-qd32": (("--rw=randread", "--bs=4k", "--iodepth=32"), 4096, 32768, 32768),
    "snap-1m-seq": (("--rw=read", "--bs=1m", "--iodepth=1"), 1 << 20, 400, 100),
}
FIRST = ("first-4k-qd1", "first-4k-qd32")
FIRST_SEQ = "first-128k-seq"
FIRST_TOUCHES = REGION_MIB * MIB // EXTENT_BYTES // 2

# fio tells whole milliseconds, cut off, and by the instruction clock every round of the same length
# ends at the same place in one. Each round is a little shorter than the one before (about 140 us
# on a RAM disk), so that the rounds meet different places, and half a millisecond is added to each.
SHORTER_BY = 17
CUT_OFF_MS = 0.5


def fio(device, options):
    """Answers (requests, milliseconds)."""
    command = [*FIO, f"--filename={device}", *options]
    done = subprocess.run(command, check=False, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"{command}: {done.returncode}: {done.stderr}{done.stdout}")
    job = json.loads(done.stdout)["jobs"][0]
    sides = [job[side] for side in ("read", "write") if job[side]["total_ios"]]
    if job["error"] or len(sides) != 1:
        raise RuntimeError(f"fio on {device}: {done.stdout}")
    return sides[0]["total_ios"], sides[0]["runtime"] + CUT_OFF_MS


def steady(device, name, slow, number=0):
    """Round `number` of a workload that finds the same at every request."""
    options, size, count, slow_count = STEADY[name]
    count = (slow_count if slow else count) - number * SHORTER_BY
    return fio(device, (*options, f"--io_size={size * count}"))


def snap_read(device, name, slow, unit):
    options, size, count, slow_count = SNAP_READS[name]
    return fio(device, (*options, f"--offset={REWRITE_MIB}m", f"--size={2 * FIRST_TOUCHES * unit}",
                        "--readonly", f"--io_size={size * (slow_count if slow else count)}"))


def touch_list(device, count, unit):
    """A replay log of 4 KiB writes, one in each of `count` units of the region, at random."""
    path = f"/tmp/touches-{os.path.basename(device)}-{count}-{unit}"
    units = random.Random(20).sample(range(2 * FIRST_TOUCHES), count)
    with open(path, "w", encoding="ascii") as log:
        log.write(f"fio version 2 iolog\n{device} add\n{device} open\n")
        for number in units:
            log.write(f"{device} write {REWRITE_MIB * MIB + number * unit} 4096\n")
        log.write(f"{device} close\n")
    return path


def first_touches(device, name, count, unit=EXTENT_BYTES):
    depth = name.rpartition("qd")[2]
    return fio(device, (f"--read_iolog={touch_list(device, count, unit)}", f"--iodepth={depth}"))


def first_sequence(device, mib):
    return fio(device, ("--rw=write", "--bs=128k", "--iodepth=1", f"--offset={REWRITE_MIB}m",
                        f"--size={mib}m"))


def write_rewrite_area(device):
    """Every extent and chunk of it is marked, copied or mapped from here on."""
    fio(device, ("--rw=write", "--bs=128k", "--iodepth=1", *AREA))


def write_zeroes(device, mib):
    """Gives memory to every page of the device's front."""
    subprocess.run(["dd", "if=/dev/zero", f"of={device}", "bs=1M", f"count={mib}", "oflag=direct",
                    "status=none"], check=True)


def wipe_front(device):
    subprocess.run(["dd", "if=/dev/zero", f"of={device}", "bs=64k", "count=1", "oflag=direct",
                    "status=none"], check=True)
