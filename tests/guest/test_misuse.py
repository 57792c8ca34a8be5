"""Wrong usage: each answer is a sentence, its fix and the status that is documented, with --json as well."""

import json
import os
import subprocess

import kit
from tool import TOOL, a_backed_up_node, good, refused, tool

GUEST = {"minutes": 2, "kernels": "installed", "disks": ["a:32M", "back:32M", "store:128M", "state:32M", "tiny:16M"],
         "limit": 300}

DEST = "/mnt/store/chain"


def said(status, *words):
    """What it said, twice: as sentences, and with --json as an object too."""
    plain = refused(status, *words)
    found, out, _ = tool(*words, "--json")
    kit.equal(found, status, "the status with --json")
    told = json.loads(out)
    kit.equal(told["status"], status, "the status in JSON")
    kit.check(told["error"] in plain and told["fix"] in plain and told["fix"], f"{told}")
    return plain


def as_nobody(*words):
    return subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", TOOL, *words],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)


@kit.case
def what_no_verb_can_make_of_a_command_line():
    kit.check('did you mean "backup"' in said(2, "bakcup", "data"), "a verb")
    kit.check('did you mean "delete"' in said(2, "snap", "dlete", "monday"), "a verb of snap")
    kit.check('did you mean "--bitmaps"' in said(2, "attach", "/dev/x", "--name", "x", "--bitmap", "/x"), "an option")
    for words in ((), ("snap",), ("restore", "/x"), ("backup", "data", "/x", "--level", "half"), ("--frobnicate",)):
        said(2, *words)
    for words in (("stop", "a", "b"), ("stop", "data", "--timeout", "soon"), ("list", "--units"), ("umount",)):
        refused(2, *words)


@kit.case
def what_every_verb_says_without_the_driver():
    for words in (("list",), ("status", "data"), ("backup", "data", DEST), ("mount", "monday", "/mnt")):
        kit.check("modprobe snbf" in said(5, *words), words)
    for words in (("start", "data"), ("detach", "data"), ("snap", "delete", "monday"), ("bitmap", "get", "data"),
                  ("umount", "monday")):
        kit.check("modprobe snbf" in refused(5, *words), words)


@kit.case
@kit.essential
def a_node_a_chain_and_a_snap():
    a_backed_up_node(DEST)


@kit.case
def names_with_odd_characters_do_not_reach_the_terminal():
    for name in ("\033[2Jx", "a\nb", "x" * 5000, "", "..", "%s%n", "data;reboot"):
        out = refused(1, "status", name)
        kit.check("\033" not in out, repr(out))
    refused(2, "attach", kit.disk("back"), "--name", "a b", "--bitmaps", "/mnt/state")
    refused(2, "attach", kit.disk("back"), "--name", "../x", "--bitmaps", "/mnt/state")


@kit.case
def sizes_that_are_none():
    for size in ("64Q", "-4K", "3K", "1e6", "0", "4K4K", "9999999999999999999"):
        refused(2, "attach", kit.disk("back"), "--name", "x", f"--extent={size}")
        refused(2, "snap", "create", "data", f"--chunk={size}")


@kit.case
def without_permission_it_says_as_whom():
    ran = as_nobody("list", "--json")
    kit.equal(ran.returncode, 1, "status")
    kit.check("root" in ran.stderr and "root" in json.loads(ran.stdout)["fix"], ran.stderr)


@kit.case
def an_output_that_is_closed_or_full_is_told():
    closed, far = os.pipe()
    os.close(closed)
    ran = subprocess.run([TOOL, "changes", "data", "--runs"], stdout=far, stderr=subprocess.PIPE, text=True, check=False)
    os.close(far)
    kit.check(ran.returncode == 1 and "was closed" in ran.stderr, ran.stderr)
    with open("/dev/full", "w", encoding="ascii") as full:
        ran = subprocess.run([TOOL, "list"], stdout=full, stderr=subprocess.PIPE, text=True, check=False)
    kit.check(ran.returncode == 1 and "no room" in ran.stderr, ran.stderr)


@kit.case
def a_store_that_cannot_be_read_is_told():
    with open(f"{DEST}/manifest.json", encoding="ascii") as text:
        before = text.read()
    for text in ("", "{", "[]", before.replace('"size"', '"sise"'), before.replace("qcow2", "../../x")):
        with open(f"{DEST}/manifest.json", "w", encoding="ascii") as out:
            out.write(text)
        kit.check("is damaged" in refused(1, "verify", DEST), text[:80])
        refused(1, "restore", DEST, "/mnt/store/x.img", "--dry-run")
    with open(f"{DEST}/manifest.json", "w", encoding="ascii") as out:
        out.write(before)
    os.chmod(DEST, 0)
    kit.equal(as_nobody("verify", DEST).returncode, 1, "no permission")
    os.chmod(DEST, 0o755)
    refused(1, "verify", "/mnt/nowhere")


@kit.case
def a_restore_into_a_full_disk_leaves_nothing():
    kit.state_folder("tiny")
    with open("/mnt/tiny/fill", "wb") as fill:
        left = os.statvfs("/mnt/tiny")
        fill.write(bytes(left.f_bavail * left.f_frsize))
    kit.check("room" in refused(1, "restore", DEST, "/mnt/tiny/x.img"), "it says how much there is")
    kit.equal([name for name in os.listdir("/mnt/tiny") if name.startswith("x")], [], "what is left")
    kit.run("umount", "/mnt/tiny")


@kit.case
def it_leaves_nothing():
    good("snap", "delete", "monday")
    good("detach", "data")
    kit.unload()


if __name__ == "__main__":
    kit.main()
