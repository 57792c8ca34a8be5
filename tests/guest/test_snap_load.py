"""Snaps that come and go, and are read, while the node is under load: each shows an instant."""

import contextlib
import random
import subprocess
import threading
import time

import images
import kit
import writers
from kit import KIB, MIB

GUEST = {"kernels": "installed", "minutes": 2, "disks": ["raw:32M", "store:256M"], "limit": 300}

SEED = 20240719
AREA = 2 * MIB  # of each sequence; fio has what lies behind theirs
SEQUENCES = 3


@kit.case
@kit.essential
def the_module_loads():
    kit.state_folder("store")
    kit.load(snbf_debug=1)


def fio(*more):
    return subprocess.Popen(["fio", "--direct=1", "--ioengine=libaio", "--time_based", "--output-format=terse",
                             *more], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, cwd="/tmp")


def writing_fio(node, seconds, size):
    """Writes and verifies, over and over; it fails at the first block that is not what it wrote."""
    return fio("--name=write", f"--filename={node}", f"--runtime={seconds}", "--rw=randrw", "--bsrange=4k-128k",
               "--iodepth=16", "--norandommap", f"--offset={SEQUENCES * AREA}",
               f"--size={size - SEQUENCES * AREA}", "--randseed=11")


def verifying_fio(node, seconds, size):
    return fio("--name=verify", f"--filename={node}", f"--runtime={seconds}", "--rw=randwrite", "--bs=8k",
               "--iodepth=16", "--verify=crc32c", "--verify_backlog=128", "--verify_fatal=1", "--verify_dump=0",
               f"--offset={SEQUENCES * AREA}", f"--size={size - SEQUENCES * AREA}", "--randseed=13")


def reading_fio(path, seconds):
    return fio("--name=read", f"--filename={path}", f"--runtime={seconds}", "--rw=randread", "--bsrange=4k-256k",
               "--iodepth=8", "--readonly", "--randseed=17")


def ended(*processes):
    for process in processes:
        said = process.communicate(timeout=120)[0]
        kit.equal(process.returncode, 0, f"fio: {said[-1500:]}")


@contextlib.contextmanager
def sequences(node):
    """Writers that stop, and tell what they wrote, at the end of the block."""
    threads = [writers.Sequence(node, number * AREA, AREA, SEED + number) for number in range(SEQUENCES)]
    for thread in threads:
        thread.start()
    try:
        yield threads
    finally:
        for thread in threads:
            thread.leave = True
        for thread in threads:
            thread.join(60)
    for thread in threads:
        kit.check(not thread.is_alive(), "a write hangs")
        thread.check()


@contextlib.contextmanager
def zeroed():
    device = kit.disk("raw")
    kit.run("dd", "if=/dev/zero", f"of={device}", "bs=1M", "count=32", "oflag=direct")
    with images.snapped(device, "/mnt/store") as (node, snaps):
        yield node, snaps


def start_in_the_midst(snaps, **more):
    """What the image is, only itself can tell."""
    minor = snaps.add(**more)
    kit.done(kit.start(minor), f"start of snap {minor}")
    image = images.Image(minor, None)
    image.wanted = images.read_all(image.path)
    return image


def agree(threads, taken):
    """Every image is an instant, and a later one holds no less."""
    before = [0] * SEQUENCES
    for number, image in enumerate(taken):
        counts = [thread.held(image) for thread in threads]
        writers.is_an_instant(threads, counts)
        kit.check(all(now >= then for now, then in zip(counts, before)), f"image {number}: {counts} after {before}")
        before = counts
    print(f"images of {len(taken)} instants; the last holds {before} writes of "
          f"{[len(thread.writes) - 1 for thread in threads]}")
    written = sum(len(thread.writes) - 1 for thread in threads)
    kit.check(written > 50, f"only {written} writes: nothing was tested")


@kit.case
def snaps_started_under_writers_show_instants():
    rng = random.Random(SEED)
    with zeroed() as (node, snaps):
        started = []
        with sequences(node) as threads:
            load = writing_fio(node, 6, 32 * MIB)
            started.append(start_in_the_midst(snaps, chunk_size=16 * KIB))
            reader = reading_fio(started[0].path, 6)
            for _ in range(5):
                time.sleep(rng.uniform(0.05, 0.4))
                started.append(start_in_the_midst(snaps, chunk_size=16 * KIB))
            ended(load, reader)
        agree(threads, [image.wanted for image in started])
        for image in started:
            image.check("read again at the end")


class Schedule(threading.Thread):
    """A snap that is started, read twice, stopped and deleted, over and over, at a pace of its own."""

    def __init__(self, snaps, pause_s, until):
        super().__init__(daemon=True)
        self.snaps, self.pause_s, self.until = snaps, pause_s, until
        self.taken = []  # what each showed
        self.failures = []

    def run(self):
        try:
            while time.monotonic() < self.until or len(self.taken) < 3:  # however slow the machine is
                self.one_life()
        except Exception as error:  # pylint: disable=broad-except
            self.failures.append(repr(error))

    def one_life(self):
        image = start_in_the_midst(self.snaps, chunk_size=16 * KIB)
        self.taken.append(image.wanted)
        time.sleep(self.pause_s)
        image.check("read again")
        kit.done(kit.stop(image.minor), "stop")
        kit.done(kit.delete(image.minor), "delete")  # or postponed, with the stop


@kit.case
def fio_verifies_while_three_schedules_of_snaps_come_and_go():
    with zeroed() as (node, snaps):
        until = time.monotonic() + 6
        lock = threading.Lock()
        plain_add = snaps.add

        def add(**more):
            with lock:
                return plain_add(**more)

        snaps.add = add
        with sequences(node) as threads:
            load = verifying_fio(node, 6, 32 * MIB)
            schedules = [Schedule(snaps, pause_s, until) for pause_s in (0.05, 0.3, 0.9)]
            for schedule in schedules:
                schedule.start()
            for schedule in schedules:
                schedule.join(120)
            ended(load)
        kit.equal([schedule.failures for schedule in schedules], [[], [], []], "schedules")
        kit.check(all(len(schedule.taken) >= 3 for schedule in schedules), "hardly a snap was taken")
        for schedule in schedules:
            agree(threads, schedule.taken)


@kit.case
def the_module_unloads():
    kit.unload()
    kit.equal(kit.slabs(), [], "slab caches")


if __name__ == "__main__":
    kit.main()
