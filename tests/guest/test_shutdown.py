"""A node that is still in use at the end: its bitmap files say so before their own file system goes, and are
believed only where nothing was written behind them."""

import os

import kit
import tool
from kit import DIFF, INCR
from tool import answer, good

GUEST = {"minutes": 2, "disks": ["a:64M", "state:64M"], "limit": 240,
         "boots": ["flagged!", "wrong_order!", "rested!", "written!", "end"]}

NODE = "/dev/snbf/snbf0"
WORK = "/mnt/work"
FEW = 256  # of 1024: what a file system writes in a moment, and not everything


def header(kind):
    with open(f"/mnt/state/snbf0.{kind}", "rb") as saved:
        return saved.read(8)


def record(key):
    with open("/mnt/state/snbf0.state", encoding="ascii") as text:
        fields = dict(line.rstrip("\n").split("=", 1) for line in text if "=" in line)
    return fields[key]


def believed_from_here():
    """As after a full backup: what is distrusted is told no more, and the bitmaps are empty and saved."""
    state = "/mnt/state/snbf0.state"
    with open(state, encoding="ascii") as text:
        lines = ["distrust=\n" if line.startswith("distrust=") else line for line in text]
    with open(state, "w", encoding="ascii") as text:
        text.writelines(lines)
    for kind in (INCR, DIFF):
        kit.done(kit.bmp_select("CLR_BMP", 0, kind), "clear")
        kit.done(kit.bmp_select("SAVE_BMP", 0, kind), "save")


def attach():
    """Answers why its bitmaps are not believed."""
    if not kit.loaded():
        kit.load()
    folder = kit.state_folder()
    why = answer("attach", kit.disk("a"), "--name", "data", "--minor", "0", "--bitmaps", folder, "--start")["distrust"]
    return why


def mount(options="rw"):
    os.makedirs(WORK, exist_ok=True)
    kit.run("mount", "-o", options, NODE, WORK)


def clean_and_mounted():
    """The node is mounted and idle, and both files are whole."""
    mount()
    kit.run("sync", "-f", WORK)
    believed_from_here()
    kit.equal(header("incr")[7], 0, "the file is whole")


def write(name):
    with open(f"{WORK}/{name}", "wb") as out:
        out.write(os.urandom(65536))
        os.fsync(out.fileno())


def counts_everything():
    for kind in (INCR, DIFF):
        kit.equal(len(kit.marked(0, kind)), 1024, "extents that count as changed")


def take_away_the_store():
    kit.run("sync")
    kit.wait_until(lambda: not kit.run("umount", "/mnt/state", ok=False), what="the store's last file to be closed")


@kit.case(boot="flagged")
def what_stays_in_use_is_flagged():
    kit.run("mkfs.ext4", "-q", kit.disk("a"))
    attach()
    clean_and_mounted()
    status, _, said = tool.tool("down", "--last")
    kit.equal(status, 8, "status")
    kit.check("its next backup is full" in said and WORK in said, said)
    for kind in ("incr", "diff"):
        kit.equal(header(kind), b"SNBFBMP\x01", kind)
    kit.equal(record("clean"), "0", "the record")
    take_away_the_store()
    write("after")
    kit.crash()


@kit.case(boot="wrong_order")
def and_everything_counts_as_changed():
    kit.equal(attach(), "bitmap-dirty")
    counts_everything()


@kit.case(boot="wrong_order")
def a_store_that_is_taken_away_by_hand_is_not_believed_either():
    clean_and_mounted()
    take_away_the_store()
    write("behind")
    kit.crash()


@kit.case(boot="rested")
def the_record_of_a_clean_stop_is_missing_then():
    kit.check(attach() in ("unclean-stop", "bitmap-dirty"), "what was written behind a clean file is distrusted")
    counts_everything()


@kit.case(boot="rested")
def a_file_system_that_is_written_to_is_not_put_to_rest():
    clean_and_mounted()
    write("more")
    good("down", "--last", "--dry-run")
    kit.equal(tool.tool("down", "--last")[0], 8, "status")
    kit.equal(record("clean"), "0", "the record")


@kit.case(boot="rested")
def one_that_is_read_only_is():
    believed_from_here()
    write("last")
    kit.run("mount", "-o", "remount,ro", WORK)
    good("down", "--last")
    kit.equal(record("clean"), "1", "the record")
    for kind in ("incr", "diff"):
        kit.equal(header(kind)[7], 0, kind)
    kit.crash()


@kit.case(boot="written")
def its_bitmaps_are_believed_after_the_power_went():
    kit.equal(attach(), "")
    found = kit.marked(0, INCR)
    kit.check(0 < len(found) < FEW, f"{len(found)} extents are marked")


@kit.case(boot="written")
def a_write_behind_the_rest_raises_the_flag():
    mount("ro")
    believed_from_here()
    good("down", "--last")
    kit.equal((record("clean"), header("incr")[7]), ("1", 0), "at rest")
    kit.run("mount", "-o", "remount,rw", WORK)
    write("behind")
    kit.equal(header("incr"), b"SNBFBMP\x01", "the flag")
    kit.crash()


@kit.case(boot="end")
def and_nothing_of_it_is_believed():
    kit.equal(attach(), "bitmap-dirty")
    counts_everything()


@kit.case(boot="end")
def up_and_down_say_what_they_do():
    good("stop", "data")
    kit.check("is stopped" not in tool.tool("down", "data")[2], "it was stopped before")
    good("detach", "data")
    os.makedirs("/etc/snbf", exist_ok=True)
    with open("/etc/snbf/nodes", "w", encoding="ascii") as nodes:
        nodes.write(f"data {kit.disk('a')} /mnt/state\nnone PARTUUID=0000-01 /mnt/state\nfolder {NODE} /mnt/no\n")
    said = tool.refused(1, "up")
    kit.check("none: its partition PARTUUID=0000-01 is not there" in said, said)
    kit.check("the directory of its bitmaps, /mnt/no, is not there" in said, said)
    kit.equal(answer("status", "data")["started"], True, "the one that can comes up")
    kit.check("is up already" in tool.tool("up", "data")[2], "twice")
    kit.check("at boot        comes up by itself (/etc/snbf/nodes, line 1)" in good("status", "data"), "status")
    kit.equal(good("list", "-o", "name,boot", "--noheadings").split(), ["data", "yes"], "list")
    tool.refused(2, "up", "other")
    good("detach", "--forget", "data")
    good("detach", "--forget", "none")
    with open("/etc/snbf/nodes", encoding="ascii") as nodes:
        kit.equal(nodes.read(), f"folder {NODE} /mnt/no\n", "the file")
    with open("/etc/snbf/nodes", "a", encoding="ascii") as nodes:
        nodes.write("broken line\n")
    said = tool.refused(2, "up")
    kit.check("/etc/snbf/nodes, line 2: three or four words" in said, said)


@kit.case(boot="end")
def a_partition_is_written_down_by_its_own_uuid():
    [part] = kit.partitions(kit.disk("a"), 1, 32)
    os.unlink("/etc/snbf/nodes")
    good("attach", part, "--name", "part", "--bitmaps", "/mnt/state", "--at-boot", "--start")
    with open("/etc/snbf/nodes", encoding="ascii") as nodes:
        kit.check("part  PARTUUID=" in nodes.read(), "the line")
    good("down", "part")
    good("detach", "part")
    good("up")
    kit.equal(answer("status", "part")["partition"], part, "its partition")


if __name__ == "__main__":
    kit.main()
