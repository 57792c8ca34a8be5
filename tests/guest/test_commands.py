"""The whole command set against real partitions: what each does, each refusal, and its message."""

import collections
import contextlib
import errno
import os
import re
import stat
import struct
import threading

import kit
from kit import ERROR_LEVEL, INFO_LEVEL, KIB, MIB

GUEST = {"quick": "every", "disks": ["p:192M", "state:64M", "whole:40M"], "limit": 400}

parts = []
state = ""
log = None
MAJOR = 100
ADD = "snbf_ioctl_add_filter_node"
BMP_HANDLERS = {"GET_BMP": "snbf_ioctl_get_bmp", "GET_AND_CLR_BMP": "snbf_ioctl_get_and_clr_bmp",
                "SET_BMP": "snbf_ioctl_set_bmp", "MERGE_BMP": "snbf_ioctl_merge_bmp"}
SEL_HANDLERS = {"CLR_BMP": "snbf_ioctl_clr_bmp", "LOAD_BMP": "snbf_ioctl_load_bmp",
                "SAVE_BMP": "snbf_ioctl_save_bmp"}


def refused(result, wanted_errno, message=None):
    """The error number, and the message as an error line; no message: no error line at all."""
    kit.equal(errno.errorcode.get(-result, result), errno.errorcode[wanted_errno], "result")
    if message is not None:
        log.expect("ERROR: " + message, ERROR_LEVEL)
    else:
        kit.equal([text for level, text in log.lines() if level == ERROR_LEVEL], [], "error lines")


@kit.case
@kit.essential
def the_module_loads_and_says_so():
    global log, state
    parts.extend(kit.partitions(kit.disk("p"), 5, 32))
    state = kit.state_folder()
    log = kit.KernelLog()
    kit.load()
    texts = log.texts()
    for wanted in (r"\d{4}: snbf_init\(\): Initializing the driver\.$",
                   r"\d{4}: snbf_init\(\): Built: \w{3} [ \d]\d \d{4} \d\d:\d\d:\d\d$",
                   r"\d{4}: snbf_init\(\): UTS_RELEASE: 6\.", r"\d{4}: snbf_init\(\): rc=0$"):
        kit.check(any(re.match(wanted, text) for text in texts), f"{wanted} is not in {texts}")


@kit.case
def the_control_device_is_there_and_for_root_alone():
    found = os.stat(kit.CONTROL)
    kit.check(stat.S_ISCHR(found.st_mode), "a character device")
    kit.equal(stat.S_IMODE(found.st_mode), 0o600, "mode")
    kit.equal(os.major(found.st_rdev), int(kit.proc("chr_major")), "major")


@kit.case
def the_parameters_have_their_defaults_and_are_read_only():
    for name, value in (("snbf_chr_major", 100), ("snbf_debug", 1), ("snbf_max_blk_minor", 255),
                        ("snbf_blk_major", 100)):
        path = f"/sys/module/snbf/parameters/{name}"
        with open(path, encoding="ascii") as text:
            kit.equal(int(text.read()), value, name)
        kit.equal(stat.S_IMODE(os.stat(path).st_mode), 0o444, f"mode of {name}")
    kit.equal(kit.block_major(), MAJOR, "block major")


@kit.case
def reading_and_writing_the_control_device_does_nothing():
    fd = os.open(kit.CONTROL, os.O_RDWR)
    kit.equal(os.read(fd, 100), b"", "read")
    kit.equal(os.write(fd, b"x"), 0, "write")
    os.close(fd)


@kit.case
def foreign_and_unknown_commands_are_inappropriate():
    log.lines()
    refused(kit.control(0x80041270, bytearray(4)), errno.ENOTTY)
    refused(kit.control(0x40044363, bytearray(4)), errno.ENOTTY,
            f"snbf_char_ioctl(): Inappropriate ioctl cmd={0x40044363}")
    unknown = 0xc0044364
    refused(kit.control(unknown, bytearray(4)), errno.ENOTTY,
            f"snbf_char_ioctl(): Inappropriate ioctl cmd={unknown - (1 << 32)}")


@kit.case
def bad_addresses_are_faults():
    log.lines()
    for command in kit.COMMANDS:
        refused(kit.control_at(command, 0xffff888000000000), errno.EFAULT)
        refused(kit.control_at(command, 0xfffffffffffffff0), errno.EFAULT)
        refused(kit.control_at(command, 4096), errno.EFAULT,
                "snbf_char_ioctl(): copy_from_user() failed.")


@kit.case
def unknown_minors_are_refused_by_every_command():
    for minor in (0, 255, 256, 0x7fffffff, 0xffffffff):
        shown = minor if minor < 1 << 31 else minor - (1 << 32)
        for command, handler in (("START_NODE", "snbf_ioctl_start_node"),
                                 ("STOP_NODE", "snbf_ioctl_stop_node"),
                                 ("DEL_NODE", "snbf_ioctl_del_node")):
            log.lines()
            refused(kit.minor_command(command, minor), errno.EINVAL,
                    f"{handler}(): Nothing is known about snbf({MAJOR}, {shown})")
        for command in ("GET_INFO", "LOAD_BMP", "SAVE_BMP", "CLR_BMP", "SET_BMP", "MERGE_BMP",
                        "GET_BMP", "GET_AND_CLR_BMP", "GET_DATABLOCK_BMP"):
            record = bytearray(struct.pack("<I", minor)).ljust(kit.COMMANDS[command] >> 16 & 0x3fff, b"\0")
            refused(kit.control(command, record), errno.EINVAL,
                    f"snbf_char_ioctl(): Invalid SNBF minor={shown}")


@kit.case
def commands_of_snaps_refuse_records_of_zeros():
    for command in ("ADD_SNAP_NODE", "TEST_DATABLOCK"):
        size = kit.COMMANDS[command] >> 16 & 0x3fff
        kit.equal(kit.control(command, bytearray(size)), -errno.EINVAL, command)


@kit.case
def adding_refuses_what_is_no_partition():
    log.lines()
    refused(kit.add("", state)[0], errno.EINVAL, f"{ADD}(): Empty HDD name passed as input.")
    refused(kit.add("/dev/no/such", state)[0], errno.ENOENT,
            f"{ADD}(): Unable to lookup /dev/no/such: rc=-2")
    for path in ("/dev/null", "/etc/passwd", "/etc"):
        refused(kit.add(path, state)[0], errno.EINVAL, f"{ADD}(): {path} is not a block device.")


@kit.case
def adding_refuses_extents_of_a_wrong_size():
    log.lines()
    for size in (0, 12288, 65535):
        refused(kit.add(parts[0], state, extent_size=size)[0], errno.EINVAL,
                f"{ADD}(): Extent size must be a power of 2")
    refused(kit.add(parts[0], state, extent_size=256)[0], errno.EINVAL,
            f"{ADD}(): Extent size must be a multiple of block size (")
    refused(kit.add(parts[0], state, extent_size=2048)[0], errno.EINVAL,
            f"{ADD}(): Extent size ")


@kit.case
def adding_refuses_a_partition_in_use():
    log.lines()
    fd = os.open(parts[0], os.O_RDONLY)
    refused(kit.add(parts[0], state)[0], errno.EBUSY,
            f"{ADD}(): Can't attach to an open HDD device {parts[0]}")
    os.close(fd)
    refused(kit.add(kit.disk("state"), state)[0], errno.EBUSY,
            f"{ADD}(): Can't attach to mounted HDD device {kit.disk('state')}")


@kit.case
def adding_refuses_minors_that_are_too_big_or_taken():
    log.lines()
    refused(kit.add(parts[0], state, minor=256)[0], errno.EINVAL,
            f"{ADD}(): Minor number 256 is too big: max=255")
    with kit.node(parts[0], state, begin=False, minor=7):
        refused(kit.add(parts[1], state, minor=7)[0], errno.EINVAL,
                f"{ADD}(): Device minor number 7 is already taken")


@kit.case
def a_refused_record_comes_back_as_it_went():
    result, record = kit.add("/dev/no/such", state, minor=-5)
    kit.equal(result, -errno.ENOENT, "result")
    kit.equal((record.minor, record.uuid, record.name), (-5, b"", b""), "record")


@kit.case
def an_added_node_says_what_it_is():
    log.lines()
    with kit.node(parts[0], state, begin=False) as record:
        texts = log.texts()
        line = f"{ADD}(): Adding new node: HDD={parts[0]}, snbf_minor=-1, extent_size=65536, bmap_dir={state}"
        kit.check(any(text.endswith(line) for text in texts), f"{line} is not in {texts}")
        kit.equal(record.minor, 0, "the lowest free minor")
        kit.equal(record.name, b"snbf0", "name")
        kit.check(re.fullmatch(rb"\{[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\}",
                               record.uuid), f"uuid {record.uuid!r}")
        found = kit.info(0)
        kit.equal((found.dev_type, found.started, found.use_cnt), (1, 0, 0), "kind and state")
        kit.equal((found.dev_size, found.extent_size, found.extent_cnt), (32 * MIB, 64 * KIB, 512), "geometry")
        kit.equal((found.incr_bmp_size, found.diff_bmp_size, found.snap_cnt), (64, 64, 0), "sizes")
        kit.equal((found.name, found.uuid, found.hdd_name), (record.name, record.uuid, parts[0].encode()), "texts")
        kit.equal(found.incr_bmp_fname, f"{state}/snbf0.incr".encode(), "file")
        kit.equal(found.diff_bmp_fname, f"{state}/snbf0.diff".encode(), "file")
        kit.equal((found.incr_bmp_full, found.diff_bmp_full, found.incr_bmp_empty, found.diff_bmp_empty),
                  (1, 1, 0, 0), "a bitmap without a file counts everything as changed")
        kit.equal(kit.minors(), [0], "list")
        kit.equal(kit.minors(2), [], "list of snaps")


@kit.case
def a_second_node_over_a_partition_is_refused():
    with kit.node(parts[0], state, begin=False) as record:
        log.lines()
        refused(kit.add(parts[0], state)[0], errno.EINVAL,
                f"{ADD}(): Found a duplicate snbf{record.minor} node going to the same HDD device {parts[0]}")


@kit.case
def the_list_knows_two_kinds():
    log.lines()
    for kind in (0, 3, 0xffffffff):
        refused(kit.control("GET_DEVICE_LIST", kit.DeviceList(dev_type=kind)), errno.EINVAL,
                f"snbf_get_device_list_node(): Invalid device type 0x{kind:02x} passed as input.")


@kit.case
def free_minors_are_filled_from_below():
    with kit.node(parts[0], state, begin=False), kit.node(parts[1], state, begin=False, minor=1):
        with kit.node(parts[2], state, begin=False) as third:
            kit.equal(third.minor, 2, "minor")
        kit.equal(kit.minors(), [0, 1], "list")


@kit.case
def the_highest_minor_works_and_is_never_listed():
    with kit.node(parts[0], state, minor=255, name="high") as record:
        kit.equal(kit.minors(), [], "list")
        kit.equal(kit.info(255).name, b"high", "name")
        kit.equal(kit.size_of("/dev/snbf/snbf255"), 32 * MIB, "size")
        kit.equal(record.minor, 255, "minor")


@kit.case
def a_stopped_node_cannot_be_opened_and_a_started_one_can():
    with kit.node(parts[0], state, begin=False) as record:
        log.lines()
        try:
            os.close(os.open("/dev/snbf/snbf0", os.O_RDONLY))
            raise kit.Failed("a stopped node opened")
        except OSError as error:
            kit.equal(error.errno, errno.EIO, "open of a stopped node")
        log.expect(f"snbf_block_open(): snbf({MAJOR}, 0) hasn't been started yet.", ERROR_LEVEL)
        kit.equal(kit.info(0).use_cnt, 0, "use count")
        kit.done(kit.start(record.minor), "start")
        log.expect(f"snbf_ioctl_start_node(): Starting snbf({MAJOR}, 0)", INFO_LEVEL)
        refused(kit.start(record.minor), errno.EALREADY,
                f"snbf_block_start_device(): snbf({MAJOR}, 0) has already been started")
        first = os.open("/dev/snbf/snbf0", os.O_RDONLY)
        kit.equal(kit.info(0).use_cnt, 1, "use count")
        refused(kit.stop(0), errno.EBUSY, f"snbf_block_stop_device(): snbf({MAJOR}, 0) is still being used.")
        refused(kit.delete(0), errno.EBUSY, f"snbf_block_stop_device(): snbf({MAJOR}, 0) is still being used.")
        os.close(first)
        kit.equal(kit.info(0).use_cnt, 0, "use count")
        kit.equal(kit.stop(0), 0, "stop")
        kit.equal(kit.stop(0), 0, "stop of a stopped node")


@kit.case
def the_partition_is_claimed_while_a_node_lies_on_it():
    kit.run("mkfs.ext4", "-q", "-F", parts[1])
    with kit.node(parts[1], state):
        text = kit.run("mount", parts[1], "/mnt", ok=False)
        kit.check("busy" in text or "already mounted" in text, f"mounting the partition: {text}")
        kit.check(kit.run("mkfs.ext4", "-q", "-F", parts[1], ok=False) != "", "mkfs on the partition")
    os.makedirs("/mnt/free", exist_ok=True)
    kit.run("mount", parts[1], "/mnt/free")
    kit.run("umount", "/mnt/free")


@kit.case
def the_node_answers_for_its_partition():
    with kit.node(parts[0], state):
        for query in ("--getsize64", "--getss", "--getpbsz", "--getiomin", "--getioopt", "--getmaxsect"):
            kit.equal(kit.run("blockdev", query, "/dev/snbf/snbf0"), kit.run("blockdev", query, parts[0]), query)
        queue = "/sys/block/snbf0/queue"
        with open(f"{queue}/rotational", encoding="ascii") as mine, \
                open(f"/sys/block/{os.path.basename(kit.disk('p'))}/queue/rotational", encoding="ascii") as its:
            kit.equal(mine.read(), its.read(), "rotational")
        with open(f"{queue}/write_cache", encoding="ascii") as text:
            kit.equal(text.read().strip(), "write back", "write cache")


@kit.case
def the_status_tree_shows_the_node():
    with kit.node(parts[0], state, name="data", uuid="{x}", minor=200) as record:
        wanted = {"dev_type": "filter", "minor": "200", "uuid": "{x}", "name": "data",
                  "dev_name": "/dev/snbf/snbf200", "started": "1", "use_cnt": "0", "hdd_name": parts[0],
                  "extent_size": "65536", "extent_cnt": "512", "dev_size": str(32 * MIB), "bmp_dir": state,
                  "incr_bmp_size": "64", "diff_bmp_size": "64", "cowqueue_len": "0", "snaps": "",
                  "snap_minor": "", "incr_bmp_dirty": "1", "diff_bmp_dirty": "1",
                  "hdd_major": str(os.major(os.stat(parts[0]).st_rdev)),
                  "hdd_minor": str(os.minor(os.stat(parts[0]).st_rdev))}
        kit.equal({name: kit.proc(name, record.minor) for name in os.listdir("/proc/snbf/snbf200")}, wanted, "tree")
        for name in wanted:
            kit.equal(stat.S_IMODE(os.stat(f"/proc/snbf/snbf200/{name}").st_mode), 0o444, name)
    kit.check(not os.path.exists("/proc/snbf/snbf200"), "the tree of a deleted node is gone")
    kit.equal(sorted(os.listdir("/proc/snbf")), ["blk_major", "chr_major", "debug"], "tree")


@kit.case
def the_verbosity_can_be_set():
    def write(data):
        fd = os.open("/proc/snbf/debug", os.O_WRONLY)
        try:
            return os.write(fd, data)
        except OSError as error:
            return -error.errno
        finally:
            os.close(fd)
    kit.equal(write(b"3\n"), 2, "a number")
    kit.equal(kit.proc("debug"), "3", "debug")
    for bad in (b"3x\n", b"x\n", b"1" * 1025):
        kit.equal(write(bad), -errno.EINVAL, repr(bad[:4]))
    kit.equal(kit.proc("debug"), "3", "debug")
    kit.equal(write(b"0 "), 2, "a blank behind it")
    log.lines()
    with kit.node(parts[0], state, begin=False):
        pass
    kit.equal([text for level, text in log.lines() if "snbf_" in text and level != ERROR_LEVEL], [],
              "lines at level 0")
    kit.equal(write(b"4\n"), 2, "all")
    with kit.node(parts[0], state):
        with open("/dev/snbf/snbf0", "rb") as node:
            node.read(4096)
    kit.check(any("sector=" in text and "rw=0" in text for text in log.texts()), "requests are traced")
    kit.equal(write(b"1\n"), 2, "back")


@kit.case
def the_bitmap_commands_refuse_wrong_types_sizes_and_buffers():
    with kit.node(parts[0], state, begin=False):
        for command, handler in SEL_HANDLERS.items():
            for kind, shown in ((2, 2), (0xffffffff, -1)):
                log.lines()
                refused(kit.bmp_select(command, 0, kind), errno.EINVAL,
                        f"{handler}(): Invalid bitmap type {shown} (should be either 1 or 0)")
        for command, handler in BMP_HANDLERS.items():
            log.lines()
            refused(kit.bmp_exchange(command, 0, 2, bytearray(1)), errno.EINVAL,
                    f"{handler}(): Invalid bitmap type 2 (should be either 1 or 0)")
            for size in (63, 65):
                refused(kit.bmp_exchange(command, 0, kit.INCR, bytearray(size)), errno.EINVAL,
                        f"{handler}(): Invalid bitmap size {size}. Should have been 64")
            record = kit.BmpCommand(minor=0, type=kit.INCR, size=64, data=0)
            if command != "SET_BMP":
                refused(kit.control(command, record), errno.EINVAL,
                        f"{handler}(): NULL bitmap data pointer passed as input")
            else:
                refused(kit.control(command, record), errno.EINVAL, f"{handler}(): ")
                refused(kit.control(command, kit.BmpCommand(minor=0, type=1, size=0, data=4096)), errno.EINVAL,
                        f"{handler}(): ")
            log.lines()
            for address in (4096, 0xffff888000000000):
                record = kit.BmpCommand(minor=0, type=kit.INCR, size=64, data=address)
                refused(kit.control(command, record), errno.EFAULT, f"{handler}(): Failed to copy")


@kit.case
def bitmaps_are_set_merged_cleared_and_handed_out():
    with kit.node(parts[0], state, begin=False):
        for kind, other in ((kit.INCR, kit.DIFF), (kit.DIFF, kit.INCR)):
            kit.clear(0)
            pattern = bytearray(os.urandom(64))
            kit.done(kit.bmp_exchange("SET_BMP", 0, kind, bytearray(pattern)), "set")
            kit.equal(kit.bitmap(0, kind), bytes(pattern), "what was set")
            kit.equal(kit.bitmap(0, other), bytes(64), "the other one")
            more = bytearray(os.urandom(64))
            kit.done(kit.bmp_exchange("MERGE_BMP", 0, kind, bytearray(more)), "merge")
            merged = bytes(one | two for one, two in zip(pattern, more))
            kit.equal(kit.bitmap(0, kind), merged, "what was merged")
            kit.equal(kit.bitmap(0, kind, "GET_AND_CLR_BMP"), merged, "handed out")
            kit.equal(kit.bitmap(0, kind), bytes(64), "behind it")
            kit.equal((kit.info(0).incr_bmp_empty, kit.info(0).diff_bmp_empty), (1, 1), "empty")
            kit.done(kit.control("SET_BMP", kit.BmpCommand(minor=0, type=kind)), "fill")
            kit.equal(kit.bitmap(0, kind), b"\xff" * 64, "filled")


@kit.case
def a_buffer_that_was_never_touched_can_be_filled():
    import mmap
    with kit.node(parts[0], state, begin=False):
        fresh = mmap.mmap(-1, 4096)
        kit.done(kit.control("GET_BMP", kit.BmpCommand(minor=0, type=1, size=64,
                                                       data=kit.address_of(fresh))), "get")


@kit.case
def a_change_command_reaches_the_file():
    with kit.node(parts[0], state, begin=False, minor=9):
        pattern = os.urandom(64)
        for kind, name in ((kit.INCR, "incr"), (kit.DIFF, "diff")):
            kit.done(kit.bmp_exchange("SET_BMP", 9, kind, bytearray(pattern)), "set")
            with open(f"{state}/snbf9.{name}", "rb") as saved:
                kit.equal(saved.read(), b"SNBFBMP\0" + struct.pack("<II", 64, kit.crc32_register(pattern)) + pattern,
                          "file")
            kit.equal(stat.S_IMODE(os.stat(f"{state}/snbf9.{name}").st_mode), 0o600, "mode")
            kit.equal(kit.proc(f"{name}_bmp_dirty", 9), "0", "dirty")


@kit.case
def a_file_that_cannot_be_trusted_means_all_ones():
    good = b"SNBFBMP\0" + struct.pack("<II", 64, kit.crc32_register(bytes(64))) + bytes(64)
    path = f"{state}/snbf9.incr"
    with kit.node(parts[0], state, begin=False, minor=9):
        for data, result, message in (
                (good, 0, None),
                (b"SNBFBMQ" + good[7:], -errno.EIO, f"File {path} is corrupt: Invalid prefix."),
                (b"SNBFBMP\1", 0, f"File {path} is dirty. Ignoring file contents."),
                (good[:8] + struct.pack("<I", 65) + good[12:], 0,
                 f"File {path} contains bitmap of invalid size. Ignoring file contents."),
                (good[:40] + b"\x10" + good[41:], 0, f"File {path} has invalid checksum. Ignoring file contents."),
                (good[:79], 0, f"File {path} has invalid checksum. Ignoring file contents."),
                (good[:10], 0, "invalid checksum"), (b"", -errno.EIO, "Invalid prefix"),
                (None, -errno.EIO, f"Failed to open file {path} for ")):
            if data is None:
                os.unlink(path)
            else:
                with open(path, "wb") as out:
                    out.write(data)
            log.lines()
            kit.equal(kit.bmp_select("LOAD_BMP", 9, kit.INCR), result, f"load of {data!r}")
            if message:
                log.expect(message, ERROR_LEVEL)
            kit.equal(kit.bitmap(9, kit.INCR), bytes(64) if data == good else b"\xff" * 64, repr(message))
            kit.equal(kit.proc("incr_bmp_dirty", 9), "0" if data == good else "1", "dirty")
        kit.done(kit.bmp_select("SAVE_BMP", 9, kit.INCR), "save")
        kit.equal(os.path.getsize(path), 80, "the next save writes a whole file")


@kit.case
def a_bitmap_file_below_the_node_itself_is_refused():
    folder = "/mnt/self"
    os.makedirs(folder, exist_ok=True)
    with kit.node(parts[1], folder):  # mkfs.ext4 was run on it above
        kit.run("mkfs.ext4", "-q", "-F", "/dev/snbf/snbf0")
        kit.run("mount", "/dev/snbf/snbf0", folder)
        try:
            log.lines()
            refused(kit.bmp_select("SAVE_BMP", 0, kit.INCR), errno.EINVAL, "snbf_block_save_bmp(): Can't save "
                    f"bitmap to {folder}/snbf0.incr. The file must be moved to a different partition.")
            kit.equal(kit.bmp_select("CLR_BMP", 0, kit.INCR), 0, "a change command does not report it")
            kit.equal(kit.proc("incr_bmp_dirty", 0), "1", "dirty")
        finally:
            kit.run("umount", folder)


@kit.case
def slashes_at_the_end_of_the_folder_go():
    with kit.node(parts[0], state + "///", begin=False):
        kit.equal(kit.info(0).incr_bmp_fname, f"{state}/snbf0.incr".encode(), "file")


@kit.case
def iostat_counts_the_node():
    def counters():
        with open("/sys/block/snbf0/stat", encoding="ascii") as text:
            return [int(word) for word in text.read().split()]
    with kit.node(parts[0], state):
        before = counters()
        kit.run("dd", "if=/dev/zero", "of=/dev/snbf/snbf0", "bs=64k", "count=10", "oflag=direct")
        kit.run("dd", "if=/dev/snbf/snbf0", "of=/dev/null", "bs=64k", "count=7", "iflag=direct")
        after = counters()
        kit.equal((after[0] - before[0], after[2] - before[2]), (7, 7 * 128), "reads")
        kit.check(after[4] - before[4] >= 10, "writes")
        kit.equal(after[6] - before[6], 10 * 128, "sectors written")


@kit.case
def odd_sizes_have_a_last_extent():
    # 40 MiB in extents of 16 MiB: the third is half outside.
    with kit.node(kit.disk("whole"), state, extent_size=16 * MIB):
        kit.equal((kit.info(0).extent_cnt, kit.info(0).incr_bmp_size), (3, 1), "geometry")
        kit.clear(0)
        fd = os.open("/dev/snbf/snbf0", os.O_WRONLY)
        os.pwrite(fd, b"x" * 512, 40 * MIB - 512)
        os.fsync(fd)
        os.close(fd)
        kit.equal(kit.marked(0, kit.INCR), {2}, "the last extent")


@kit.case
def the_module_unloads_only_when_unused_and_takes_everything_along():
    kit.done(kit.add(parts[0], state)[0], "add")
    kit.done(kit.start(0), "start")
    fd = os.open("/dev/snbf/snbf0", os.O_RDONLY)
    kit.check("in use" in kit.run("rmmod snbf", ok=False), "an open node keeps the module")
    os.close(fd)
    log.lines()
    kit.unload()
    log.expect("snbf_cleanup(): The driver is being unloaded.", INFO_LEVEL)
    for path in ("/dev/snbf/snbf0", kit.CONTROL, "/proc/snbf", "/sys/block/snbf0"):
        kit.wait_until(lambda path=path: not os.path.lexists(path), what=f"{path} is gone")
    kit.equal(kit.slabs(), [], "slab caches")


@kit.case
def other_majors_and_fewer_minors_can_be_asked_for():
    kit.load(snbf_chr_major=0, snbf_blk_major=0, snbf_max_blk_minor=2, snbf_debug=2)
    try:
        with contextlib.ExitStack() as nodes:
            for number in range(3):
                nodes.enter_context(kit.node(parts[number], state, begin=False))
            log.lines()
            refused(kit.add(parts[3], state)[0], errno.ENOSPC,
                    f"{ADD}(): All 3 of SNBF minor nodes have already been used up.")
            kit.equal(kit.minors(), [0, 1], "the highest is not listed")
        kit.check(int(kit.proc("blk_major")) > 0, "a major of the kernel's choice")
        kit.equal(kit.block_major(), int(kit.proc("blk_major")), "block major")
    finally:
        kit.unload()


@kit.case
def bad_parameters_fail_the_load():
    log.lines()
    kit.check(kit.run("insmod", kit.MODULE, "snbf_max_blk_minor=-1", ok=False) != "", "a negative highest minor")
    kit.check(not kit.loaded(), "not loaded")
    kit.check(kit.run("insmod", kit.MODULE, "snbf_blk_major=254", ok=False) != "", "a block major that is taken")
    texts = log.texts()
    kit.check(any("snbf_block_init(): Failed to register block device: rc=-16." in text for text in texts), texts)
    kit.check(not os.path.exists("/proc/snbf") and not os.path.exists(kit.CONTROL), "undone")
    kit.load()
    kit.unload()


@contextlib.contextmanager
def no_modprobe():
    """The kernel looks for no module of a major that nobody serves."""
    setting = "/proc/sys/kernel/modprobe"
    with open(setting, encoding="ascii") as loader:
        usual = loader.read()
    with open(setting, "w", encoding="ascii") as loader:
        loader.write("\n")
    try:
        yield
    finally:
        with open(setting, "w", encoding="ascii") as loader:
            loader.write(usual)


@kit.case
def a_load_that_fails_was_never_open_to_anybody():
    """Whoever had the control device open then would go on in freed memory."""
    path = "/tmp/control"
    os.mknod(path, stat.S_IFCHR | 0o600, os.makedev(MAJOR, 0))
    ended = threading.Event()
    answers = collections.Counter()

    def knock():
        while not ended.is_set():
            try:
                os.close(os.open(path, os.O_RDWR))
                answers[0] += 1
            except OSError as error:
                answers[error.errno] += 1

    knocker = threading.Thread(target=knock)
    with no_modprobe():
        knocker.start()
        for _ in range(40):
            kit.check(kit.run("insmod", kit.MODULE, "snbf_blk_major=254", ok=False) != "", "a major that is taken")
        ended.set()
        knocker.join()
    kit.equal(set(answers), {errno.ENXIO}, "answers to whoever opens")
    kit.check(answers[errno.ENXIO] > 1000, f"{answers} tries")
    kit.load()
    os.close(os.open(path, os.O_RDWR))
    kit.unload()


if __name__ == "__main__":
    kit.main()
