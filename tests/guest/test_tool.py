"""The tool over the real driver: a mounted file system, backed up and got back, without what it does not use; and its refusals."""

import json
import os
import shutil

import kit
from kit import KIB, MIB
from tool import answer, good, holds, refused, tool, tree_of

GUEST = {"minutes": 3, "kernels": "installed", "disks": ["a:128M", "back:128M", "store:512M", "state:64M"],
         "limit": 600}

DEST = "/mnt/store/chain"
WORK = "/mnt/work"
BACK = "/mnt/back"
NODE = "/dev/snbf/snbf0"
FS_MIB = 100  # of the disk's 128: the rest is nobody's, as far as the file system knows
TAIL = 110 * MIB


def write(path, size):
    with open(path, "wb") as out:
        out.write(os.urandom(size))
        os.fsync(out.fileno())


def write_tail(data):
    fd = os.open(NODE, os.O_WRONLY)
    os.pwrite(fd, data, TAIL)
    os.fsync(fd)
    os.close(fd)


def backed_up_unmounted():
    """A point whose bytes the node keeps: (the point, the files in it)."""
    kit.run("umount", WORK)
    point = answer("backup", "data", DEST)
    kit.run("mount", "-o", "ro,noload", NODE, WORK)
    tree = tree_of(WORK)
    kit.run("umount", WORK)
    return point, tree


def comes_back(tree, tail):
    """The newest point on another disk: its file system is sound, its files and its tail are the node's."""
    good("restore", DEST, kit.disk("back"), "--yes")
    kit.run("fsck.ext4", "-fn", kit.disk("back"))
    os.makedirs(BACK, exist_ok=True)
    kit.run("mount", "-o", "ro", kit.disk("back"), BACK)
    kit.equal(tree_of(BACK), tree, "files")
    kit.run("umount", BACK)
    with open(kit.disk("back"), "rb") as back:
        back.seek(TAIL)
        kit.check(back.read(len(tail)) == tail, "what lies behind the file system")


@kit.case
def without_the_driver_it_says_so():
    refused(5, "list")
    refused(5, "selftest", kit.disk("a"))


@kit.case
def a_file_system_that_is_not_mounted_is_tested():
    kit.state_folder()
    kit.state_folder("store")
    kit.load()
    refused(1, "selftest", kit.disk("a"))
    kit.run("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0", kit.disk("a"), f"{FS_MIB}M")
    found = answer("selftest", kit.disk("a"))
    kit.equal((found["result"], found["contents"]), ("good", "ext4"), "a sound one")
    refused(8, "selftest", kit.disk("store"))
    refused(2, "selftest", "/etc/passwd")


@kit.case
@kit.essential
def a_partition_is_attached():
    refused(2, "attach", kit.disk("a"), "--name", "snbf7", "--bitmaps", "/mnt/state")
    good("attach", kit.disk("a"), "--name", "data", "--bitmaps", "/mnt/state", "--start")
    kit.equal(kit.minors(), [0], "nodes")
    kit.equal(kit.info(0).name, b"data", "name")
    kit.check("data" in good("list"), "listed")
    kit.check(answer("list") is not None, "listed as JSON")


@kit.case
def misuse_and_unknown_nodes_have_their_own_answers():
    refused(2, "no-such-verb")
    refused(2, "attach")
    kit.check(tool("stop", "nobody")[0] not in (0, 2), "an unknown node")
    refused(8, "attach", kit.disk("store"), "--name", "busy", "--bitmaps", "/mnt/state")


@kit.case
def the_first_backup_is_full_and_says_why():
    os.makedirs(WORK, exist_ok=True)
    kit.run("mount", NODE, WORK)
    shutil.copytree("/usr/share/perl", f"{WORK}/tree", symlinks=True,
                    ignore=lambda _, names: sorted(names)[8:])
    os.sync()
    refused(8, "selftest", kit.disk("a"))
    out = good("backup", "data", DEST, "--no-snap", "--freeze")
    kit.check("full" in out.lower(), out)


@kit.case
def the_second_backup_copies_what_changed():
    write(f"{WORK}/journal", 3 * MIB)
    shutil.rmtree(f"{WORK}/tree")
    kit.run("umount", WORK)
    changed = answer("changes", "data")
    marked = kit.marked(0, kit.INCR)
    kit.equal(changed["changed_extents"], len(marked), "what the tool says, and what the driver says")
    kit.check(3 * MIB // (64 * KIB) <= len(marked) < 1024, f"{len(marked)} extents changed")
    good("backup", "data", DEST)
    kit.equal(kit.marked(0, kit.INCR), set(), "behind the backup")


@kit.case
def the_chain_is_sound_and_comes_back_identical():
    good("verify", DEST, "--deep")
    good("restore", DEST, kit.disk("back"), "--yes")
    holds(DEST, kit.disk("back"), NODE)
    kit.run("fsck.ext4", "-fn", kit.disk("back"))


@kit.case
def doctor_sees_what_stands_on_a_device_and_its_twin():
    status, out, _ = tool("doctor", kit.disk("back"), "--bitmaps", "/mnt/state", "--json")
    found = {finding["what"]: finding for finding in json.loads(out)["findings"]}
    kit.equal((found["module"]["grade"], found["free space"]["grade"]), ("good", "good"), "grades")
    kit.check(kit.disk("a") in found["UUID"]["text"], found["UUID"]["text"])
    kit.check("tune2fs" in found["UUID"]["fix"], found["UUID"]["fix"])
    kit.equal(status, 3, "the twin is worth a warning")


# --- what the file system does not use --------------------------------------------------------------

tail = b""


@kit.case
def a_full_backup_leaves_out_what_is_free_and_keeps_what_lies_behind_the_end():
    global tail
    tail = os.urandom(2 * MIB)
    write_tail(tail)
    kit.run("mount", NODE, WORK)
    write(f"{WORK}/kept", MIB)
    point = answer("backup", "data", DEST, "--level", "full")
    kit.equal((point["whole_because"], point["skipped_bytes"] + point["copied_bytes"]), ("", 128 * MIB),
              "every extent is accounted for")
    kit.check(50 * MIB < point["skipped_bytes"] < FS_MIB * MIB, f"{point['skipped_bytes']} skipped")
    comes_back(tree_of(WORK), tail)
    kit.run("umount", WORK)
    good("verify", DEST)


@kit.case
def used_only_asks_for_a_snap_and_leaves_out_what_was_deleted():
    refused(1, "changes", "data", "--used-only")
    kit.run("mount", NODE, WORK)
    write(f"{WORK}/gone", 20 * MIB)
    write(f"{WORK}/stays", 3 * MIB)
    os.unlink(f"{WORK}/gone")
    good("snap", "create", "data", "--name", "now", "--cow", "/mnt/store/cow")
    found = answer("changes", "data", "--used-only")
    kit.equal((found["used_by"], found["all_used_because"]), ("now", ""), "by whose map")
    kit.check(found["changed_bytes"] >= 23 * MIB, f"{found['changed_bytes']} changed")
    kit.check(3 * MIB <= found["used_bytes"] <= 12 * MIB, f"{found['used_bytes']} of it in use")
    kit.equal(sum(run["length"] for run in found["runs"]), found["used_bytes"], "the runs")
    kit.equal(answer("selftest", "/dev/snbf/now")["result"], "good", "the snap can be tested")
    good("snap", "delete", "now")


@kit.case
def an_incremental_one_leaves_out_what_changed_and_is_free():
    point, tree = backed_up_unmounted()
    kit.equal((point["level"], point["whole_because"]), ("incr", ""), "the point")
    kit.check(3 * MIB <= point["copied_bytes"] <= 12 * MIB, f"{point['copied_bytes']} copied")
    comes_back(tree, tail)
    equal = answer("verify", DEST, "--against", "snbf0")
    kit.equal(equal["compared_bytes"] + equal["skipped_bytes"], 128 * MIB, "all but what is left out")
    holds(DEST, kit.disk("back"), NODE)


@kit.case
def what_was_left_out_comes_with_the_point_that_uses_it_again():
    global tail
    kit.run("mount", NODE, WORK)
    # Taken and never written: only the earlier points' lists say that its extents are not in the chain.
    kit.run("fallocate", "-l", str(20 * MIB), f"{WORK}/room")
    shutil.copytree("/usr/share/perl", f"{WORK}/tree", symlinks=True,
                    ignore=lambda _, names: sorted(names)[8:])
    tail = os.urandom(2 * MIB)
    write_tail(tail)
    os.sync()
    marked = answer("changes", "data")["changed_bytes"]
    point, tree = backed_up_unmounted()
    kit.check(point["copied_bytes"] > marked + 15 * MIB, f"{point['copied_bytes']} copied, {marked} marked")
    comes_back(tree, tail)
    good("verify", DEST, "--against", NODE)
    holds(DEST, kit.disk("back"), NODE)


@kit.case
def without_a_map_everything_is_copied_and_it_says_why():
    point = answer("backup", "data", DEST, "--no-snap")
    kit.equal((point["level"], point["skipped_bytes"]), ("incr", 0), "the point")
    kit.check("snap" in point["whole_because"], point["whole_because"])
    good("restore", DEST, kit.disk("back"), "--yes")
    kit.run("cmp", kit.disk("back"), NODE)
    point = answer("backup", "data", DEST, "--level", "full", "--whole")
    kit.equal((point["skipped_bytes"], point["whole_because"]), (0, "it was asked for"), "asked for")


@kit.case
def a_difference_from_the_device_is_found():
    fd = os.open(NODE, os.O_WRONLY)
    os.pwrite(fd, b"x", 120 * MIB + 5)
    os.fsync(fd)
    os.close(fd)
    status, out, _ = tool("verify", DEST, "--against", NODE)
    kit.equal(status, 7, "status")
    kit.check(f"byte {120 * MIB}" in out, out)


@kit.case
def a_damaged_chain_is_noticed():
    images = sorted(os.path.join(DEST, name) for name in os.listdir(DEST) if name.endswith(".qcow2"))
    kit.check(len(images) >= 2, f"{images}")
    kept = open(images[0], "rb").read()
    with open(images[0], "r+b") as image:
        image.seek(len(kept) // 2)
        image.write(os.urandom(64 * KIB))
    kit.equal(tool("verify", DEST)[0], 7, "verify of a damaged chain")
    with open(images[0], "wb") as image:
        image.write(kept)
    good("verify", DEST)


@kit.case
def without_the_list_of_what_was_left_out_nothing_is_built_on_a_point():
    point = answer("backup", "data", DEST, "--level", "full")
    path = f"{DEST}/{point['skipped_file']}"
    os.rename(path, "/mnt/store/aside")
    kit.equal(tool("verify", DEST)[0], 7, "verify")
    kit.equal(answer("backup", "data", DEST, "--dry-run")["full_because"], "chain-broken", "the next one")
    good("restore", DEST, kit.disk("back"), "--yes")
    os.rename("/mnt/store/aside", path)
    good("verify", DEST)
    kit.equal(answer("backup", "data", DEST, "--dry-run")["level"], "incr", "the next one")


@kit.case
def it_detaches_and_leaves_nothing():
    good("stop", "data")
    good("detach", "data")
    kit.equal(kit.minors(), [], "nodes")
    kit.unload()


if __name__ == "__main__":
    kit.main()
