"""The last closer of a node is a process that does not close: it exits, is killed, or may not write the files."""

import errno
import os
import resource
import signal
import time

import kit

GUEST = {"quick": True, "kernels": "installed", "disks": ["a:64M", "state:64M"], "limit": 120}


def bitmap_files(folder, minor):
    return [f"{folder}/snbf{minor}.{kind}" for kind in ("incr", "diff")]


def last_closer(path, leave, folder, wanted):
    """A child that opens the node, writes, and leaves without closing; it ends by that exit status or, below 0, that
    signal."""
    child = os.fork()
    if child == 0:
        try:
            fd = os.open(path, os.O_RDWR)
            os.pwrite(fd, b"x" * 4096, 131072)
            os.fsync(fd)
            leave(folder)
        finally:
            os._exit(1)
    _, status = os.waitpid(child, 0)
    kit.equal(os.waitstatus_to_exitcode(status), wanted, f"how the child ended, of {leave.__name__}")


def exit_at_once(_):
    os._exit(0)


def die(_):
    os.kill(os.getpid(), signal.SIGKILL)
    time.sleep(10)


def is_refused(write, error):
    try:
        write()
    except OSError as found:
        return found.errno == error
    return False


def give_everything_up(folder):
    """It may not even make a file beside the bitmaps'."""
    os.setgroups([])
    os.setresgid(65534, 65534, 65534)
    os.setresuid(65534, 65534, 65534)
    as_nobody = os.getresuid() == os.getresgid() == (65534, 65534, 65534)
    os._exit(0 if as_nobody and is_refused(lambda: os.mknod(f"{folder}/mine"), errno.EACCES) else 2)


def small_files_only(folder):
    """The eight bytes of a flag are too many."""
    resource.setrlimit(resource.RLIMIT_FSIZE, (4, 4))
    fd = os.open(f"{folder}/large", os.O_RDWR | os.O_CREAT)
    is_small = os.pwrite(fd, bytes(8), 0) == 4 and is_refused(lambda: os.pwrite(fd, b"x", 4), errno.EFBIG)
    os.unlink(f"{folder}/large")
    os._exit(0 if is_small else 2)


@kit.case
def the_bitmaps_are_saved_whoever_comes_last():
    folder = kit.state_folder()
    kit.load(snbf_debug=1)
    for leave, wanted in ((exit_at_once, 0), (die, -signal.SIGKILL), (give_everything_up, 0), (small_files_only, 0)):
        with kit.node(kit.disk("a"), folder) as record:
            kit.clear(record.minor)
            for path in bitmap_files(folder, record.minor):
                os.unlink(path)
            last_closer(kit.node_path(f"snbf{record.minor}"), leave, folder, wanted)
            kit.wait_until(lambda: kit.proc("use_cnt", record.minor) == "0", what="the release")
            kit.equal(kit.proc("incr_bmp_dirty", record.minor), "0", "dirty after the last release")
            for path in bitmap_files(folder, record.minor):
                with open(path, "rb") as file:
                    kit.equal(file.read(8), b"SNBFBMP\0", f"head of {path}")
            kit.check(2 in kit.marked(record.minor, kit.INCR), "the write is marked")
    kit.unload()


if __name__ == "__main__":
    kit.main()
