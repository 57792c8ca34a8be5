"""The last closer of a node is a process that does not close: it exits, is killed, or may not write the files."""

import os
import resource
import signal
import time

import kit

GUEST = {"quick": True, "kernels": "installed", "disks": ["a:64M", "state:64M"], "limit": 120}


def bitmap_files(folder, minor):
    return [f"{folder}/snbf{minor}.{kind}" for kind in ("incr", "diff")]


def last_closer(path, leave):
    """A child that opens the node, writes, and leaves without closing."""
    child = os.fork()
    if child == 0:
        try:
            fd = os.open(path, os.O_RDWR)
            os.pwrite(fd, b"x" * 4096, 131072)
            os.fsync(fd)
            leave()
        finally:
            os._exit(1)
    os.waitpid(child, 0)


def die():
    os.kill(os.getpid(), signal.SIGKILL)
    time.sleep(10)


def give_everything_up():
    os.setresgid(65534, 65534, 65534)
    os.setresuid(65534, 65534, 65534)
    os._exit(0)


def small_files_only():
    resource.setrlimit(resource.RLIMIT_FSIZE, (4, 4))
    os._exit(0)


@kit.case
def the_bitmaps_are_saved_whoever_comes_last():
    folder = kit.state_folder()
    kit.load(snbf_debug=1)
    for leave in (lambda: os._exit(0), die, give_everything_up, small_files_only):
        with kit.node(kit.disk("a"), folder) as record:
            kit.clear(record.minor)
            for path in bitmap_files(folder, record.minor):
                os.unlink(path)
            last_closer(kit.node_path(f"snbf{record.minor}"), leave)
            kit.wait_until(lambda: kit.proc("use_cnt", record.minor) == "0", what="the release")
            kit.equal(kit.proc("incr_bmp_dirty", record.minor), "0", "dirty after the last release")
            for path in bitmap_files(folder, record.minor):
                with open(path, "rb") as file:
                    kit.equal(file.read(8), b"SNBFBMP\0", f"head of {path}")
            kit.check(2 in kit.marked(record.minor, kit.INCR), "the write is marked")
    kit.unload()


if __name__ == "__main__":
    kit.main()
