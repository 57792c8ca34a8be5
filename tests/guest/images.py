"""What a snap must show: the bytes of the partition at the instant of its start."""

import contextlib
import mmap
import os

import kit
from kit import MIB

PIECE = 4 * MIB


def aligned(size):
    """Memory as direct I/O asks for it."""
    return mmap.mmap(-1, size)


def pieces(path):
    """A device's bytes as they are on it, past every page cache, in views of at most 4 MiB."""
    fd = os.open(path, os.O_RDONLY | os.O_DIRECT)
    try:
        size = os.lseek(fd, 0, os.SEEK_END)
        with aligned(PIECE) as page, memoryview(page) as view:
            for at in range(0, size, PIECE):
                with view[:min(PIECE, size - at)] as piece:
                    kit.equal(os.preadv(fd, [piece], at), len(piece), f"read of {path} at {at}")
                    yield piece
    finally:
        os.close(fd)


def read_all(path):
    data = bytearray()
    for piece in pieces(path):
        data += piece
    return data


def hashes(path, unit):
    """Stands for a device's bytes, one number a unit: for devices too large to keep whole."""
    return [hash(bytes(piece[at:at + unit])) for piece in pieces(path) for at in range(0, len(piece), unit)]


def differing(path, wanted, unit):
    """Numbers of the units in which a device differs from bytes, or from hashes, taken earlier."""
    if isinstance(wanted, list):
        return [number for number, (ours, theirs) in enumerate(zip(hashes(path, unit), wanted, strict=True))
                if ours != theirs]
    found = read_all(path)
    if found == wanted:
        return []
    kit.equal(len(found), len(wanted), "size")
    with memoryview(found) as ours, memoryview(wanted) as theirs:
        return [at // unit for at in range(0, len(wanted), unit) if ours[at:at + unit] != theirs[at:at + unit]]


class Image:
    """A snap that has been started, and the bytes that it must show until it is stopped."""

    def __init__(self, minor, wanted, mapped=False):
        self.minor = minor
        self.wanted = wanted
        self.chunk_size = kit.info(minor).chunk_size
        self.used = kit.used_chunks(minor) if mapped else None  # None: every chunk must be right

    @property
    def path(self):
        return f"/dev/snbf/snbf{self.minor}"

    def check(self, when):
        at = kit.info(self.minor)
        kit.equal((at.started, at.snap_valid), (1, 1), f"{when}: snap {self.minor}: started, valid")
        wrong = differing(self.path, self.wanted, self.chunk_size)
        if self.used is not None:
            wrong = [chunk for chunk in wrong if chunk in self.used]
        kit.check(not wrong, f"{when}: snap {self.minor} changed in {len(wrong)} chunks: {wrong[:20]}")

    def copied(self):
        """Chunks that were copied into this snap, by its COW bitmap file."""
        with open(kit.info(self.minor).cow_bmp_fname.decode(), "rb") as saved:
            return kit.extents(saved.read(), kit.info(self.minor).chunk_cnt)


class Store:
    """Makes the snaps of a filter node, and removes what is left of them."""

    def __init__(self, folder, filter_minor):
        self.folder = folder
        self.filter_minor = filter_minor
        self.number = 0

    def add(self, **more):
        """A snap that is not started: its minor."""
        self.number += 1
        result, record = kit.add_snap(self.filter_minor, f"{self.folder}/cow{self.number}", **more)
        kit.done(result, "add snap")
        return record.snap_minor

    def start(self, wanted, mapped=False, **more):
        """Nothing is being written: `wanted` is what the partition holds."""
        minor = self.add(**more)
        kit.done(kit.start(minor), f"start of snap {minor}")
        return Image(minor, wanted, mapped)


@contextlib.contextmanager
def snapped(device, folder, **more):
    """A started filter node, its writers' device file, and where its snaps come from."""
    with kit.node(device, folder, minor=0, **more) as record:
        store = Store(folder, record.minor)
        try:
            yield f"/dev/snbf/snbf{record.minor}", store
        finally:
            for minor in reversed(list(kit.info(record.minor).snap_minors)[:kit.info(record.minor).snap_cnt]):
                kit.stop(minor)
