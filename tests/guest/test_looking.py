"""What an administrator watches and looks at: metrics, the live view, drawings, and tables on a narrow terminal."""

import fcntl
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import xml.dom.minidom

import kit
from kit import KIB, MIB
from tool import TOOL, answer, good, refused, write

LONG = "a-node-whose-name-is-as-long-as-the-names-that-people-give-to-their-home-directories"
GUEST = {"minutes": 2, "kernels": "installed", "disks": ["a:64M", "b:16M", "state:96M"], "limit": 400}
NODE = "/dev/snbf/snbf0"
WORK = "/mnt/work"
STATE = "/mnt/state"


def samples():
    """The metrics: {series: value}."""
    found = {}
    for line in good("metrics").splitlines():
        if not line.startswith("#"):
            series, value = line.rsplit(" ", 1)
            found[series] = float(value)
    return found


class Terminal:
    """The tool on a terminal of 80 columns and 24 rows."""

    def __init__(self, *words):
        self.parent, child = pty.openpty()
        fcntl.ioctl(child, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        environment = dict(os.environ, LC_ALL="C.UTF-8", TERM="xterm")
        self.process = subprocess.Popen([TOOL, *words], stdin=child, stdout=child, stderr=child,
                                        env=environment, start_new_session=True)
        os.close(child)
        self.text = b""

    def read(self, pages=None):
        """All that it says: up to its end, or until it has drawn so many pages."""
        while pages is None or self.text.count(b"\x1b[J") < pages:
            ready, _, _ = select.select([self.parent], [], [], 60)
            kit.check(ready, f"silent after {self.text!r}")
            try:
                piece = os.read(self.parent, 65536)
            except OSError:
                piece = b""
            if not piece:
                break
            self.text += piece
        return self.text.decode()

    def end(self):
        text = self.read()
        status = self.process.wait()
        os.close(self.parent)
        return status, text


def on_a_terminal(*words):
    status, text = Terminal(*words).end()
    kit.equal(status, 0, f"status of {words}: {text}")
    lines = text.replace("\r\n", "\n").splitlines()
    kit.check(lines, "it says something")
    for line in lines:
        kit.check(len(line) <= 80, f"{len(line)} columns: {line}")
    return text


def drawing(*words):
    """An SVG's texts."""
    document = xml.dom.minidom.parseString(good(*words))
    kit.equal(document.documentElement.tagName, "svg", "the drawing")
    return [text.firstChild.data for text in document.getElementsByTagName("text")]


@kit.case
def without_the_driver_metrics_say_so_and_are_no_failure():
    kit.state_folder()
    kit.equal(samples()["snbf_up"], 0, "up")
    good("metrics", "--output", f"{STATE}/snbf.prom")
    with open(f"{STATE}/snbf.prom", encoding="ascii") as text:
        kit.check("\nsnbf_up 0\n" in text.read(), "in the file")
    refused(5, "watch", "--count", "1")


@kit.case
@kit.essential
def nodes_are_attached_and_one_is_mounted():
    kit.load()
    kit.run("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", kit.disk("a"), "48M")
    good("attach", kit.disk("a"), "--name", "data", "--bitmaps", STATE, "--start")
    good("attach", kit.disk("b"), "--name", LONG, "--bitmaps", STATE)
    kit.clear(0)
    os.makedirs(WORK)
    kit.run("mount", NODE, WORK)
    with open(f"{WORK}/file", "wb") as out:
        out.write(os.urandom(4 * MIB))
        os.fsync(out.fileno())


@kit.case
def metrics_are_what_the_driver_says():
    found = samples()
    kit.equal(found["snbf_up"], 1, "up")
    data = '{node="data"}'
    kit.equal(found[f"snbf_node_tracking{data}"], 1, "the started node")
    kit.equal(found[f'snbf_node_tracking{{node="{LONG}"}}'], 0, "the stopped node")
    kit.equal(found[f"snbf_node_size_bytes{data}"], 64 * MIB, "its size")
    kit.equal(found[f"snbf_node_opens{data}"], kit.info(0).use_cnt, "who has it open")
    kit.equal(found[f"snbf_node_next_backup_full{data}"], 1, "what the next backup is")
    kit.equal(found['snbf_node_next_backup_full_info{node="data",reason="no-earlier-backup"}'], 1, "and why")
    kit.check(f"snbf_node_last_backup_timestamp_seconds{data}" not in found, "there was none")
    changed = found['snbf_node_changed_bytes{node="data",bitmap="incr"}']
    kit.equal(changed, len(kit.marked(0, kit.INCR)) * 64 * KIB, "what changed")
    kit.check(4 * MIB <= changed < 32 * MIB, f"{changed} changed")
    kit.equal(found[f'snbf_node_changed_bytes{{node="{LONG}",bitmap="incr"}}'], 16 * MIB, "and on the other")


@kit.case
def the_file_of_metrics_is_for_all_and_replaced_whole():
    path = f"{STATE}/snbf.prom"
    before = os.stat(path).st_ino
    good("metrics", "--output", path)
    kit.check(os.stat(path).st_ino != before, "another file took its name")
    kit.equal(os.stat(path).st_mode & 0o777, 0o644, "the collector can read it")
    kit.equal([name for name in os.listdir(STATE) if "prom" in name], ["snbf.prom"], "nothing is left")
    refused(1, "metrics", "--output", "/nowhere/snbf.prom")


@kit.case
def a_snap_shows():
    good("snap", "create", "data", "--name", "monday", "--cow", STATE)
    write(NODE, 1000, 8)  # behind the file system's end, so that it harms nothing
    found = samples()
    snap = 'node="data",snap="monday"'
    kit.equal(found[f'snbf_snap_state{{{snap},state="started"}}'], 1, "the snap")
    kit.equal(sum(found[name] for name in found if name.startswith("snbf_snap_state{")), 1, "one state")
    kit.check(found[f"snbf_snap_cow_free_bytes{{{snap}}}"] > 0, "room for it")


@kit.case
def the_map_tells_free_used_and_changed_apart():
    texts = drawing("changes", "data", "--as", "svg")
    for part in ("data: what changed, and where", "free", "in use, not changed"):
        kit.check(part in texts, f"{part} in {texts}")
    kit.check(any("monday" in text for text in texts), "whose map it is")


@kit.case
def the_costs_begin_with_what_changes_says():
    costs = answer("changes", "data", "--costs")["costs"]
    changed = answer("changes", "data")
    kit.equal((costs[0]["extent_size"], costs[0]["copied_bytes"]), (64 * KIB, changed["changed_bytes"]), "own")
    sizes = [cost["copied_bytes"] for cost in costs]
    kit.equal(sizes, sorted(sizes), "coarser is never cheaper")
    kit.equal((costs[-1]["extent_size"], sizes[-1]), (64 * MIB, 64 * MIB), "one extent is all")
    kit.check("64K" in drawing("changes", "data", "--costs", "--as", "svg"), "the drawing")
    refused(2, "changes", "data", "--costs", "--as", "qemu")


@kit.case
def the_tree_shows_what_each_snap_holds():
    tree = good("snap", "list", "--tree")
    kit.check(re.search(r"^`- monday: started, .* copied", tree, re.M), tree)
    texts = drawing("snap", "list", "--as", "svg")
    kit.check("monday" in texts and "no snaps" in texts, f"{texts}")


@kit.case
def tables_fit_a_terminal_and_are_whole_in_a_pipe():
    good("start", LONG)
    for words in (("list",), ("status", LONG), ("status", "data"), ("changes", LONG), ("changes", "data", "--costs"),
                  ("snap", "list"), ("snap", "list", "--tree")):
        on_a_terminal(*words)
    kit.check("…" in on_a_terminal("list"), "long names are shortened")
    kit.check(LONG in good("list"), "in a pipe they are not")
    kit.check(LONG in good("status", LONG), "in a pipe they are not")


@kit.case
def watch_prints_lines_where_there_is_no_terminal():
    lines = good("watch", "data", "--count", "2", "--interval", "0.2").splitlines()
    kit.equal(len(lines), 2, "lines")
    for line in lines:
        kit.check(re.match(r"\d{4}-\d\d-\d\dT[\d:]+Z data started changed \S+ written ", line), line)
    looks = [json.loads(line) for line in good("watch", "--count", "1", "--json").splitlines()]
    kit.equal(sorted(look["name"] for look in looks), sorted([LONG, "data"]), "all of them")
    refused(1, "watch", "nobody", "--count", "1")
    watch = subprocess.Popen([TOOL, "watch", "data", "--interval", "0.1"], stdout=subprocess.PIPE)
    watch.stdout.readline()
    watch.stdout.close()
    try:
        kit.equal(watch.wait(60), 0, "the reader has enough")
    finally:
        watch.kill()


@kit.case
def watch_is_drawn_on_a_terminal_and_leaves_it_as_it_was():
    terminal = Terminal("watch", "--interval", "0.2")
    terminal.read(pages=1)
    write(NODE, 1008, 4)
    terminal.read(pages=3)
    terminal.process.send_signal(signal.SIGINT)
    status, text = terminal.end()
    kit.equal(status, 0, "after Ctrl-C")
    kit.check(text.startswith("\x1b[?1049h\x1b[?25l"), "a page of its own")
    kit.check(text.endswith("\x1b[?25h\x1b[?1049l"), "and then what was there")
    page = text.split("\x1b[H")[-1].split("\x1b[J")[0].replace("\x1b[K", "").splitlines()
    kit.check(len(page) <= 24, f"{len(page)} rows")
    for line in page:
        kit.check(len(line) <= 80, f"{len(line)} columns: {line}")


@kit.case
def it_detaches_and_leaves_nothing():
    kit.run("umount", WORK)
    good("snap", "delete", "monday")
    for name in ("data", LONG):
        good("stop", name)
        good("detach", name)
    kit.equal(kit.minors(), [], "nodes")
    kit.unload()


if __name__ == "__main__":
    kit.main()
