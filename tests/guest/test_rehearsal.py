"""Dry runs: each verb that changes something has one, which changes nothing and refuses what would be refused."""

import os

import kit
from tool import a_backed_up_node, good, refused, tool, tree_of

GUEST = {"minutes": 2, "kernels": "installed", "disks": ["a:32M", "back:32M", "store:128M", "state:32M"], "limit": 300}

NODE = "/dev/snbf/snbf0"
DEST = "/mnt/store/chain"
BOOT = "/etc/snbf/nodes"
READING = {"list", "status", "changes", "verify", "export", "doctor", "selftest", "completion", "version", "snap list",
           "metrics", "watch"}


def verbs(*above):
    """Every verb that does something, as the help has them: "snap create"."""
    found = []
    lines = good(*above, "--help").split("\n")
    heads = [number for number, line in enumerate(lines) if line in ("Verbs:", "Subcommands:")]
    for line in lines[heads[0] + 1:] if heads else []:
        if not line.startswith("  "):
            break
        if line[2] != " ":
            name = line.split()[0]
            found += verbs(*above, name) or [" ".join((*above, name))]
    return found


def state():
    """All that a rehearsal could change."""
    with open(BOOT, encoding="ascii") as lines:
        boot = lines.read()
    return (tree_of("/mnt/state"), tree_of("/mnt/store"), kit.minors(), kit.minors(2), kit.info(0).started,
            kit.bitmap(0, kit.INCR), kit.bitmap(0, kit.DIFF), os.path.ismount("/mnt/monday"), boot,
            kit.run("dmsetup", "ls"))


@kit.case
@kit.essential
def a_node_a_chain_and_a_snap():
    kit.run("modprobe", "-a", "dm-mirror", "nbd")
    a_backed_up_node(DEST)
    good("backup", "data", DEST)


@kit.case
def every_verb_that_changes_something_can_be_rehearsed():
    found = verbs()
    kit.check({"attach", "snap create", "restore"} <= set(found), f"{found}")
    for verb in set(found) - READING:
        kit.check("--dry-run" in good(*verb.split(), "--help"), f"{verb} has no dry run")


@kit.case
def a_rehearsal_changes_nothing_and_refuses_what_would_be_refused():
    bits = "/mnt/store/bits"
    good("bitmap", "get", "data", bits)
    os.makedirs("/mnt/monday", exist_ok=True)
    os.makedirs(os.path.dirname(BOOT), exist_ok=True)
    with open(BOOT, "w", encoding="ascii") as lines:
        lines.write(f"data {kit.disk('a')} /mnt/state minor=0\nother {kit.disk('back')} /mnt/state\n")
    before = state()
    for words in (("stop", "data"), ("detach", "data", "--yes"), ("snap", "create", "data", "--name", "tuesday", "--cow", "/mnt/store/cow"),
                  ("snap", "delete", "monday"), ("mount", "monday", "/mnt/monday"), ("bitmap", "clear", "data", "--yes"),
                  ("bitmap", "set", "data"), ("bitmap", "merge", "data", bits), ("bitmap", "save", "data"),
                  ("bitmap", "load", "data", "--yes"), ("backup", "data", DEST), ("restore", DEST, "/mnt/store/x.img"),
                  ("attach", kit.disk("back"), "--name", "other", "--bitmaps", "/mnt/state"),
                  ("prune", DEST, "--keep-last", "1"), ("prune", DEST, "--keep-last", "1", "--json"), ("up", "other"),
                  ("down", "data"), ("detach", "data", "--yes", "--forget"),
                  ("restore", DEST, kit.disk("back"), "--instant", "shop", "--scratch", "/mnt/store")):
        found = tool(*words, "--dry-run")
        kit.check(found[0] == 0 and (found[1] + found[2]).strip(), f"{words}: {found}")
        kit.check(state() == before, f"{words} has changed something")
    for status, words in ((1, ("start", "data")), (6, ("detach", "data")), (2, ("snap", "create", "data", "--name", "a/b", "--cow", "/mnt/store/cow")),
                          (1, ("snap", "create", "data", "--name", "monday", "--cow", "/mnt/store/cow")),
                          (6, ("bitmap", "clear", "data")), (2, ("bitmap", "merge", "data", f"{DEST}/manifest.json")),
                          (1, ("umount", "/mnt/monday")), (2, ("mount", "monday", "/mnt/nowhere")),
                          (6, ("snap", "create", "data", "--cow", "/dev/shm"))):
        refused(status, *words, "--dry-run")
        kit.check(state() == before, f"{words} has changed something")


@kit.case
def a_rehearsal_starts_and_resumes_nothing():
    good("stop", "data")
    before = state()
    for words in (("up", "data"), ("up",), ("start", "data"), ("snap", "resume", "data")):
        found = tool(*words, "--dry-run")
        kit.check(found[0] == 0 and (found[1] + found[2]).strip(), f"{words}: {found}")
        kit.check(state() == before, f"{words} has changed something")
    good("start", "data")


@kit.case
def a_rehearsal_sees_who_is_in_the_way():
    good("mount", "monday", "/mnt/monday")
    kit.check("/mnt/monday" in refused(8, "snap", "delete", "monday", "--dry-run"), "a snap that is mounted")
    good("umount", "monday", "--dry-run")
    good("umount", "monday")
    good("snap", "delete", "monday")
    kit.run("mount", NODE, "/mnt/monday")
    kit.check("/mnt/monday" in refused(8, "stop", "data", "--dry-run"), "a node that is mounted")
    kit.run("umount", "/mnt/monday")
    good("stop", "data")
    good("start", "data", "--dry-run")
    kit.equal(kit.info(0).started, 0, "it is not started")
    good("detach", "data")
    kit.unload()


if __name__ == "__main__":
    kit.main()
