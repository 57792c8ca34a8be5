"""What a debug kernel is asked when a boot's cases are over; the answers go to the kernel log, which the runner reads.

On a kernel without these files nothing is asked.
"""

import os
import re
import time

KMEMLEAK = "/sys/kernel/debug/kmemleak"
LOCKDEP = "/proc/lockdep_stats"
LEAK_AGE_S = 6  # younger memory is not counted as lost
LINES = 400
TIMERS = "/proc/timer_list"
JIFFIES = re.compile(r"jiffies:? +(\d+)")  # when it was allocated, and the time now

# Leaks of the kernel's own: a slab cache that finds no memory for its entry in sysfs forgets the name that it had made.
KERNELS_OWN = ({"kobject_set_name_vargs", "sysfs_slab_add"},)

leaks = True  # a test that wants something else to be reported spares itself the minutes of it
_began = 0


def kmemleak(command):
    with open(KMEMLEAK, "w", encoding="ascii") as out:
        out.write(command)


def begin():
    """What is lost by now is not the test's."""
    global _began
    if os.path.exists(KMEMLEAK):
        with open(TIMERS, encoding="ascii") as timers:
            _began = int(JIFFIES.search(timers.read())[1])


def say(kmsg, line):
    kmsg.write(f"<4>{line[:900]}\n")


def is_kernels_own(entry):
    return any(all(f" {name}+" in entry for name in names) for names in KERNELS_OWN)


def since(text, jiffies):
    """Of kmemleak's report the entries that were allocated then or later, but for those of the kernel's own."""
    entries = re.split(r"^(?=unreferenced object)", text, flags=re.MULTILINE)
    return [entry for entry in entries
            if (found := JIFFIES.search(entry)) and int(found[1]) >= jiffies and not is_kernels_own(entry)]


def tell_leaks(kmsg):
    """Two scans: the first only notes the contents of what it does not find a pointer to, and a change means use.

    The kernel's own line about it counts what was lost before, too.
    """
    time.sleep(LEAK_AGE_S)
    kmemleak("scan")
    kmemleak("scan")
    with open(KMEMLEAK, encoding="utf-8", errors="replace") as found:
        text = found.read()
    lines = [line for entry in since(text, _began) for line in entry.splitlines()]
    for line in lines[:LINES]:
        say(kmsg, line)


def tell_lockdep(kmsg):
    """It stops at its first report, and when its tables are full: what came later was not looked at."""
    with open(LOCKDEP, encoding="ascii") as stats:
        if any(line.split() == ["debug_locks:", "0"] for line in stats):
            say(kmsg, "INFO: lockdep is turned off.")


def end():
    with open("/dev/kmsg", "w", encoding="utf-8", buffering=1) as kmsg:
        if leaks and os.path.exists(KMEMLEAK):
            tell_leaks(kmsg)
        if os.path.exists(LOCKDEP):
            tell_lockdep(kmsg)
