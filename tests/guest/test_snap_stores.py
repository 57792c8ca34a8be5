"""A store that is full, fails or stalls, and a partition that fails: the snaps pay for it, the writers never."""

import contextlib
import errno
import os
import random
import time

import images
import kit
import mapper
import patience
import worker
from kit import KIB, MIB

GUEST = {"minutes": 4, "disks": ["raw:24M", "store:64M", "small:12M", "state:64M"], "limit": 300,
         # What ext4 says when the disk below it is made to fail.
         "allow": ["Buffer I/O error on dev", r"EXT4-fs error \(device dm-", r"EXT4-fs \(dm-\d+\): error"]}

SEED = 20240713
STALL_S = 10  # that long kcowd may be in one file operation
GIVEN_UP = "Invalidating snap device snbf({}, {})"


@kit.case
@kit.essential
def the_module_loads():
    kit.run("modprobe", "dm-mod")
    kit.state_folder()
    kit.load(snbf_debug=2)


@contextlib.contextmanager
def mounted(device, folder):
    kit.run("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", device)
    os.makedirs(folder, exist_ok=True)
    kit.run("mount", "-o", "errors=continue", device, folder)
    try:
        yield folder
    finally:
        kit.run("umount", folder)


@contextlib.contextmanager
def volume(device, store):
    """A node over a device of random bytes; its bitmap files lie elsewhere than the snaps' files."""
    with open(device, "wb") as out:
        out.write(random.Random(SEED).randbytes(kit.size_of(device)))
        os.fsync(out.fileno())
    with images.snapped(device, "/mnt/state") as (node, snaps):
        snaps.folder = store
        yield node, snaps


class Writer:
    """Direct writes, of which a model holds what they must have left."""

    def __init__(self, node, disk):
        self.disk = disk
        self.model = images.read_all(disk)
        self.fd = os.open(node, os.O_RDWR | os.O_DIRECT)
        self.page = images.aligned(MIB)
        self.rng = random.Random(SEED)
        self.longest_s = 0

    def write(self, at, length):
        data = self.rng.randbytes(length)
        self.page[:length] = data
        began = time.monotonic()
        with memoryview(self.page) as view:
            kit.equal(os.pwrite(self.fd, view[:length], at), length, f"write at {at}")
        self.longest_s = max(self.longest_s, time.monotonic() - began)
        self.model[at:at + length] = data

    def close(self):
        os.close(self.fd)
        kit.check(images.read_all(self.disk) == self.model, "a write did not reach the partition whole")


@contextlib.contextmanager
def writing(node, disk):
    with contextlib.closing(Writer(node, disk)) as writer:
        yield writer


def is_given_up(minor):
    """It is invalid, and a read says so."""
    at = kit.info(minor)
    kit.equal((at.started, at.snap_valid), (1, 0), f"snap {minor}: started, valid")
    for offset in (0, at.dev_size // 2):
        try:
            fd = os.open(f"/dev/snbf/snbf{minor}", os.O_RDONLY | os.O_DIRECT)
        except OSError as error:
            kit.equal(error.errno, errno.EIO, f"open of snap {minor}")
            continue
        try:
            with images.aligned(4 * KIB) as page:
                os.preadv(fd, [page], offset)
            raise kit.Failed(f"snap {minor} is invalid, and can be read at {offset}")
        except OSError as error:
            kit.equal(error.errno, errno.EIO, f"read of snap {minor}")
        finally:
            os.close(fd)


def all_goes_on(snaps, writer):
    """A snap that is started now is exact."""
    image = snaps.start(images.read_all(writer.disk))
    for at in (0, 5 * MIB, 23 * MIB):
        writer.write(at, 300 * KIB)
    image.check("started afterwards")
    kit.check(image.copied(), "nothing was copied")


@kit.case
def a_full_store_costs_the_snaps_and_no_writer():
    with mounted(kit.disk("small"), "/mnt/small") as store, volume(kit.disk("raw"), store) as (node, snaps), \
            writing(node, kit.disk("raw")) as writer:
        older = snaps.start(images.read_all(writer.disk))
        writer.write(MIB, 100 * KIB)
        newer = snaps.start(images.read_all(writer.disk))
        log = kit.KernelLog()
        for at in range(0, 24 * MIB, MIB):
            writer.write(at, MIB)
        said = log.texts()
        log.close()
        for image in (older, newer):
            line = GIVEN_UP.format(kit.block_major(), image.minor)
            kit.check(any(line in text for text in said), f"no line has {line!r}")
            is_given_up(image.minor)
        kit.equal(os.path.getsize(f"{store}/cow1.data"), 0, "the copies of an invalid snap")
        image = snaps.start(images.read_all(writer.disk))
        writer.write(0, MIB)
        image.check("the next one has their room")


@kit.case
def a_partition_with_a_bad_place():
    flawed = mapper.Mapped("flawed", kit.disk("raw"))
    with contextlib.ExitStack() as stack:
        stack.callback(flawed.remove)
        stack.enter_context(mounted(kit.disk("store"), "/mnt/store"))
        node, snaps = stack.enter_context(volume(flawed.path, "/mnt/store"))
        writer = stack.enter_context(writing(node, kit.disk("raw")))
        started = [snaps.start(images.read_all(flawed.path)) for _ in range(3)]
        writer.write(MIB, 64 * KIB)
        flawed.become(flawed.with_hole(8 * MIB + 4 * KIB, 4 * KIB))
        writer.write(2 * MIB, 64 * KIB)
        kit.equal([kit.info(image.minor).snap_valid for image in started], [1, 1, 1], "far from the bad place")
        writer.write(8 * MIB + 32 * KIB, 4 * KIB)  # in its chunk
        for image in started:
            is_given_up(image.minor)
        flawed.become(flawed.good())
        all_goes_on(snaps, writer)


@kit.case
def a_partition_that_fails_for_a_while():
    flaky = mapper.Mapped("flaky", kit.disk("raw"))
    with contextlib.ExitStack() as stack:
        stack.callback(flaky.remove)
        stack.enter_context(mounted(kit.disk("store"), "/mnt/store"))
        node, snaps = stack.enter_context(volume(flaky.path, "/mnt/store"))
        writer = stack.enter_context(writing(node, kit.disk("raw")))
        started = []
        for at in range(0, 6 * MIB, 2 * MIB):
            started.append(snaps.start(images.read_all(flaky.path)))
            writer.write(at, 700 * KIB)
            writer.write(10 * MIB, 100 * KIB)
        for image in started:
            image.check("over a device whose writes go as clones")
        flaky.become(flaky.failing("error_writes"))
        for at in (10 * MIB, 15 * MIB):  # copied already, and not
            try:
                writer.write(at, 64 * KIB)
                raise kit.Failed("a write to a device that fails")
            except OSError as error:
                kit.equal(error.errno, errno.EIO, "write")
        flaky.become(flaky.good())
        for image in started:
            image.check("the writes failed, the copies did not")
        flaky.become(flaky.failing())
        try:
            writer.write(20 * MIB, 64 * KIB)
            raise kit.Failed("a write to a device that fails")
        except OSError as error:
            kit.equal(error.errno, errno.EIO, "write")
        flaky.become(flaky.good())
        for image in started:
            is_given_up(image.minor)
        all_goes_on(snaps, writer)


def with_a_store_that(stack):
    """A node whose snaps lie on a store that can be made to fail."""
    bad = mapper.Mapped("bad", kit.disk("store"))
    stack.callback(bad.remove)
    stack.enter_context(mounted(bad.path, "/mnt/store"))
    node, snaps = stack.enter_context(volume(kit.disk("raw"), "/mnt/store"))
    writer = stack.enter_context(writing(node, kit.disk("raw")))
    started = []
    for at in range(0, 6 * MIB, 2 * MIB):
        started.append(snaps.start(images.read_all(kit.disk("raw"))))
        writer.write(at, 700 * KIB)
    for image in started:
        image.check("the store is well")
    return bad, snaps, writer, started


def a_failing_store(*features):
    with contextlib.ExitStack() as stack:
        bad, snaps, writer, started = with_a_store_that(stack)
        bad.become(bad.failing(*features))
        writer.longest_s = 0
        with patience.Patience() as beside:
            for at in range(8 * MIB, 12 * MIB, MIB):
                writer.write(at, MIB)
            beside.judge(writer.longest_s, STALL_S, "the longest write")
        for image in started:
            is_given_up(image.minor)
        bad.become(bad.good())
        for image in started:
            kit.done(kit.stop(image.minor), "stop")
        kit.run("mount", "-o", "remount", "/mnt/store", ok=False)
        for at in range(0, 24 * MIB, MIB):
            writer.write(at, MIB)


@kit.case
def a_store_whose_writes_fail():
    a_failing_store("error_writes")


@kit.case
def a_store_that_is_dead():
    a_failing_store()


def begin(function, *arguments):
    begun = worker.Worker(function, *arguments)
    begun.start()
    return begun


def ends(begun, what):
    """Whether the store goes on or not; the limit only ends a hang."""
    kit.wait_until(lambda: not begun.is_alive(), 6 * STALL_S, what)
    begun.check()


def a_stalling_store(stall, go_on):
    """One write meets the stall; the others must not even notice. All of it ends before the store goes on, and the
    write waits for the one request that met the stall, not for those that would have followed."""
    with contextlib.ExitStack() as stack:
        bad, snaps, writer, started = with_a_store_that(stack)
        log = kit.KernelLog()
        stack.callback(log.close)
        stall(bad)
        going = True
        stack.callback(lambda: going and go_on(bad))
        ended = []

        def write():
            kit.mark("the write begins")
            writer.write(12 * MIB, 4 * KIB)
            kit.mark("the write has ended")
            ended.append("the write")

        with patience.Patience() as beside:
            first = begin(write)
            time.sleep(0.5)
            commands = begin(lambda: [*map(kit.info, (0, started[0].minor)), ended.append("the commands")])
            ends(first, "the write")
            ends(commands, "the commands")
            kit.equal(ended, ["the commands", "the write"], "what ended first")
            lines = [GIVEN_UP.format(kit.block_major(), image.minor) for image in started]
            begun, end, *given_up = kit.times_of(log.records(), "the write begins", "the write has ended", *lines)
            kit.check(STALL_S - 1 < min(given_up) - begun, f"given up after {min(given_up) - begun:.1f} s")
            kit.check(end > max(given_up) - 1, "it went on before the snaps were given up")
            beside.judge(max(given_up) - begun, STALL_S, "until the snaps were given up")
            beside.judge(end - begun, STALL_S, "until the write had ended")
        for image in started:
            is_given_up(image.minor)
        with patience.Patience() as beside:
            writer.longest_s = 0
            ends(begin(lambda: [writer.write(at, 64 * KIB) for at in range(13 * MIB, 20 * MIB, MIB)]),
                 "writes beside snaps that are given up")
            beside.judge(writer.longest_s, 0, "the longest write beside snaps that are given up")
        go_on(bad)
        going = False
        for image in started:
            kit.done(kit.stop(image.minor), "stop")
        all_goes_on(snaps, writer)


@kit.case
def a_store_that_stalls():
    a_stalling_store(lambda bad: bad.stall(), lambda bad: bad.go_on())


@kit.case
def a_store_that_is_frozen():
    a_stalling_store(lambda _: kit.run("fsfreeze", "-f", "/mnt/store"),
                     lambda _: kit.run("fsfreeze", "-u", "/mnt/store"))


@kit.case
def a_read_of_a_snap_from_a_store_that_stalls_ends():
    with contextlib.ExitStack() as stack:
        bad, _, writer, started = with_a_store_that(stack)
        with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as knob:
            knob.write("3")
        bad.stall()
        going = True
        stack.callback(lambda: going and bad.go_on())
        errors = []

        def read():
            fd = os.open(started[2].path, os.O_RDONLY | os.O_DIRECT)
            try:
                with images.aligned(4 * KIB) as page:
                    os.preadv(fd, [page], 4 * MIB)
            except OSError as error:
                errors.append(error.errno)
            finally:
                os.close(fd)

        with patience.Patience() as beside:
            writer.longest_s = 0
            reader = begin(read)
            time.sleep(0.5)
            ends(begin(writer.write, 20 * MIB, 4 * KIB), "a write behind the read")
            beside.judge(writer.longest_s, STALL_S, "a write behind the read")
        is_given_up(started[2].minor)
        bad.go_on()
        going = False
        ends(reader, "the read")
        print(f"the read ended by {errors or 'its data'}")


@kit.case
def the_module_unloads():
    kit.unload()
    kit.equal(kit.slabs(), [], "slab caches")


if __name__ == "__main__":
    kit.main()
