"""Boots a stock kernel in QEMU with this machine's own root and runs one job there.

The root is shared read-only over 9p, with a RAM overlay above it in the guest: every program that is
installed here is there, and nothing that the guest does stays. What is to stay is written to the share
(/run/guest in the guest) or to the disks, which are raw files.

The guest reports by three virtio ports: its job's output, its kernel log, and events. The events say
how the job ended, so that no output of a test can be mistaken for its verdict.
"""

import dataclasses
import glob
import hashlib
import lzma
import os
import re
import select
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
BUILD = os.environ.get("SNBF_BUILD", os.path.join(TOP, "build"))

# Reaching the root and the disks; each brings the modules that it depends on.
MODULES = ("virtio_pci", "virtio_blk", "virtio_console", "virtio_rng", "9pnet_virtio", "9p", "overlay")

# What no healthy run has in its kernel log. A test may allow lines that it provokes.
TROUBLE = re.compile(
    r"WARNING:|\bBUG\b|\bOops\b|Call Trace|general protection|Kernel panic|unable to handle|"
    r"blocked for more than|(soft|hard) lockup|LOCKUP|rcu.*detected|"
    r"(list_add|list_del|slab|freelist) corruption|still has objects|Objects remaining|"
    r"KASAN|KCSAN|UBSAN|unreferenced object|kmemleak: (?!Kernel memory leak detector|Automatic|\d+ new suspected)|"
    r"refcount_t|use-after-free|double free|Double free|"
    r"possible (recursive|circular|irq)|inconsistent lock state|suspicious RCU|"
    r"scheduling while atomic|sleeping function called|[Bb]ad page|page allocation failure|"
    r"stack-protector|invalid opcode|hogged CPU|trying to register non-static key|"
    r"lockdep is turned off|bad unlock balance|lock held when returning|held lock freed|ODEBUG|"
    r"EXT4-fs (error|\(.*\): error)|XFS .*(Corruption|Internal error|Metadata)|Buffer I/O error|"
    r"Page cache invalidation failure|"
    r"sysfs: cannot create duplicate|kobject_add_internal failed|proc_dir_entry .* already registered|"
    r"remove_proc_entry|name .* too long|guest: kernel log lost|guest: cannot start")

END_OF_LOG = "guest: end of log"

# The emulator at times executes an instruction of the kernel that the other CPU is just patching. A boot that
# dies of that, before anything of ours ran, says nothing of what is to be tested.
BOOTS = 3


class HarnessError(Exception):
    """The guest could not be run at all: not a verdict on what it was to test."""


@dataclasses.dataclass
class Kernel:
    """A kernel that is installed (tree "/"), or unpacked somewhere with `dpkg -x`."""
    version: str
    tree: str

    @property
    def image(self):
        return os.path.join(self.tree, "boot/vmlinuz-" + self.version)

    @property
    def modules(self):
        return os.path.join(self.tree, "lib/modules", self.version)

    def initramfs(self):
        return build_initramfs(self)

    # Where the machine's own root is there, and whether the guest turns itself off behind its job.
    host = ""
    powers_off = False


def version_key(version):
    return [int(part) if part.isdigit() else part for part in re.split(r"(\d+)", version)]


def find_kernel(version=None, tree=None):
    """KERNEL=version and KERNEL_TREE=folder choose; else the newest kernel that is installed."""
    version = version or os.environ.get("KERNEL")
    tree = os.path.abspath(tree or os.environ.get("KERNEL_TREE") or "/")
    if not version:
        found = [os.path.basename(path)[len("vmlinuz-"):]
                 for path in glob.glob(os.path.join(tree, "boot/vmlinuz-*"))]
        found = [name for name in found if os.path.isdir(os.path.join(tree, "lib/modules", name))]
        if not found:
            raise HarnessError(f"no kernel image under {tree}: run tools/setup")
        version = max(found, key=version_key)
    kernel = Kernel(version, tree)
    if not os.path.exists(kernel.image):
        raise HarnessError(f"{kernel.image}: no such kernel")
    if not os.path.exists(os.path.join(kernel.modules, "modules.dep")):
        subprocess.run(["depmod", "-b", tree, version], check=True)
    return kernel


def module_order(kernel, wanted):
    """Files to load, each after what it depends on; what is built in is left out."""
    depends = {}
    names = {}
    with open(os.path.join(kernel.modules, "modules.dep"), encoding="utf-8") as lines:
        for line in lines:
            path, _, rest = line.partition(":")
            depends[path] = rest.split()
            names[os.path.basename(path).split(".ko")[0].replace("-", "_")] = path
    order = []

    def add(path):
        for other in depends[path]:
            add(other)
        if path not in order:
            order.append(path)

    for name in wanted:
        if name in names:
            add(names[name])
    return order


def newc_archive(entries):
    """A cpio archive (newc) of (name, mode, bytes)."""
    archive = bytearray()
    for number, (name, mode, data) in enumerate(entries + [("TRAILER!!!", 0, b"")], 1):
        encoded = name.encode() + b"\0"
        fields = (number, mode, 0, 0, 1, 0, len(data), 0, 0, 0, 0, len(encoded), 0)
        archive += b"070701" + b"".join(b"%08X" % field for field in fields) + encoded
        archive += bytes(-len(archive) % 4) + data
        archive += bytes(-len(archive) % 4)
    return bytes(archive)


def build_initramfs(kernel):
    """Built once for a kernel and an init; its name carries what it was made from, this file included."""
    source = os.path.join(HERE, "init.c")
    files = module_order(kernel, MODULES)
    seed = hashlib.sha256()
    for origin in (source, __file__):
        with open(origin, "rb") as text:
            seed.update(text.read())
    for path in files:
        state = os.stat(os.path.join(kernel.modules, path))
        seed.update(f"{path} {state.st_size} {state.st_mtime_ns}".encode())
    folder = os.path.join(BUILD, "guest")
    os.makedirs(folder, exist_ok=True)
    image = os.path.join(folder, f"initramfs-{kernel.version}-{seed.hexdigest()[:12]}")
    if os.path.exists(image):
        return image
    program = f"{image}.init.{os.getpid()}"
    subprocess.run(["gcc", "-O2", "-Wall", "-Wextra", "-Werror", "-static", "-o", program, source],
                   check=True)
    entries = [("dev", 0o040755, b"")]
    with open(program, "rb") as binary:
        entries.append(("init", 0o100755, binary.read()))
    os.unlink(program)
    names = []
    for path in files:
        name = os.path.basename(path).removesuffix(".xz")
        opened = lzma.open if path.endswith(".xz") else open  # the loader of a first process takes plain ones
        with opened(os.path.join(kernel.modules, path), "rb") as module:
            names.append("/" + name)
            entries.append((name, 0o100644, module.read()))
    entries.append(("modules", 0o100644, "".join(name + "\n" for name in names).encode()))
    with open(f"{image}.{os.getpid()}", "wb") as out:
        out.write(newc_archive(entries))
    os.rename(f"{image}.{os.getpid()}", image)
    return image


def parse_size(text):
    units = {"K": 10, "M": 20, "G": 30, "T": 40}
    return int(text[:-1]) << units[text[-1]] if text[-1] in units else int(text)


@dataclasses.dataclass
class Disk:
    """A virtio disk, /dev/guest/NAME in the guest: a new sparse file of a size, or a file as it is."""
    name: str
    path: str
    options: str = ""

    @classmethod
    def parse(cls, word, folder):
        """name:SIZE[,option=value...] or name:/path/of/file[,...]; options are those of -drive."""
        name, _, rest = word.partition(":")
        what, _, options = rest.partition(",")
        if "/" in what:
            return cls(name, os.path.abspath(what), options)
        path = os.path.join(folder, name + ".img")
        with open(path, "wb") as image:
            image.truncate(parse_size(what))
        return cls(name, path, options)


@dataclasses.dataclass
class Result:
    """How a boot ended: exit, signal, timeout, crash (asked for by the job), died (by itself)."""
    end: str
    status: int
    events: list
    trouble: list
    seconds: float

    @property
    def ok(self):
        return self.end == "exit" and self.status == 0 and not self.trouble


def read_trouble(path, start=0, allow=()):
    """The lines of a kernel log that fail a run, from an offset on, each with a few that follow."""
    found = []
    following = 0
    allowed = [re.compile(pattern) for pattern in allow]
    with open(path, encoding="utf-8", errors="replace") as log:
        log.seek(start)
        for line in log:
            bad = TROUBLE.search(line) and not any(pattern.search(line) for pattern in allowed)
            if bad:
                following = 12
            if following > 0 and len(found) < 60:
                found.append(line.rstrip())
                following -= 1
    return found


def qemu_command(kernel, initramfs, folder, disks, memory, limit, cpus, ports, clock, words):
    accel = ["-accel", "tcg,thread=multi"]
    if clock == "instructions":
        accel = ["-accel", "tcg,thread=single", "-icount", "shift=0,sleep=off"]
    words = ["console=ttyS0", "loglevel=3", "log_buf_len=32M", "printk.devkmsg=on", "panic=-1",
             "oops=panic", "random.trust_cpu=on", "tsc=nowatchdog",
             # An emulated CPU may have to wait for a real one: that long is no stall of the kernel's.
             "rcupdate.rcu_cpu_stall_timeout=120", "watchdog_thresh=60", f"guest.limit={limit}",
             f"guest.kernel={kernel.version}", *words]
    if kernel.tree != "/":
        words.append(f"guest.tree={kernel.tree}")
    command = [
        "qemu-system-x86_64", "-name", os.path.basename(folder), "-nodefaults", "-no-user-config",
        "-machine", "q35", *accel, "-cpu", "max,la57=off", "-smp", str(cpus),
        "-m", str(memory), "-display", "none", "-no-reboot",
        "-kernel", kernel.image, "-initrd", initramfs, "-append", " ".join(words),
        "-serial", f"file:{folder}/console.log", "-device", "virtio-rng-pci",
        "-fsdev", "local,id=root,path=/,security_model=none,readonly=on,multidevs=remap",
        "-device", "virtio-9p-pci,fsdev=root,mount_tag=root",
        "-fsdev", f"local,id=share,path={folder},security_model=none,multidevs=remap",
        "-device", "virtio-9p-pci,fsdev=share,mount_tag=share",
        "-device", "virtio-serial-pci",
        "-chardev", f"file,id=log,path={folder}/kernel.log,append=on",
        "-chardev", f"socket,id=out,fd={ports['out']}", "-chardev", f"socket,id=ctl,fd={ports['ctl']}"]
    for port in ("out", "ctl", "log"):
        command += ["-device", f"virtserialport,chardev={port},name={port}"]
    for disk in disks:
        options = disk.options or "cache=writeback"
        command += ["-drive", f"file={disk.path},if=none,id={disk.name},format=raw,discard=unmap,"
                    f"file.locking=off,{options}",
                    "-device", f"virtio-blk-pci,drive={disk.name},serial={disk.name}"]
    return command


class Boot:
    """One life of a guest, from power-on until it is cut off."""

    def __init__(self, folder, disks, limit, memory, cpus, kernel, clock, words):
        self.folder = folder
        self.limit = limit
        self.log = os.path.join(folder, "kernel.log")
        self.events = []
        self.began = time.monotonic()
        self.powers_off = kernel.powers_off
        initramfs = kernel.initramfs()
        ours, theirs = zip(socket.socketpair(), socket.socketpair())
        self.out, self.ctl = ours
        ports = {"out": theirs[0].fileno(), "ctl": theirs[1].fileno()}
        for name in ("kernel.log", "console.log"):
            with open(os.path.join(folder, name), "ab"):
                pass
        self.log_start = os.path.getsize(self.log)
        with open(os.path.join(folder, "qemu.err"), "ab") as errors:
            self.qemu = subprocess.Popen(
                qemu_command(kernel, initramfs, folder, disks, memory, limit, cpus, ports, clock,
                             words),
                stdin=subprocess.DEVNULL, stdout=errors, stderr=errors,
                pass_fds=tuple(ports.values()))
        for end in theirs:
            end.close()

    def kill(self):
        """The power cut: no process of the guest, and no part of its kernel, gets another step."""
        if self.qemu.poll() is None:
            self.qemu.send_signal(signal.SIGKILL)
        self.qemu.wait()

    def has_begun(self):
        """Whether the guest's first process ran: the log is its work."""
        return os.path.getsize(self.log) > self.log_start

    def log_is_complete(self):
        with open(self.log, "rb") as log:
            log.seek(max(self.log_start, os.path.getsize(self.log) - (1 << 20)))
            return END_OF_LOG.encode() in log.read()

    def wait_for_off(self):
        """A guest that shuts down as a machine does has the rest of its time for it."""
        try:
            self.qemu.wait(max(60, self.began + self.limit - time.monotonic()))
            return "exit"
        except subprocess.TimeoutExpired:
            return "timeout"

    def drain(self, show):
        """Reads what the guest still had on its way out."""
        while True:
            ready, _, _ = select.select([self.out], [], [], 0)
            data = self.out.recv(65536) if ready else b""
            if not data:
                return
            show(data)

    def follow(self, show, event):
        """Until the job has ended, the guest asked for its end, or died. Answers (end, status)."""
        deadline = self.began + self.limit + 60  # the guest itself keeps the limit, and says more
        pending = b""
        while True:
            left = deadline - time.monotonic()
            ready, _, _ = select.select([self.out, self.ctl], [], [], max(0, min(left, 5)))
            if left <= 0:
                return "timeout", 0
            if self.out in ready:
                data = self.out.recv(65536)
                if data:
                    show(data)
                elif self.ctl not in ready:
                    return "died", 0
            if self.ctl not in ready:
                continue
            data = self.ctl.recv(65536)
            if not data:
                return "died", 0
            *lines, pending = (pending + data).split(b"\n")
            for line in lines:
                kind, _, rest = line.decode("utf-8", "replace").partition(" ")
                if kind in ("exit", "signal"):
                    return kind, int(rest)
                if kind in ("timeout", "crash"):
                    return kind, 0
                self.events.append((kind, rest))
                event(kind, rest)


def live(boot, show, event):
    """Follows a boot to its end, which it answers with the status; all output is kept."""
    with open(os.path.join(boot.folder, "output.log"), "ab") as output:
        def keep(data):
            output.write(data)
            show(data)
        try:
            end, status = boot.follow(keep, event)
            if end == "crash":
                boot.kill()
            elif end != "died":
                patience = time.monotonic() + 30
                while not boot.log_is_complete() and time.monotonic() < patience:
                    time.sleep(0.02)
                boot.drain(keep)
                if boot.powers_off and end == "exit":
                    end = boot.wait_for_off()
        finally:
            boot.kill()
    return end, status


def run(name, job, disks=(), limit=60, memory=1536, cpus=2, allow=(), kernel=None, show=None,
        event=None, fresh=True, clock="host", words=()):
    """Boots, runs the shell text `job` as root, and answers a Result.

    Everything about the run is kept in build/guest/NAME, which is /run/guest in the guest. With
    fresh=False the folder, its disks and its logs go on from the boot before. With
    clock="instructions" each instruction of the guest takes 1 ns of its time, whatever the host does
    (one CPU only); `words` are added to the kernel's command line.
    """
    folder = os.path.join(BUILD, "guest", name)
    if fresh:
        shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder, exist_ok=True)
    kernel = kernel or find_kernel()
    disks = [disk if isinstance(disk, Disk) else Disk.parse(disk, folder) for disk in disks]
    with open(os.path.join(folder, "job"), "w", encoding="utf-8") as out:
        out.write(f"cd {shlex.quote(kernel.host + TOP)} || exit 126\n{job}\n")
    show = show or (lambda data: (sys.stdout.buffer.write(data), sys.stdout.flush()))
    event = event or (lambda kind, rest: None)
    for _ in range(BOOTS):
        boot = Boot(folder, disks, limit, memory, cpus, kernel, clock, words)
        end, status = live(boot, show, event)
        if end != "died" or boot.has_begun():
            break
    trouble = read_trouble(boot.log, boot.log_start, allow)
    if end == "died":
        with open(os.path.join(folder, "console.log"), encoding="utf-8", errors="replace") as console:
            trouble += ["the guest died; the end of its console:"] + console.read().splitlines()[-60:]
    elif end != "crash" and not boot.log_is_complete():
        trouble.append("the kernel log has no end: its last lines are missing")
    return Result(end, status, boot.events, trouble, time.monotonic() - boot.began)
