"""The tool over the real driver: a mounted file system, backed up twice and got back identical; and its refusals."""

import os
import shutil

import kit
from kit import KIB, MIB
from tool import answer, good, refused, tool

GUEST = {"minutes": 3, "kernels": "installed", "disks": ["a:128M", "back:128M", "store:512M", "state:64M"], "limit": 400}

DEST = "/mnt/store/chain"
WORK = "/mnt/work"


def same(one, other):
    kit.run("cmp", one, other)


@kit.case
def without_the_driver_it_says_so():
    refused(5, "list")


@kit.case
@kit.essential
def a_partition_is_attached():
    kit.state_folder()
    kit.state_folder("store")
    kit.load()
    kit.run("mkfs.ext4", "-q", "-F", kit.disk("a"))
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
    kit.run("mount", kit.node_path("snbf0"), WORK)
    shutil.copytree("/usr/share/perl", f"{WORK}/tree", symlinks=True,
                    ignore=lambda _, names: sorted(names)[8:])
    os.sync()
    out = good("backup", "data", DEST, "--no-snap", "--freeze")
    kit.check("full" in out.lower(), out)


@kit.case
def the_second_backup_copies_what_changed():
    with open(f"{WORK}/journal", "wb") as out:
        out.write(os.urandom(3 * MIB))
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
    same(kit.disk("back"), kit.node_path("snbf0"))
    kit.run("fsck.ext4", "-fn", kit.disk("back"))


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
def it_detaches_and_leaves_nothing():
    good("stop", "data")
    good("detach", "data")
    kit.equal(kit.minors(), [], "nodes")
    kit.unload()


if __name__ == "__main__":
    kit.main()
