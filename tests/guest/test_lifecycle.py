"""Nodes and the module come and go, a great many times and while others look at them.

What is lost in a round shows as a slab object, a vmalloc area, a device or a /proc entry that is still there. What
would hang is ended by the guest's limit, which names the tasks that wait.
"""

import contextlib
import errno
import os
import signal
import subprocess
import threading
import time

import kit

GUEST = {"minutes": 4, "disks": ["a:64M", "b:64M", "state:64M"], "limit": 900, "words": ["slub_debug=FZP"]}

LONG = int(os.environ.get("SNBF_LONG") or 1)
ROUNDS = 60 * LONG
LOADS = 16 * LONG
WARM_UP = 20
GROWTH_A_LIFE = 1024  # bytes of slabs; the smallest of the records that a life makes is larger
NOISE = 64 * kit.KIB  # whatever the number of lives: what the kernel keeps of its own
OF_PAGES = ("buffer_head", "radix_tree_node")
SLOWER = 1.5  # times, at the most: what each life adds of a fiftieth of the first is more in sixty of them


def traces():
    """What of the driver is still in the kernel."""
    with open("/proc/vmallocinfo", encoding="ascii") as lines:
        areas = [line for line in lines if "snbf" in line]
    with open("/proc/devices", encoding="ascii") as lines:
        majors = [line for line in lines if "snbf" in line]
    files = [path for path in ("/proc/snbf", "/dev/snbf/control", "/sys/class/snbf") if os.path.exists(path)]
    return areas + majors + kit.slabs() + files + kit.driver_threads()


def shrink_slabs():
    """What is free in them goes back, that of each processor, too."""
    os.sync()
    with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as drop:
        drop.write("3\n")
    for cache in os.listdir("/sys/kernel/slab"):
        with contextlib.suppress(OSError), open(f"/sys/kernel/slab/{cache}/shrink", "w", encoding="ascii") as shrink:
            shrink.write("1\n")


def slab_bytes():
    """Of the objects that are in use, by cache; but for those of the pages that files are kept in."""
    shrink_slabs()
    found = {}
    with open("/proc/slabinfo", encoding="ascii") as lines:
        for name, used, _, size, *_ in map(str.split, list(lines)[2:]):
            if name not in OF_PAGES:
                found[name] = int(used) * int(size)
    return found


@contextlib.contextmanager
def lookers(count=3, pause_us=0):
    process = subprocess.Popen([f"{os.environ['SNBF_BUILD']}/guest/bin/looker", str(count), str(pause_us)],
                               start_new_session=True)
    try:
        yield
        kit.check(process.poll() is None, f"who looks ended by {process.poll()}")
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        process.wait()


def median(values):
    return sorted(values)[len(values) // 2]


def check_pace(took, beside):
    """The last third of the lives against the first, each in units of some other work, which was done between them and
    which the machine made as slow or fast as the lives."""
    part = len(took) // 3
    lives, work = ([median(values[:part]), median(values[-part:])] for values in (took, beside))
    first, last = (life / other for life, other in zip(lives, work))
    words = (f"{len(took)} lives; the medians of the first and the last {part}: {lives[0] * 1000:.0f} and "
             f"{lives[1] * 1000:.0f} ms, of other work {work[0] * 1000:.0f} and {work[1] * 1000:.0f} ms: {last / first:.2f} times")
    print(words)
    kit.check(last < first * SLOWER, words)


def check_growth(before, now, lives):
    grown = {name: now[name] - before.get(name, 0) for name in now if now[name] != before.get(name, 0)}
    total = sum(grown.values())
    largest = dict(sorted(grown.items(), key=lambda pair: -abs(pair[1]))[:8])
    words = f"{lives} lives: slabs grew by {total} bytes, {total // lives} a life: {largest}"
    print(words)
    kit.check(total < lives * GROWTH_A_LIFE + NOISE, words)


class OtherWork:
    """None of the driver's: what a life has beside it, threads that wake one another and writes that are waited for."""

    def __init__(self, folder):
        self.path = f"{folder}/other"

    def do(self):
        with open(self.path, "wb", buffering=0) as file:
            file.write(bytes(4096))
            os.fsync(file.fileno())
        os.unlink(self.path)


def keep_trying(action, what, seconds=30, busy=-errno.EBUSY):
    """Somebody may be looking at it just now: busy is no failure."""
    results = []
    kit.wait_until(lambda: results.append(action()) or results[-1] != busy, seconds, what)
    return results[-1]


def live(minor, path):
    """From the start to the deletion, with a write to that device in between."""
    kit.done(kit.start(minor), "start")
    fd = os.open(path, os.O_RDWR)
    os.pwrite(fd, os.urandom(4096), 65536)
    os.fsync(fd)
    os.close(fd)
    kit.equal(keep_trying(lambda: kit.stop(minor), "stop"), 0, "stop")
    kit.equal(keep_trying(lambda: kit.delete(minor), "delete"), 0, "delete")


def one_life(device, folder, minor=-1):
    result, record = kit.add(device, folder, minor=minor)
    kit.done(result, "add")
    live(record.minor, kit.node_path(f"snbf{record.minor}"))


def one_snap_life(filter_minor, folder, path):
    """What it holds is one chunk; its files are new each time, and go with it."""
    result, record = kit.add_snap(filter_minor, f"{folder}/snap")
    kit.done(result, "add snap")
    live(record.snap_minor, path)


def seconds_of(action):
    began = time.monotonic()
    action()
    return time.monotonic() - began


def many(life, folder):
    """Many lives; memory that the first few take is not counted."""
    other = OtherWork(folder)
    for _ in range(WARM_UP):
        life()
        other.do()
    before = slab_bytes()
    took, beside = [], []
    for _ in range(ROUNDS):
        took.append(seconds_of(life))
        beside.append(seconds_of(other.do))
    check_growth(before, slab_bytes(), ROUNDS)
    check_pace(took, beside)


@kit.case
def nothing_is_left_after_many_lives_of_a_node():
    folder = kit.state_folder()
    kit.load(snbf_debug=0)
    many(lambda: one_life(kit.disk("a"), folder), folder)
    kit.equal(kit.minors(), [], "nodes")
    kit.unload()
    kit.equal(traces(), [], "left over")


@kit.case
def nothing_is_left_after_many_lives_of_a_snap():
    folder = kit.state_folder()
    kit.load(snbf_debug=0)
    with kit.node(kit.disk("a"), folder) as record:
        many(lambda: one_snap_life(record.minor, folder, kit.node_path(f"snbf{record.minor}")), folder)
        kit.equal([name for name in os.listdir(folder) if name.startswith("snap")], [], "files of snaps")
    kit.unload()
    kit.equal(traces(), [], "left over")


@kit.case
def nothing_is_left_after_many_loads():
    folder = kit.state_folder()
    for number in range(LOADS):
        kit.load(snbf_debug=0)
        if number % 4 == 0:  # the unload takes the nodes with it
            for name in ("a", "b"):
                result, record = kit.add(kit.disk(name), folder)
                kit.done(result, "add")
                kit.done(kit.start(record.minor), "start")
        kit.unload()
    kit.equal(traces(), [], "left over")


@kit.case
def nodes_come_and_go_while_everybody_looks():
    """Removing a disk or a /proc entry waits for those who look at it, and they wait for the table."""
    folder = kit.state_folder()
    kit.load(snbf_debug=0)
    with lookers():
        for _ in range(ROUNDS // 3):
            one_life(kit.disk("a"), folder)
    kit.unload()


@kit.case
def two_nodes_come_and_go_at_once():
    folder = kit.state_folder()
    kit.load(snbf_debug=0)
    failures = []

    def live_beside(name, minor):
        try:
            for _ in range(ROUNDS // 5):
                one_life(kit.disk(name), folder, minor)
        except Exception as error:  # pylint: disable=broad-except
            failures.append(error)

    with lookers(2):
        threads = [threading.Thread(target=live_beside, args=pair) for pair in (("a", 4), ("b", 7))]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    kit.equal(failures, [], "failures")
    kit.unload()


@kit.case
def the_module_comes_and_goes_while_everybody_looks():
    folder = kit.state_folder()

    with lookers(2, pause_us=2000):
        for _ in range(LOADS // 2):
            kit.load(snbf_debug=0)
            result, record = kit.add(kit.disk("a"), folder)
            kit.done(result, "add")
            kit.done(kit.start(record.minor), "start")
            kit.equal(keep_trying(kit.try_unload, "unload", busy=-errno.EAGAIN), 0, "unload")
    kit.equal(traces(), [], "left over")


@kit.case
def a_mounted_node_holds_the_module():
    folder = kit.state_folder()
    kit.load(snbf_debug=0)
    with kit.node(kit.disk("a"), folder) as record:
        path = kit.node_path(f"snbf{record.minor}")
        kit.run("mkfs.ext4", "-q", "-F", path)
        os.makedirs("/mnt/held", exist_ok=True)
        kit.run("mount", path, "/mnt/held")
        kit.check("in use" in kit.run("rmmod", "snbf", ok=False), "rmmod of a module in use")
        kit.equal(kit.stop(record.minor), -16, "stop of a mounted node")
        kit.equal(kit.delete(record.minor), -16, "delete of a mounted node")
        kit.run("umount", "/mnt/held")
    kit.unload()


@kit.case
def commands_under_memory_pressure_do_not_wait_for_themselves():
    """Dirty pages of a file system on the node are written back while commands allocate."""
    folder = kit.state_folder()
    kit.load(snbf_debug=0)
    with kit.node(kit.disk("a"), folder) as record:
        path = kit.node_path(f"snbf{record.minor}")
        kit.run("mkfs.ext4", "-q", "-F", path)
        os.makedirs("/mnt/held", exist_ok=True)
        kit.run("mount", path, "/mnt/held")
        writer = subprocess.Popen(["sh", "-c", "while :; do dd if=/dev/zero of=/mnt/held/f bs=1M count=32 2>/dev/null;"
                                   " rm /mnt/held/f; done"], start_new_session=True)
        try:
            for _ in range(20):
                with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as drop:
                    drop.write("3\n")
                one_life(kit.disk("b"), folder, minor=9)
                for kind in kit.BITMAPS:
                    kit.bitmap(record.minor, kind, "GET_AND_CLR_BMP")
        finally:
            os.killpg(writer.pid, signal.SIGKILL)
            writer.wait()
        # Its dd may end a little later than itself.
        kit.wait_until(lambda: "busy" not in kit.run("umount", "/mnt/held", ok=False), 30, "unmount")
    kit.unload()


if __name__ == "__main__":
    kit.main()
