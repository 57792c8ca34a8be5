"""What only the library can see to: whose bitmap files they are, where stores really lie, and stores that go away."""

import contextlib
import os

import kit
import mapper
from kit import KIB, MIB
from tool import answer, good, refused, tool

GUEST = {"minutes": 2, "kernels": "installed",
         "disks": ["p:64M", "a:96M", "b:48M", "state:64M", "store:32M"], "limit": 300}

STATE = "/mnt/state"
STORE = "/mnt/store"
parts = []


@contextlib.contextmanager
def mounted(device, folder, make=True):
    if make:
        kit.run("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", device)
    os.makedirs(folder, exist_ok=True)
    kit.run("mount", device, folder)
    try:
        yield folder
    finally:
        kit.run("umount", folder)


@contextlib.contextmanager
def loop_over(file, size):
    with open(file, "wb") as image:
        image.truncate(size)
    device = kit.run("losetup", "--find", "--show", file).strip()
    try:
        yield device
    finally:
        kit.run("losetup", "-d", device)


@contextlib.contextmanager
def mapped(name, device):
    above = mapper.Mapped(name, device)
    try:
        yield above.path
    finally:
        above.remove()


@contextlib.contextmanager
def attached(device, name, folder):
    """The device file of a started node."""
    found = answer("attach", device, "--name", name, "--bitmaps", folder, "--start")
    try:
        yield found["device"]
    finally:
        good("detach", name)


@kit.case
@kit.essential
def the_module_loads():
    kit.run("modprobe", "dm-mod")
    kit.run("modprobe", "loop")
    parts.extend(kit.partitions(kit.disk("p"), 2, 24))
    kit.state_folder()
    kit.state_folder("store")
    kit.load()


# --- whose they are ---------------------------------------------------------------------------------

def state(folder, minor=0):
    """The node's record, as a dictionary."""
    with open(f"{folder}/snbf{minor}.state", encoding="utf-8") as lines:
        return dict(line.rstrip("\n").split("=", 1) for line in lines if "=" in line)


def partuuid(device):
    return kit.run("blkid", "-p", "-o", "value", "-s", "PART_ENTRY_UUID", device).strip()


@kit.case
def bitmap_files_are_tied_to_the_partition():
    good("attach", parts[0], "--name", "data", "--bitmaps", STATE)
    kit.equal(state(STATE)["device"], "partuuid:" + partuuid(parts[0]), "tie")
    good("detach", "data")
    for words in (("--name", "data"), ("--name", "other", "--minor", "0")):
        said = refused(6, "attach", parts[1], *words, "--bitmaps", STATE)
        kit.check(parts[0] in said and "--adopt" in said, said)
    kit.equal(kit.minors(), [], "nodes")
    good("attach", parts[0], "--name", "data", "--bitmaps", STATE)
    good("detach", "data")
    adopted = answer("attach", parts[1], "--name", "data", "--bitmaps", STATE, "--adopt")
    kit.equal(adopted["distrust"], "adopted", "why every extent counts as changed")
    for kind in kit.BITMAPS:
        kit.equal(len(kit.marked(0, kind)), kit.info(0).extent_cnt, "extents marked")
    kit.equal(state(STATE)["device"], "partuuid:" + partuuid(parts[1]), "tie")
    good("detach", "data")
    os.unlink(f"{STATE}/snbf0.state")


@kit.case
def a_name_whose_minor_is_taken_gets_another_and_says_so():
    good("attach", parts[0], "--name", "data", "--bitmaps", STATE)
    good("detach", "data")
    with attached(parts[1], "other", STORE):
        status, _, said = tool("attach", parts[0], "--name", "data", "--bitmaps", STATE)
        kit.equal(status, 0, "status")
        kit.check("data had the minor 0 before and gets 1" in said, said)
        kit.check("0 belongs to the node other now" in said, said)
        kit.equal(len(kit.marked(1, kit.INCR)), kit.info(1).extent_cnt, "extents marked")
        good("detach", "data")
    again = answer("attach", parts[0], "--name", "data", "--bitmaps", STATE, "--minor", "2")
    kit.equal((again["minor"], again["minor_before"], again["distrust"]), (2, 1, "other-minor"), "asked for")
    good("detach", "data")
    found = answer("attach", parts[0], "--name", "data", "--bitmaps", STATE)
    kit.equal((found["minor"], found["minor_before"]), (2, None), "the last one it had")
    good("detach", "data")
    for file in [f"{STORE}/snbf0.state"] + [f"{STATE}/snbf{minor}.state" for minor in range(3)]:
        os.unlink(file)


@kit.case
def without_a_partition_table_the_device_itself_is_known():
    with mapped("plain", kit.disk("b")) as above, loop_over(f"{STATE}/image", 8 * MIB) as loop:
        for device, tie in ((above, "dm-name:plain"), (loop, f"loop:{STATE}/image")):
            good("attach", device, "--name", "plain", "--bitmaps", STORE)
            kit.equal(state(STORE)["device"], tie, "tie")
            good("detach", "plain")
            os.unlink(f"{STORE}/snbf0.state")
    os.unlink(f"{STATE}/image")
    good("attach", kit.disk("b"), "--name", "plain", "--bitmaps", STORE)
    kit.equal(state(STORE)["device"], "serial:b", "tie")
    good("detach", "plain")
    os.unlink(f"{STORE}/snbf0.state")


# --- where stores lie -------------------------------------------------------------------------------

@kit.case
def a_store_on_the_partition_is_found_through_a_mapping():
    with mapped("above", parts[0]) as above, mounted(above, "/mnt/above") as folder:
        said = refused(6, "attach", parts[0], "--name", "data", "--bitmaps", folder)
        kit.check("lies on the tracked partition" in said, said)
        kit.equal(os.listdir(folder), ["lost+found"], "files")


@kit.case
def a_store_on_a_node_is_found_through_loops_and_mappings():
    with contextlib.ExitStack() as stack:
        enter = stack.enter_context
        node = enter(attached(kit.disk("a"), "data", STATE))
        on_node = enter(mounted(node, "/mnt/a"))
        loop = enter(loop_over(f"{on_node}/image", 40 * MIB))
        above = enter(mapped("above", loop))
        deep = enter(mounted(above, "/mnt/deep"))
        inner = enter(loop_over(f"{deep}/image", 16 * MIB))
        deeper = enter(mounted(inner, "/mnt/deeper"))
        for folder in (on_node, deep, deeper):
            refused(6, "snap", "create", "data", "--cow", folder, "--name", "s")
        kit.equal(kit.minors(2), [], "snaps")
        # A chain is no ring: what is tracked up there needs the node, and the node needs nothing of it.
        upper = enter(attached(parts[0], "upper", deeper))
        on_upper = enter(mounted(upper, "/mnt/upper"))
        said = refused(6, "snap", "create", "data", "--cow", on_upper, "--name", "s")
        kit.check("or on what is kept on it" in said, said)
        third = enter(attached(parts[1], "third", on_upper))
        on_third = enter(mounted(third, "/mnt/third"))
        refused(6, "snap", "create", "data", "--cow", on_third, "--name", "s")
        refused(6, "snap", "create", "upper", "--cow", on_third, "--name", "s")
        good("snap", "create", "third", "--cow", STATE, "--name", "s")
        good("snap", "delete", "s")
    os.unlink(f"{STATE}/snbf0.state")


# --- stores that go away ----------------------------------------------------------------------------

def flag_of(name, device, folder):
    """The dirty byte of a bitmap file, read on another mount of its file system."""
    with mounted(device, folder, make=False):
        with open(f"{folder}/{name}", "rb") as file:
            return file.read(8)[7]


@kit.case
def a_node_that_is_open_when_its_store_goes_is_left_dirty():
    store = kit.disk("store")
    with attached(kit.disk("b"), "open", STORE) as node:
        kit.clear(0)
        fd = os.open(node, os.O_RDWR)
        os.pwrite(fd, os.urandom(64 * KIB), MIB)
        os.fsync(fd)
        refused(8, "stop", "--all")
        kit.run("umount", STORE)  # as at a shutdown that stops for nobody
        kit.equal([flag_of(f"snbf0.{kind}", store, "/mnt/look") for kind in ("incr", "diff")], [1, 1], "dirty flags")
        refused(6, "stop", "open")
        os.close(fd)
        said = refused(6, "stop", "open")
        kit.check("mount the file system" in said, said)
        kit.equal(kit.info(0).started, 1, "started")
        kit.run("mount", store, STORE)
        kit.equal(state(STORE)["clean"], "0", "clean")
        good("stop", "open")
        kit.equal(state(STORE)["clean"], "1", "clean")


@kit.case
def a_node_that_is_written_after_its_store_has_gone_is_not_believed_again():
    with attached(kit.disk("b"), "open", STORE) as node:
        kit.clear(0)
        kit.equal([kit.marked(0, kind) for kind in kit.BITMAPS], [set(), set()], "marked")
        kit.run("umount", STORE)
        with open(node, "r+b", buffering=0) as out:
            out.write(os.urandom(64 * KIB))
            os.fsync(out.fileno())
        refused(6, "stop", "open")
    leftovers = os.listdir(STORE)
    kit.run("mount", kit.disk("store"), STORE)
    kit.equal(flag_of("snbf0.incr", kit.disk("store"), "/mnt/look"), 0, "the file was never reached")
    found = answer("attach", kit.disk("b"), "--name", "open", "--bitmaps", STORE)
    kit.equal((found["bitmaps_trusted"], len(kit.marked(0, kit.INCR))), (False, kit.info(0).extent_cnt),
              f"what is believed (beside the store: {leftovers})")
    good("detach", "open")


@kit.case
def a_start_beside_its_store_is_refused():
    good("attach", kit.disk("b"), "--name", "open", "--bitmaps", STORE)
    kit.run("umount", STORE)
    refused(6, "start", "open")
    kit.equal(kit.info(0).started, 0, "started")
    below = os.listdir(STORE)
    refused(6, "bitmap", "clear", "open", "--yes")
    kit.equal(os.listdir(STORE), below, "what lies below the store")
    # Nor does anything else come to lie on a node whose files nobody can see.
    kit.run("mount", kit.disk("store"), STORE)
    good("start", "open")
    with mounted(kit.node_path("snbf0"), "/mnt/b") as folder:
        kit.run("umount", STORE)
        refused(6, "attach", parts[0], "--name", "data", "--bitmaps", folder)
        kit.run("mount", kit.disk("store"), STORE)
        good("attach", parts[0], "--name", "data", "--bitmaps", folder)
        good("detach", "data")
    good("detach", "open")


@kit.case
def it_unloads():
    kit.equal(kit.minors(), [], "nodes")
    kit.unload()


if __name__ == "__main__":
    kit.main()
