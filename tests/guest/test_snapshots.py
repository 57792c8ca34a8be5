"""Started snaps show the partition as it was at their starts, whatever is written since: raw writers at
every chunk size, and snaps that come and go in every order."""

import contextlib
import errno
import fcntl
import os
import random
import struct

import images
import kit
import writers
from kit import KIB, MIB

# 3 KiB more than whole MiB: the last chunk, and its last page, reach beyond the partition.
GUEST = {"quick": True, "minutes": 2, "disks": ["raw:20483K", "store:700M"], "limit": 600}

SEED = 20240711
store = ""


@kit.case
@kit.essential
def the_module_loads():
    global store
    store = kit.state_folder("store")
    kit.load(snbf_debug=2, snbf_max_blk_minor=300)


def fill(device, rng):
    with open(device, "wb") as out:
        out.write(rng.randbytes(kit.size_of(device)))
        os.fsync(out.fileno())


@contextlib.contextmanager
def filled(rng):
    """The node over a disk of random bytes, and where its snaps come from."""
    fill(kit.disk("raw"), rng)
    with images.snapped(kit.disk("raw"), store) as (node, snaps):
        yield node, snaps


def now():
    return images.read_all(kit.disk("raw"))


def write(node, at, data):
    fd = os.open(node, os.O_RDWR)
    try:
        kit.equal(os.pwrite(fd, data, at), len(data), f"write at {at}")
        os.fsync(fd)
    finally:
        os.close(fd)


def cow_files():
    return sorted(name for name in os.listdir(store) if name.startswith("cow"))


@kit.case
@kit.essential
def a_snap_shows_what_was_overwritten():
    rng = random.Random(SEED)
    with filled(rng) as (node, snaps):
        image = snaps.start(now())
        image.check("at once")
        write(node, 5 * MIB + 512, rng.randbytes(100 * KIB))
        kit.equal(image.copied(), {80, 81}, "chunks copied")
        image.check("overwritten")
        kit.check(now() != image.wanted, "nothing was overwritten")
        kit.done(kit.stop(image.minor), "stop")
        kit.done(kit.delete(image.minor), "delete")
        kit.equal(cow_files(), [], "COW files")


def random_rounds(chunk_size):
    """Snaps started one after another among random writes; each is looked at after every phase."""
    rng = random.Random(SEED + chunk_size)
    with filled(rng) as (node, snaps), contextlib.closing(writers.RawWriter(node, rng)) as writer:
        started = []
        for phase in range(3):
            started.append(snaps.start(now(), chunk_size=chunk_size))
            every = [writer.write_direct, writer.write_buffered, writer.write_mapped, writer.discard, writer.zero]
            for _ in range(12):
                rng.choice(every)()
            for image in started:
                image.check(f"chunks of {chunk_size}, seed {SEED}, phase {phase}")
        kit.check(all(image.copied() for image in started), "a snap got no copy: nothing was tested")


@kit.case
def random_writes_with_chunks_of_4096():
    random_rounds(4 * KIB)


@kit.case
def random_writes_with_chunks_of_8192():
    random_rounds(8 * KIB)


@kit.case
def random_writes_with_chunks_of_65536():
    random_rounds(64 * KIB)


@kit.case
def random_writes_with_chunks_of_1_mib():
    random_rounds(MIB)


@kit.case
def random_writes_with_chunks_of_8_mib():
    random_rounds(8 * MIB)


@kit.case
def the_whole_device_is_discarded_zeroed_and_rewritten():
    rng = random.Random(SEED)
    with filled(rng) as (node, snaps):
        started = [snaps.start(now(), chunk_size=16 * KIB)]
        size = kit.size_of(node)
        fd = os.open(node, os.O_RDWR)
        fcntl.ioctl(fd, writers.BLKDISCARD, struct.pack("<QQ", 0, size))
        started[0].check("discarded")
        kit.equal(len(started[0].copied()), kit.info(started[0].minor).chunk_cnt, "every chunk was copied")
        started.append(snaps.start(now(), chunk_size=16 * KIB))
        fcntl.ioctl(fd, writers.BLKZEROOUT, struct.pack("<QQ", 0, size))
        os.close(fd)
        started.append(snaps.start(now(), chunk_size=16 * KIB))
        write(node, 0, rng.randbytes(size))
        for image in started:
            image.check("after all")


@kit.case
def a_copy_is_made_once_and_in_the_newest_snap():
    rng = random.Random(SEED)
    with filled(rng) as (node, snaps):
        before = now()
        older, newer = (snaps.start(before) for _ in range(2))
        write(node, 3 * MIB, rng.randbytes(64 * KIB))
        kit.equal((older.copied(), newer.copied()), (set(), {48}), "copied")
        newest = snaps.start(now())
        write(node, 3 * MIB, rng.randbytes(128 * KIB))
        kit.equal([image.copied() for image in (older, newer, newest)], [set(), {48}, {48, 49}], "copied")
        for image in (older, newer, newest):
            image.check("overwritten")


@kit.case
def a_stop_waits_for_the_older_snaps():
    rng = random.Random(SEED)
    with filled(rng) as (node, snaps):
        started = []
        for number in range(3):
            started.append(snaps.start(now()))
            write(node, number * MIB, rng.randbytes(3 * MIB))
        oldest, middle, newest = started
        log = kit.KernelLog()
        for image in (newest, middle):
            kit.done(kit.stop(image.minor), "postponed stop")
            log.expect("Postponing stop of snbf(")
            at = kit.info(image.minor)
            kit.equal((at.started, at.stop_pending), (1, 1), "started, pending")
        log.close()
        write(node, 0, rng.randbytes(12 * MIB))
        oldest.check("the newer ones are to stop")
        kit.equal(kit.start(newest.minor), -errno.EALREADY, "start of a snap that is to stop")
        kit.done(kit.delete(middle.minor), "postponed delete")
        kit.equal(kit.info(middle.minor).del_pending, 1, "delete pending")
        write(node, 12 * MIB, rng.randbytes(5 * MIB))
        oldest.check("the middle one is to be deleted")
        kit.done(kit.stop(oldest.minor), "stop")
        kit.equal([kit.info(image.minor).started for image in started], [0, 0, 0], "started")
        kit.done(kit.delete(oldest.minor), "delete")
        kit.equal(kit.minors(2), [newest.minor], "snaps that are left")
        kit.equal(cow_files(), ["cow3.bmp", "cow3.data"], "COW files that are left")


@kit.case
def stopped_snaps_start_anew():
    rng = random.Random(SEED)
    with filled(rng) as (node, snaps):
        first, second = snaps.start(now()), snaps.start(now())
        write(node, MIB, rng.randbytes(MIB))
        for image in (first, second):
            kit.done(kit.stop(image.minor), "stop")
        write(node, 2 * MIB, rng.randbytes(MIB))
        # In the other order: the one that starts last is now the newest.
        again = []
        for minor in (second.minor, first.minor):
            kit.done(kit.start(minor), "start again")
            again.append(images.Image(minor, now()))
            write(node, 3 * MIB, rng.randbytes(2 * MIB))
        for image in again:
            image.check("started again")


@kit.case
def a_snap_in_use_is_neither_stopped_nor_deleted():
    with filled(random.Random(SEED)) as (_, snaps):
        image = snaps.start(now())
        fd = os.open(image.path, os.O_RDONLY)
        kit.equal((kit.stop(image.minor), kit.delete(image.minor)), (-errno.EBUSY,) * 2, "refused")
        kit.equal(kit.stop(0), -errno.EBUSY, "stop of the filter")
        os.close(fd)
        image.check("refused")


@kit.case
def nobody_writes_to_a_snap():
    with filled(random.Random(SEED)) as (_, snaps):
        image = snaps.start(now())
        try:
            fd = os.open(image.path, os.O_WRONLY)
        except OSError as error:
            kit.check(error.errno in (errno.EACCES, errno.EPERM, errno.EROFS), f"{error}")
        else:
            try:
                os.pwrite(fd, b"x" * 4096, 0)
                os.fsync(fd)
                raise kit.Failed("a write to a snap")
            except OSError:
                pass
            finally:
                os.close(fd)
        image.check("written to")


@kit.case
def deleting_the_node_deletes_its_snaps_and_their_files():
    device = kit.disk("raw")
    result, record = kit.add(device, store, minor=0)
    kit.done(result, "add")
    snaps = images.Store(store, record.minor)
    for _ in range(3):
        kit.done(kit.start(snaps.add()), "start")  # starts the filter node, too
    snaps.add()
    kit.equal(kit.info(0).started, 1, "the filter node is started")
    kit.equal(len(cow_files()), 6, "COW files")
    kit.done(kit.delete(0), "delete")
    kit.equal((kit.minors(1), kit.minors(2), cow_files()), ([], [], []), "nodes, snaps, COW files")


@kit.case
def there_are_256_snaps_and_no_more():
    rng = random.Random(SEED)
    with filled(rng) as (node, snaps):
        before = now()
        started = [snaps.start(before, chunk_size=256 * KIB)]
        minors = [snaps.add(chunk_size=256 * KIB) for _ in range(255)]
        log = kit.KernelLog()
        result, _ = kit.add_snap(0, f"{store}/cow257", chunk_size=256 * KIB)
        kit.equal(result, -errno.ENOSPC, "the 257th")
        log.expect("Too many snaps already associated with snbf(", kit.ERROR_LEVEL)
        log.close()
        for number, minor in enumerate(minors):
            if number in (100, 254):
                write(node, (number % 7) * MIB, rng.randbytes(MIB))
                before = now()
            kit.done(kit.start(minor), f"start of the snap after {number} others")
            if number in (99, 100, 254):
                started.append(images.Image(minor, before))
        write(node, 0, rng.randbytes(3 * MIB))
        for image in started:
            image.check("among 256")
        kit.equal(kit.info(0).snap_cnt, 256, "snaps")


@kit.case
def an_unload_leaves_the_cow_files():
    fill(kit.disk("raw"), random.Random(SEED))
    kit.done(kit.add(kit.disk("raw"), store, minor=0)[0], "add")
    kit.done(kit.start(0), "start")
    snaps = images.Store(store, 0)
    image = snaps.start(now())
    write("/dev/snbf/snbf0", 7 * MIB, os.urandom(MIB))
    kit.done(kit.start(snaps.add()), "start")
    kit.unload()
    kit.equal(kit.slabs(), [], "slab caches")
    kit.equal(cow_files(), [f"cow{number}.{kind}" for number in (1, 2) for kind in ("bmp", "data")], "COW files")
    with open(f"{store}/cow1.data", "rb") as copies:
        copies.seek(7 * MIB)
        kit.check(copies.read(MIB) == image.wanted[7 * MIB:8 * MIB], "the copies are in the data file")


if __name__ == "__main__":
    kit.main()
