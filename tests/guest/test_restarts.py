"""The bitmaps over unload and reload, over restarts, and over power cuts at several moments."""

import os
import struct

import kit
from kit import INCR, KIB

GUEST = {"quick": True, "minutes": 3, "disks": ["a:64M", "state:64M"], "limit": 300,
         "boots": ["reload!", "saved!", "unsaved!", "untrusted!", "quiet"]}

DISTRUST = ("is dirty", "is corrupt", "invalid size", "invalid checksum", "Failed to open file")
MINOR = 3
NODE = f"/dev/snbf/snbf{MINOR}"


def attach():
    """Loads, adds the node, and answers the lines of distrust that the load of its bitmaps brought."""
    folder = kit.state_folder()
    if not kit.loaded():
        kit.load()
    log = kit.KernelLog()
    result, _ = kit.add(kit.disk("a"), folder, minor=MINOR)
    kit.done(result, "add")
    said = [text for text in log.texts() if any(word in text for word in DISTRUST)]
    log.close()
    return said


def write_extents(numbers):
    fd = os.open(NODE, os.O_WRONLY)
    for number in numbers:
        os.pwrite(fd, os.urandom(512), number * 64 * KIB + 1024)
    os.fsync(fd)
    return fd


def both():
    return [kit.marked(MINOR, kind) for kind in kit.BITMAPS]


def file_of(kind):
    return f"/mnt/state/snbf{MINOR}.{kind}"


def header(kind):
    with open(file_of(kind), "rb") as saved:
        return saved.read(8)


def make_durable():
    """What the cut must not take is on the disk of the bitmap files, and their file system has it whole."""
    os.sync()


@kit.case(boot="reload")
def a_new_node_counts_everything_as_changed():
    kit.check(any("Failed to open file" in text for text in attach()), "the missing files are reported")
    kit.equal(both(), [set(range(1024))] * 2, "bitmaps")


@kit.case(boot="reload")
def bitmaps_survive_stop_delete_and_reload():
    kit.clear(MINOR)
    kit.done(kit.start(MINOR), "start")
    os.close(write_extents([2, 3, 900]))
    kit.done(kit.stop(MINOR), "stop")
    kit.done(kit.delete(MINOR), "delete")
    kit.unload()
    kit.equal(attach(), [], "distrust")
    kit.equal(both(), [{2, 3, 900}] * 2, "bitmaps")


@kit.case(boot="reload")
def the_unload_itself_saves_them():
    kit.done(kit.start(MINOR), "start")
    kit.done(kit.bmp_select("CLR_BMP", MINOR, INCR), "clear")
    os.close(write_extents([5]))
    kit.unload()
    kit.equal(attach(), [], "distrust")
    kit.equal(both(), [{2, 3, 5, 900}, {5}], "bitmaps")


@kit.case(boot="reload")
def other_extents_make_the_files_useless():
    kit.done(kit.delete(MINOR), "delete")
    log = kit.KernelLog()
    result, _ = kit.add(kit.disk("a"), "/mnt/state", minor=MINOR, extent_size=128 * KIB)
    kit.done(result, "add")
    log.expect("contains bitmap of invalid size")
    kit.equal(both(), [set(range(512))] * 2, "bitmaps")
    kit.done(kit.delete(MINOR), "delete")
    kit.equal(attach(), [], "a load alone spoils nothing")


@kit.case(boot="reload")
def cut_after_a_stop():
    kit.clear(MINOR)
    kit.done(kit.start(MINOR), "start")
    os.close(write_extents([1, 7]))
    kit.done(kit.stop(MINOR), "stop")
    make_durable()
    kit.crash()


@kit.case(boot="saved")
def what_a_stop_saved_is_trusted_after_the_cut():
    kit.equal(attach(), [], "distrust")
    kit.equal(both(), [{1, 7}] * 2, "bitmaps")


@kit.case(boot="saved")
def cut_while_changes_are_only_in_memory():
    kit.done(kit.start(MINOR), "start")
    kit.clear(MINOR)
    fd = write_extents([11])
    for kind in ("incr", "diff"):
        kit.wait_until(lambda kind=kind: header(kind) == b"SNBFBMP\1", what="the dirty flag on disk")
        kit.equal(os.path.getsize(file_of(kind)), 8, "a dirty file holds nothing to trust")
    make_durable()
    kit.check(fd >= 0, "the node is open at the cut")
    kit.crash()


@kit.case(boot="unsaved")
def changes_that_no_file_holds_make_everything_count_as_changed():
    said = attach()
    kit.equal(len([text for text in said if "is dirty. Ignoring file contents." in text]), 2, "lines")
    kit.equal(both(), [set(range(1024))] * 2, "bitmaps")
    kit.equal([kit.proc(f"{kind}_bmp_dirty", MINOR) for kind in ("incr", "diff")], ["1", "1"], "dirty")


@kit.case(boot="unsaved")
def cut_with_a_torn_file():
    kit.done(kit.start(MINOR), "start")
    kit.clear(MINOR)
    with open(file_of("incr"), "r+b") as saved:
        saved.truncate(100)
    with open(file_of("diff"), "r+b") as saved:
        saved.seek(60)
        saved.write(b"\x01")
    make_durable()
    kit.crash()


@kit.case(boot="untrusted")
def torn_and_spoilt_files_are_not_trusted():
    said = attach()
    kit.equal(len([text for text in said if "invalid checksum. Ignoring file contents." in text]), 2, "lines")
    kit.equal(both(), [set(range(1024))] * 2, "bitmaps")


@kit.case(boot="untrusted")
def cut_of_a_quiet_node():
    kit.done(kit.start(MINOR), "start")
    kit.clear(MINOR)
    fd = os.open(NODE, os.O_RDONLY)
    kit.check(len(os.read(fd, 4096)) == 4096, "reads are no changes")
    make_durable()
    kit.crash()


@kit.case(boot="quiet")
def a_quiet_node_is_trusted_after_the_cut():
    kit.equal(attach(), [], "distrust")
    kit.equal(both(), [set(), set()], "bitmaps")
    with open(file_of("incr"), "rb") as saved:
        kit.equal(saved.read(), b"SNBFBMP\0" + struct.pack("<II", 128, kit.crc32_register(bytes(128))) + bytes(128),
                  "file")


@kit.case(boot="quiet")
def it_unloads():
    kit.unload()
    kit.equal(kit.slabs(), [], "slab caches")


if __name__ == "__main__":
    kit.main()
