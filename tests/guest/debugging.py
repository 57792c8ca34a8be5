"""The debug kernels of `make debug-kernel` as targets of the guest tests, and what counts as a defect there.

kasan   wrong accesses, lock order, sleeping where none may, objects freed while in use, leaks; faults on request
kcsan   data races. A kernel has many of its own that it lives with; the driver's are those where it, or what it
        called, made one of the two accesses.
"""

import glob
import os
import re
import subprocess

import guest

FLAVOURS = ("kasan", "kcsan")

# A debug kernel in an emulator is that much slower than Debian's own there. For limits that only end a hang.
SLOWNESS = 5

# Not run on them, each for its reason; nor is what needs a whole Debian machine.
LEFT_OUT = {
    "harness": "it tests the runner, not the driver",
}

# The emulated ACPI interpreter times out on these kernels. The emulated time stamp counters agree, and every other
# clock is a device, which is slow to read. kmemleak looks when it is asked (watch.py), and reads the whole log buffer
# then. The two processors may share a real one, and then a watched access must last until the other's turn: fewer are
# watched, for longer.
WORDS = {"kasan": ("acpi=noirq", "tsc=reliable", "kmemleak=on", "log_buf_len=4M"),
         "kcsan": ("acpi=noirq", "tsc=reliable", "kcsan.udelay_task=400", "kcsan.skip_watch=8000")}

# How an object is built whose memory accesses are given to a detector, and the calls that come of it; an object
# without an access has none.
INSTRUMENTED = {"kasan": ("-fsanitize=kernel-address", re.compile(r" U __asan_")),
                "kcsan": ("-fsanitize=thread", re.compile(r" U __tsan_"))}
MOST = 0.8  # of the objects have calls, or the flag does nothing

RACE = "BUG: KCSAN: data-race in"
# A kernel's words about what it looks for, and what races() judges.
ALLOWED = {"kasan": (r"RCU callback double-/use-after-free debug is enabled",), "kcsan": (r"CONFIG_KCSAN_STRICT=y", RACE)}
END_OF_RACE = re.compile(r"={60}")
ACCESS = re.compile(r"\b(read|write|assert|race at unknown origin).* of \d+ bytes by ")
OURS = re.compile(r"\[(snbf|planted)\]")
FRAMES = 2  # the access, and who called what made it: memcpy(), list_add() and the like are nobody's own


class DebugTarget:
    """A debug kernel, the module for it, and the module of planted defects."""

    extra = ""  # every case of a test

    def __init__(self, flavour):
        self.series = self.flavour = flavour
        self.slowness = SLOWNESS
        self.words = WORDS[flavour]
        self.folder = os.path.join(guest.BUILD, "debug", flavour)
        release = subprocess.run([os.path.join(guest.TOP, "tools/debug-kernel"), flavour, self.folder], check=True,
                                 stdout=subprocess.PIPE, text=True).stdout.strip()
        self.kernel = guest.find_kernel(release, self.folder)
        self.module = os.path.join(self.folder, "snbf.ko")
        self.planted = os.path.join(self.folder, "planted", "planted.ko")
        tree = os.path.join(self.folder, "build")
        quiet = {"check": True, "stdout": subprocess.DEVNULL}
        subprocess.run(["make", "-C", guest.TOP, "--no-print-directory", "-s", "module", f"KDIR={tree}",
                        f"BUILD={self.folder}"], **quiet)
        os.makedirs(os.path.dirname(self.planted), exist_ok=True)
        with open(os.path.join(os.path.dirname(self.planted), "Kbuild"), "w", encoding="utf-8") as out:
            out.write(f"obj-m := planted.o\n$(obj)/planted.o: {guest.HERE}/planted/planted.c FORCE\n"
                      "\t$(call if_changed_rule,cc_o_c)\n")
        subprocess.run(["make", "-C", tree, "-s", f"M={os.path.dirname(self.planted)}", "modules"], **quiet)

    def takes(self, test, settings):
        return "machine" not in settings and test not in LEFT_OUT and self.flavour in settings.get("flavours", FLAVOURS)

    def folder_of(self, test):
        return os.path.join(self.flavour, test)

    def label_of(self, test):
        return f"{self.flavour} {test}"

    def boots(self, settings):
        return settings.get("flavours", {}).get(self.flavour) or settings.get("boots", ["main"])

    def environment(self):
        return {"SNBF_SLOWNESS": self.slowness, "SNBF_PLANTED": self.planted}

    def allow(self):
        """Patterns of log lines that are not counted here."""
        return ALLOWED[self.flavour]

    def trouble(self, log, start):
        """More of a kernel log that fails a run, from an offset on."""
        with open(log, encoding="utf-8", errors="replace") as text:
            text.seek(start)
            return races(text) if self.flavour == "kcsan" else []

    def uninstrumented(self):
        """The module's objects that no detector sees into, though they are the driver's own."""
        flag, call = INSTRUMENTED[self.flavour]
        objects = glob.glob(os.path.join(self.folder, "module", "*", "**", "*.o"), recursive=True)
        blind = []
        with_calls = 0
        for path in objects:
            folder, name = os.path.split(path)
            with open(os.path.join(folder, f".{name}.cmd"), encoding="utf-8") as command:
                if flag not in command.read():
                    blind.append(os.path.relpath(path, self.folder))
            with_calls += bool(call.search(symbols_of(path)))
        if with_calls < MOST * len(objects):
            blind.append(f"{with_calls} of {len(objects)} have calls of it")
        return sorted(blind)


def symbols_of(path):
    return subprocess.run(["nm", path], stdout=subprocess.PIPE, text=True, check=True).stdout


def races(lines):
    """Of a kernel log's reports of data races the lines of the driver's."""
    found = []
    report = []
    for line in lines:
        if RACE in line:
            report = []
        elif not report:
            continue
        report.append(line.rstrip())
        if END_OF_RACE.search(line):
            if concerns_driver(report):
                found += report
            report = []
    return found


def concerns_driver(report):
    for at, line in enumerate(report):
        if ACCESS.search(line) and any(OURS.search(frame) for frame in report[at + 1:at + 1 + FRAMES]):
            return True
    return False
