"""Images over an unload, and over guests that are killed in the midst of copying."""

import errno
import itertools
import os
import random
import time

import images
import kit
import worker
from kit import KIB, MIB

GUEST = {"kernels": "installed", "minutes": 3, "disks": ["raw:24M", "store:256M", "keep0:24M", "keep1:24M", "keep2:24M", "keep3:24M", "keep4:24M"],
         "limit": 300, "boots": ["unload!", "killed1!", "killed2!", "killed3"]}

SEED = 20240715
FIRST_MINOR = 10
NODE = "/dev/snbf/snbf0"


def stem(number):
    return f"/mnt/store/cow{number}"


def attach():
    folder = kit.state_folder("store")
    if not kit.loaded():
        kit.load(snbf_debug=1)
    kit.done(kit.add(kit.disk("raw"), folder, minor=0)[0], "add")


def add(number):
    minor = FIRST_MINOR + number
    kit.done(kit.add_snap(0, stem(number), minor=minor, chunk_size=16 * KIB)[0], "add snap")
    return minor


def start(number):
    """What the image must be is kept on a disk of its own, for the next lives."""
    wanted = images.read_all(kit.disk("raw"))
    minor = add(number)
    kit.done(kit.start(minor), "start")
    with open(kit.disk(f"keep{number}"), "wb") as keep:
        keep.write(wanted)
        os.fsync(keep.fileno())
    return images.Image(minor, wanted)


def resume(number):
    minor = add(number)
    kit.done(kit.resume(minor), "resume")
    return images.Image(minor, images.read_all(kit.disk(f"keep{number}")))


def write_some(seed, count=30):
    rng = random.Random(seed)
    fd = os.open(NODE, os.O_WRONLY | os.O_DSYNC)
    for _ in range(count):
        length = rng.randint(1, 400) * 512
        os.pwrite(fd, rng.randbytes(length), rng.randrange(0, 24 * MIB - length, 512))
    os.close(fd)


def cut_while_writing(seed):
    """Four writers, none of whose writes may fail, and the cut at some moment of theirs."""
    def write(number):
        for turn in itertools.count():
            write_some(seed * 1000 + number * 100 + turn)

    writers = [worker.Worker(write, number) for number in range(4)]
    for writer in writers:
        writer.start()
    time.sleep(random.Random(seed).uniform(0.3, 1.5))
    for writer in writers:
        writer.check()
    kit.crash()


@kit.case(boot="unload")
@kit.essential
def images_survive_an_unload():
    with open(kit.disk("raw"), "wb") as out:
        out.write(random.Random(SEED).randbytes(24 * MIB))
    attach()
    started = []
    for number in range(2):
        started.append(start(number))
        write_some(number)
    for image in started:
        image.check("before the unload")
    kit.check(all(image.copied() for image in started), "nothing was copied")
    kit.unload()
    attach()
    again = [resume(number) for number in range(2)]
    for image in again:
        image.check("resumed")
    write_some(2)
    for image in again:
        image.check("resumed, and written to")
    kit.equal(kit.start(again[0].minor), -errno.EALREADY, "start of a resumed snap")


@kit.case(boot="unload")
def cut_while_copying():
    cut_while_writing(1)


def a_life_after_a_cut(number):
    """All images of the lives before, and one more; then the next cut."""
    attach()
    started = [resume(older) for older in range(number)]
    for image in started:
        image.check("after the cut")
    started.append(start(number))
    write_some(100 + number)
    for image in started:
        image.check("written to after the cut")


@kit.case(boot="killed1")
@kit.essential
def images_survive_the_first_cut():
    a_life_after_a_cut(2)


@kit.case(boot="killed1")
def cut_a_second_time():
    cut_while_writing(2)


@kit.case(boot="killed2")
@kit.essential
def images_survive_the_second_cut():
    a_life_after_a_cut(3)


@kit.case(boot="killed2")
def cut_a_third_time():
    cut_while_writing(3)


@kit.case(boot="killed3")
@kit.essential
def images_survive_the_third_cut():
    a_life_after_a_cut(4)


@kit.case(boot="killed3")
def what_cannot_be_resumed_is_refused():
    kit.done(kit.delete(0), "delete")
    kit.equal([name for name in os.listdir("/mnt/store") if name.startswith("cow")], [], "COW files")
    attach()
    image = start(0)
    write_some(7)
    kit.done(kit.stop(image.minor), "stop")
    os.rename(f"{stem(0)}.bmp", f"{stem(0)}.away")
    kit.equal(kit.resume(image.minor), -errno.EIO, "resume without the bitmap's file")
    kit.equal(kit.info(image.minor).started, 0, "started")
    os.rename(f"{stem(0)}.away", f"{stem(0)}.bmp")
    size = os.path.getsize(f"{stem(0)}.data")
    os.truncate(f"{stem(0)}.data", size // 2)
    kit.equal(kit.resume(image.minor), -errno.EIO, "resume with half of the copies")
    kit.done(kit.resume(image.minor, snap_valid=0), "resume as invalid")
    kit.equal(kit.info(image.minor).snap_valid, 0, "valid")
    try:
        images.read_all(image.path)
        raise kit.Failed("an invalid snap can be read")
    except OSError as error:
        kit.equal(error.errno, errno.EIO, "read")
    write_some(8)


@kit.case(boot="killed3")
def it_unloads():
    kit.unload()
    kit.equal(kit.slabs(), [], "slab caches")


if __name__ == "__main__":
    kit.main()
