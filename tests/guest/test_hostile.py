"""Callers whose records are random or spoilt, many at once, while nodes live and die under their hands."""

import errno
import fcntl
import multiprocessing
import os
import subprocess
import time

import kit

GUEST = {"minutes": 3, "kernels": "installed", "disks": ["a:16M", "b:16M", "state:64M"], "limit": 500,
         "words": ["slub_debug=FZP"],
         # Of a snap whose stop is postponed, or that is lost: who looks at it meanwhile gets no data.
         "allow": ["Buffer I/O error on dev snbf"]}

SEED = int(os.environ.get("SNBF_SEED", "1"))
COMMANDS = int(os.environ.get("SNBF_COMMANDS", "4000")) * int(os.environ.get("SNBF_LONG") or 1)
LOOKS = 1000

# What the driver may answer to anything at all; nothing else may come out.
ANSWERS = {0, errno.ENOENT, errno.EIO, errno.ENOMEM, errno.EFAULT, errno.EBUSY, errno.EINVAL, errno.ENOTTY,
           errno.ENOSPC, errno.EOPNOTSUPP, errno.EALREADY}


def hostile(seed, threads):
    program = f"{os.environ['SNBF_BUILD']}/guest/bin/hostile"
    found = subprocess.run([program, str(seed), str(threads), str(COMMANDS), kit.state_folder(), kit.disk("a"),
                            kit.disk("b")], stdout=subprocess.PIPE, text=True, check=True).stdout
    return {int(line.split()[0]): int(line.split()[1]) for line in found.splitlines()}


@kit.case
def spoilt_records_get_errors_and_nothing_else():
    kit.load(snbf_debug=0)
    answers = hostile(SEED, 1)
    kit.equal(set(answers) - ANSWERS, set(), f"answers {answers}")
    for wanted in (0, errno.EINVAL, errno.EFAULT, errno.ENOTTY):
        kit.check(answers.get(wanted, 0) > 0, f"no {errno.errorcode.get(wanted, 0)} among {answers}")


@kit.case
def the_driver_works_as_before():
    for minor in list(kit.minors()) + [255]:
        kit.delete(minor)
    with kit.node(kit.disk("a"), kit.state_folder()) as record:
        kit.clear(record.minor)
        fd = os.open(kit.node_path(f"snbf{record.minor}"), os.O_RDWR)
        os.pwrite(fd, b"x" * 512, 65536)
        os.fsync(fd)
        os.close(fd)
        kit.check(1 in kit.marked(record.minor, kit.INCR), "the write is marked")


@kit.case
def from_many_threads_while_nodes_are_used():
    program = f"{os.environ['SNBF_BUILD']}/guest/bin/looker"
    looker = subprocess.Popen([program, "1"])
    try:
        answers = hostile(SEED + 1, 4)
    finally:
        looker.kill()
        looker.wait()
    kit.equal(set(answers) - ANSWERS, set(), f"answers {answers}")


@kit.case
def a_device_is_opened_and_closed_by_many_at_once():
    """Its openings are alike, and any close takes any of them."""
    record = kit.disk("b").encode().ljust(1024, b"\0")

    def look():
        fd = os.open(kit.CONTROL, os.O_RDWR)
        for _ in range(LOOKS):
            try:
                fcntl.ioctl(fd, kit.COMMANDS["TEST_DATABLOCK"], record)
            except OSError as error:
                if error.errno not in ANSWERS:
                    raise

    callers = [multiprocessing.get_context("fork").Process(target=look) for _ in range(8)]
    for caller in callers:
        caller.start()
    for caller in callers:
        caller.join()
    kit.equal([caller.exitcode for caller in callers], [0] * len(callers), "callers")


@kit.case
def and_it_unloads():
    deadline = time.monotonic() + 30
    while subprocess.run(["rmmod", "snbf"], check=False).returncode != 0:
        kit.check(time.monotonic() < deadline, "rmmod")
        time.sleep(0.1)
    kit.equal(kit.slabs(), [], "slabs")


if __name__ == "__main__":
    kit.main()
