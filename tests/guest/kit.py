"""What a test has inside the guest: cases, the driver's commands, its nodes, and the kernel log.

A test is a file test_*.py beside this one. Its GUEST says what the runner gives it:

    disks   as for tests/guest/run: "name:SIZE"
    boots   the lives of the guest, in order, on the same disks; "name!" is one that ends in a power cut
    limit   seconds for each boot on an idle machine
    minutes about how many all of it takes: the longest begin
    quick   it is one of those that every change must pass: True, or "every" for each kernel and not only the installed
    kernels "installed": by default on that one alone, for it tests little that another kernel could change;
            "debug": on the debug kernels alone
    flavours    by the name of a debug kernel (debugging.py) its boots there; on one that is not named it does not run
    expect  by the name of a boot, a pattern of what its kernel log must have, in place of nothing bad
    allow   patterns of kernel log lines that it provokes
    words   for the kernel's command line, beside slub_nomerge
    long_boots  those that follow where tests may last longer (SNBF_LONG)
    lasting one of boots, which is then led that many times
    machine "base" or "installed": it runs on a copy of that image (machine.py), and each boot but a power
            cut ends with the machine's shutdown
    chroot  by the name of a boot, what is done as root in the machine's system before it, while it is off
"""

import contextlib
import ctypes
import errno
import fcntl
import json
import os
import re
import struct
import subprocess
import sys
import threading
import time
import traceback
import zlib

import watch

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
MODULE = os.environ.get("SNBF_MODULE", os.path.join(TOP, "build", "snbf.ko"))
SLOWNESS = int(os.environ.get("SNBF_SLOWNESS", "1"))  # of the kernel that the test runs on, beside Debian's
CONTROL = "/dev/snbf/control"
RUNNER = 3  # the file descriptor of the runner's event port

KIB = 1 << 10
MIB = 1 << 20
GIB = 1 << 30


# --- cases ------------------------------------------------------------------------------------------

class Failed(AssertionError):
    pass


cases = []


# Of the kernel that a test runs on in addition, if it is such a one and not every case is wanted.
EXTRA_SERIES = os.environ.get("SNBF_EXTRA_SERIES", "")


def case(function=None, *, boot=None, once=False):
    """Registers a test case; its name is its sentence. With boot= it runs only in that life, with once= on one
    kernel: what it adds to the others of its file does not depend on the kernel."""
    def register(body):
        if not (once and EXTRA_SERIES):
            cases.append((boot, body))
        return body
    return register(function) if function else register


def report(kind, **fields):
    os.write(RUNNER, f"{kind} {json.dumps(fields)}\n".encode())


def check(condition, message=""):
    if not condition:
        raise Failed(message)


def equal(found, wanted, what=""):
    if found != wanted:
        raise Failed(f"{what}: found {found!r}, wanted {wanted!r}")


class _Cut(Exception):
    """The case asks for the power cut, having passed."""


def crash():
    """Ends the case, passed, and then the guest, between two instructions."""
    raise _Cut


class _Running:
    """The case that runs, whose end is told once: by itself, or by the cut that does not wait for it."""

    def __init__(self, name):
        self.name = name
        self.began = time.monotonic()
        self.ending = threading.Lock()

    def end(self, detail=""):
        """Whether this was the first to end it."""
        if not self.ending.acquire(blocking=False):
            return False
        mark(f"{self.name} ends")
        report("case", name=self.name, ok=not detail, detail=detail, seconds=round(time.monotonic() - self.began, 1))
        return True

    def cut(self, ready=None):
        detail = ""
        try:
            if ready:
                ready()
        except Exception:  # pylint: disable=broad-except
            detail = traceback.format_exc()
        if self.end(detail):
            os.write(RUNNER, b"crash\n")
        time.sleep(600)


_running = None


def crash_after(seconds, ready=None):
    """As crash(), that much later and in the midst of what the case is doing then; it passes if nothing failed before.
    What ready() raises, which is called then and may put the cut off, fails it, too."""
    timer = threading.Timer(seconds, _running.cut, (ready,))
    timer.daemon = True
    timer.start()


def mark(text):
    """A line "test: TEXT" of the kernel log, in its order with the driver's."""
    with open("/dev/kmsg", "w", encoding="ascii") as kmsg:
        kmsg.write(f"<5>test: {text}\n")


def main():
    """Runs the cases of this boot in the order of the file; later ones may build on earlier ones."""
    global _running  # pylint: disable=global-statement
    os.set_inheritable(RUNNER, False)
    boot = sys.argv[1] if len(sys.argv) > 1 else "main"
    chosen = [body for wanted, body in cases if wanted in (None, boot)]
    report("plan", names=[body.__name__ for body in chosen])
    failures = 0
    watch.begin()
    for body in chosen:
        _running = _Running(body.__name__)
        mark(f"{body.__name__} begins")
        detail = ""
        try:
            body()
        except _Cut:
            _running.cut()
        except Exception:  # pylint: disable=broad-except
            detail = traceback.format_exc()
            failures += 1
        if not _running.end(detail):
            time.sleep(600)  # the guest is being ended
        if detail and getattr(body, "essential", False):
            break
    watch.end()
    sys.exit(1 if failures else 0)


def essential(body):
    """Without this case the rest of the file means nothing."""
    body.essential = True
    return body


# --- the kernel log ---------------------------------------------------------------------------------

class KernelLog:
    """What the kernel says from now on."""

    def __init__(self):
        self.fd = os.open("/dev/kmsg", os.O_RDONLY | os.O_NONBLOCK)
        os.lseek(self.fd, 0, os.SEEK_END)

    def records(self):
        """(seconds of the kernel's clock, level, text) of each since the last call, in their order."""
        found = []
        while True:
            try:
                record = os.read(self.fd, 9000).decode("utf-8", "replace")
            except BlockingIOError:
                return found
            except OSError as error:
                if error.errno == errno.EPIPE:
                    continue
                raise
            head, _, text = record.partition(";")
            text = text.split("\n")[0]
            text = re.sub(r"\\x([0-9a-f]{2})", lambda match: chr(int(match.group(1), 16)), text)
            level, _, when_us, *_ = head.split(",")
            found.append((int(when_us) / 1e6, int(level) & 7, text))

    def lines(self):
        """(level, text) of each record since the last call."""
        return [(level, text) for _, level, text in self.records()]

    def texts(self):
        return [text for _, text in self.lines()]

    def expect(self, wanted, level=None):
        """That a line containing `wanted` has come, of that level."""
        seen = self.lines()
        for at, text in seen:
            if wanted in text:
                if level is not None:
                    equal(at, level, f"level of {text!r}")
                return
        raise Failed(f"no kernel log line has {wanted!r}; there were {[text for _, text in seen]}")

    def close(self):
        os.close(self.fd)


def times_of(records, *wanted):
    """When each of the lines came, the first that has it of records that KernelLog answered."""
    found = []
    for part in wanted:
        when = next((seconds for seconds, _, text in records if part in text), None)
        check(when is not None, f"no kernel log line has {part!r}; there were {[text for _, _, text in records]}")
        found.append(when)
    return found


ERROR_LEVEL = 3
INFO_LEVEL = 6


# --- the protocol -----------------------------------------------------------------------------------

class FilterNode(ctypes.Structure):
    _fields_ = [("hdd_name", ctypes.c_char * 1024), ("minor", ctypes.c_int32),
                ("extent_size", ctypes.c_uint32), ("bmp_dir", ctypes.c_char * 1024),
                ("uuid", ctypes.c_char * 39), ("name", ctypes.c_char * 128),
                ("reserved", ctypes.c_char)]


class SnapNode(ctypes.Structure):
    _fields_ = [("snbf_minor", ctypes.c_uint32), ("snap_minor", ctypes.c_int32),
                ("chunk_size", ctypes.c_uint32), ("cow_bmp_fname", ctypes.c_char * 1024),
                ("cow_data_fname", ctypes.c_char * 1024), ("uuid", ctypes.c_char * 39),
                ("name", ctypes.c_char * 128), ("reserved", ctypes.c_char)]


class DeviceList(ctypes.Structure):
    _fields_ = [("dev_type", ctypes.c_uint32), ("count", ctypes.c_uint32),
                ("minors", ctypes.c_uint32 * 256)]


class Info(ctypes.Structure):
    _fields_ = [("minor", ctypes.c_uint32), ("dev_type", ctypes.c_uint32),
                ("dev_size", ctypes.c_uint64), ("started", ctypes.c_uint32),
                ("use_cnt", ctypes.c_uint32), ("uuid", ctypes.c_char * 39),
                ("name", ctypes.c_char * 128), ("hdd_name", ctypes.c_char * 1024),
                ("reserved1", ctypes.c_char), ("extent_size", ctypes.c_uint32),
                ("extent_cnt", ctypes.c_uint32), ("snap_minors", ctypes.c_uint32 * 256),
                ("snap_cnt", ctypes.c_uint32), ("incr_bmp_size", ctypes.c_uint32),
                ("diff_bmp_size", ctypes.c_uint32), ("incr_bmp_fname", ctypes.c_char * 1024),
                ("diff_bmp_fname", ctypes.c_char * 1024), ("incr_bmp_empty", ctypes.c_uint32),
                ("diff_bmp_empty", ctypes.c_uint32), ("incr_bmp_full", ctypes.c_uint32),
                ("diff_bmp_full", ctypes.c_uint32), ("snap_valid", ctypes.c_uint32),
                ("stop_pending", ctypes.c_uint32), ("del_pending", ctypes.c_uint32),
                ("chunk_size", ctypes.c_uint32), ("chunk_cnt", ctypes.c_uint32),
                ("cow_bmp_size", ctypes.c_uint32), ("reserved2", ctypes.c_uint32),
                ("cow_data_size", ctypes.c_uint64), ("cow_bmp_fname", ctypes.c_char * 1024),
                ("cow_data_fname", ctypes.c_char * 1024)]


class BmpCommand(ctypes.Structure):
    _fields_ = [("minor", ctypes.c_uint32), ("type", ctypes.c_uint32), ("size", ctypes.c_int32),
                ("padding", ctypes.c_uint32), ("data", ctypes.c_uint64)]


class DatablockCommand(ctypes.Structure):
    _fields_ = [("minor", ctypes.c_uint32), ("extent_size", ctypes.c_uint32),
                ("size", ctypes.c_uint32), ("padding", ctypes.c_uint32), ("data", ctypes.c_uint64)]


COMMANDS = {
    "ADD_FILTER_NODE": 0xc8b04301, "ADD_SNAP_NODE": 0xc8b44302, "DEL_NODE": 0x40044303,
    "START_NODE": 0x40044304, "STOP_NODE": 0x40044305, "GET_DEVICE_LIST": 0xc4084306,
    "GET_INFO": 0xd9084307, "LOAD_BMP": 0x40084308, "SAVE_BMP": 0x40084309, "CLR_BMP": 0x4008430a,
    "SET_BMP": 0x4018430b, "MERGE_BMP": 0x4018430c, "GET_BMP": 0xc018430d,
    "GET_AND_CLR_BMP": 0xc018430e, "GET_DATABLOCK_BMP": 0xc018430f, "TEST_DATABLOCK": 0x44004310,
    "RESUME_SNAP": 0x40104311,
}

DIFF = 0
INCR = 1
BITMAPS = (DIFF, INCR)

for _record, _command in ((FilterNode, "ADD_FILTER_NODE"), (SnapNode, "ADD_SNAP_NODE"),
                          (DeviceList, "GET_DEVICE_LIST"), (Info, "GET_INFO"),
                          (BmpCommand, "GET_BMP"), (DatablockCommand, "GET_DATABLOCK_BMP")):
    assert ctypes.sizeof(_record) == (COMMANDS[_command] >> 16) & 0x3fff, _command


def control(command, record):
    """One command: 0, or the negative error number. Records that go back out are changed in place."""
    number = COMMANDS[command] if isinstance(command, str) else command
    fd = os.open(CONTROL, os.O_RDWR)
    try:
        fcntl.ioctl(fd, number, record, True)
        return 0
    except OSError as error:
        return -error.errno
    finally:
        os.close(fd)


def done(result, what):
    if result != 0:
        raise Failed(f"{what}: {errno.errorcode.get(-result, result)}")


def add(device, folder, minor=-1, extent_size=64 * KIB, name="", uuid=""):
    """(result, record) of ADD_FILTER_NODE."""
    record = FilterNode(hdd_name=device.encode(), minor=minor, extent_size=extent_size,
                        bmp_dir=folder.encode(), uuid=uuid.encode(), name=name.encode())
    return control("ADD_FILTER_NODE", record), record


def minor_command(command, minor):
    return control(command, bytearray(struct.pack("<I", minor & 0xffffffff)))


def start(minor):
    return minor_command("START_NODE", minor)


def stop(minor):
    return minor_command("STOP_NODE", minor)


def delete(minor):
    return minor_command("DEL_NODE", minor)


def info(minor):
    record = Info(minor=minor)
    done(control("GET_INFO", record), f"info of {minor}")
    return record


def minors(kind=1):
    record = DeviceList(dev_type=kind)
    done(control("GET_DEVICE_LIST", record), "list")
    return list(record.minors[:record.count])


def bmp_select(command, minor, kind):
    return control(command, bytearray(struct.pack("<II", minor & 0xffffffff, kind & 0xffffffff)))


def bmp_exchange(command, minor, kind, data):
    """GET_BMP and its family over a caller's buffer (a bytearray, changed in place)."""
    buffer = (ctypes.c_char * len(data)).from_buffer(data)
    record = BmpCommand(minor=minor, type=kind, size=len(data), data=ctypes.addressof(buffer))
    return control(command, record)


def bitmap(minor, kind, command="GET_BMP"):
    """The bitmap as bytes."""
    at = info(minor)
    data = bytearray(at.incr_bmp_size if kind == INCR else at.diff_bmp_size)
    done(bmp_exchange(command, minor, kind, data), f"{command} of {minor}")
    return bytes(data)


def clear(minor):
    for kind in BITMAPS:
        done(bmp_select("CLR_BMP", minor, kind), "clear")


_BITS = [[bit for bit in range(8) if byte >> bit & 1] for byte in range(256)]


def extents(data, count=None):
    """The numbers of the bits that are set; only the first `count` have a meaning."""
    found = {at * 8 + bit for at, byte in enumerate(data) if byte for bit in _BITS[byte]}
    return found if count is None else {number for number in found if number < count}


def marked(minor, kind):
    """Extents that the bitmap counts as changed."""
    return extents(bitmap(minor, kind), info(minor).extent_cnt)


def covering(offset, size, extent_size=64 * KIB):
    """Extents that a write touches."""
    return set(range(offset // extent_size, (offset + size - 1) // extent_size + 1)) if size else set()


# --- module, nodes, files ---------------------------------------------------------------------------

def run(*command, ok=True, **more):
    """Runs a program; its output, and a failure that shows it if it fails."""
    if len(command) == 1:
        command = command[0].split()
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            check=False, **more)
    if ok and result.returncode != 0:
        raise Failed(f"{' '.join(command)}: status {result.returncode}: {result.stdout[-2000:]}")
    return result.stdout


def load(**parameters):
    run("insmod", MODULE, *[f"{key}={value}" for key, value in parameters.items()])


def unload():
    run("rmmod", "snbf")


def loaded():
    return os.path.isdir("/sys/module/snbf")


def block_major():
    with open("/proc/devices", encoding="ascii") as lines:
        blocks = lines.read().partition("Block devices:")[2]
    for line in blocks.split("\n"):
        if line.strip().endswith(" snbf"):
            return int(line.split()[0])
    raise Failed("no block major of snbf in /proc/devices")


def node_path(name):
    return f"/dev/snbf/{name}"


def disk(name):
    """The device file of a disk that the runner gave: /dev/vdX."""
    return os.path.realpath(f"/dev/guest/{name}")


def size_of(device):
    fd = os.open(device, os.O_RDONLY)
    try:
        return os.lseek(fd, 0, os.SEEK_END)
    finally:
        os.close(fd)


@contextlib.contextmanager
def node(device, folder, begin=True, **more):
    """A filter node for the time of a block: added, started; stopped and deleted behind it."""
    os.makedirs(folder, exist_ok=True)
    result, record = add(device, folder, **more)
    done(result, f"add {device}")
    try:
        if begin:
            done(start(record.minor), "start")
        yield record
    finally:
        if info(record.minor).started:
            stop(record.minor)
        done(delete(record.minor), "delete")


CACHES = ("aio_item", "aio_block_cache", "cow_request", "cow_block")


def slabs():
    """The driver's slab caches that exist. The guest boots with slub_nomerge: each is its own."""
    with open("/proc/slabinfo", encoding="ascii") as lines:
        return [line.split()[0] for line in lines if line.split()[0] in CACHES]


def driver_threads():
    """The kernel's tasks that serve the driver, by number."""
    found = []
    for task in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{task}/comm", encoding="ascii", errors="replace") as name:
                if name.read().strip() in ("kdirtyd", "kcowd", "kparkd", "kflagd", "ksnapwatch"):
                    found.append(task)
        except OSError:
            pass
    return found


def try_unload():
    """What the kernel answers to one attempt: 0, or -EAGAIN while somebody uses the module."""
    libc = ctypes.CDLL(None, use_errno=True)
    delete_module = 176
    result = libc.syscall(ctypes.c_long(delete_module), b"snbf", ctypes.c_uint(os.O_NONBLOCK))
    return -ctypes.get_errno() if result < 0 else 0


def wait_until(condition, seconds=10, what="condition"):
    """For what another thread of the kernel does soon; the limit only ends a hang."""
    deadline = time.monotonic() + seconds * SLOWNESS
    while not condition():
        if time.monotonic() > deadline:
            raise Failed(f"{what}: not within {seconds} s")
        time.sleep(0.01)


def address_of(data):
    return ctypes.addressof((ctypes.c_char * len(data)).from_buffer(data))


def control_at(command, address):
    """One command whose record lies at an address that may be anything."""
    number = COMMANDS[command] if isinstance(command, str) else command
    libc = ctypes.CDLL(None, use_errno=True)
    fd = os.open(CONTROL, os.O_RDWR)
    try:
        ctypes.set_errno(0)
        result = libc.ioctl(ctypes.c_int(fd), ctypes.c_ulong(number), ctypes.c_void_p(address))
        return -ctypes.get_errno() if result < 0 else result
    finally:
        os.close(fd)


def partitions(device, count, size_mib):
    """Divides a disk into equal partitions and answers their device files."""
    script = "label: gpt\n" + "".join(f"size={size_mib}MiB\n" for _ in range(count))
    run("sfdisk", "-q", device, input=script)
    wait_until(lambda: os.path.exists(f"{device}{count}"), what=f"{device}{count}")
    return [f"{device}{number}" for number in range(1, count + 1)]


def state_folder(name="state", kind="ext4"):
    """A folder for bitmap files on a file system of its own, made and mounted."""
    device = disk(name)
    mount_point = f"/mnt/{name}"
    if not os.path.ismount(mount_point):
        os.makedirs(mount_point, exist_ok=True)
        if subprocess.run(["blkid", device], stdout=subprocess.DEVNULL, check=False).returncode != 0:
            run(f"mkfs.{kind}", "-q", device)
        run("mount", device, mount_point)
    return mount_point


def proc(field, minor=None):
    """The text of /proc/snbf/FIELD, or of a node's field, without its last newline."""
    path = f"/proc/snbf/{field}" if minor is None else f"/proc/snbf/snbf{minor}/{field}"
    with open(path, encoding="utf-8") as text:
        found = text.read()
    return found[:-1] if found.endswith("\n") else found


def crc32_register(data):
    """The checksum of bitmap files: the usual CRC-32 without its final inversion."""
    return ~zlib.crc32(data) & 0xffffffff


# --- snaps ------------------------------------------------------------------------------------------

def add_snap(filter_minor, stem, minor=-1, chunk_size=64 * KIB, name="", uuid=""):
    """(result, record) of ADD_SNAP_NODE; the COW files are STEM.bmp and STEM.data."""
    record = SnapNode(snbf_minor=filter_minor, snap_minor=minor, chunk_size=chunk_size,
                      cow_bmp_fname=f"{stem}.bmp".encode(), cow_data_fname=f"{stem}.data".encode(),
                      name=name.encode(), uuid=uuid.encode())
    return control("ADD_SNAP_NODE", record), record


def resume(minor, snap_valid=1, stop_pending=0, del_pending=0):
    return control("RESUME_SNAP", bytearray(struct.pack("<IIII", minor & 0xffffffff, snap_valid,
                                                        stop_pending, del_pending)))


def used_chunks(minor):
    """Numbers of the chunks that the snap's data-block map calls used: all, while it has no map."""
    at = info(minor)
    data = bytearray((at.chunk_cnt + 7) // 8)
    record = DatablockCommand(minor=minor, extent_size=at.chunk_size, size=len(data),
                              data=address_of(data))
    done(control("GET_DATABLOCK_BMP", record), f"data-block map of {minor}")
    return extents(bytes(data), at.chunk_cnt)
