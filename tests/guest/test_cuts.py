#!/usr/bin/env python3
"""Power cuts at moments that nobody chose: lives of a guest in which everything is under way when it is killed, and
after each of them the bitmaps, the snaps and the acknowledged writes are compared with what was kept outside the driver's
reach. SNBF_LONG=N leads N lives more."""

import json
import os
import random
import struct
import threading
import time
import zlib

import images
import kit
from kit import KIB, MIB

GUEST = {"kernels": "installed", "minutes": 2, "disks": ["raw:8M", "store:160M", "keep:64M", "acks:32M"], "limit": 200,
         "boots": ["begin!", "cut!", "end"], "lasting": "cut!"}

SIZE = 8 * MIB
EXTENT = 4 * KIB
SECTOR = 512
NODE = "/dev/snbf/snbf0"
FOLDER = "/mnt/store"
FIRST_MINOR = 10
SNAPS = 3
SLOTS = SNAPS + 2
WRITERS = 4
STRIPE = SIZE // WRITERS
ACK_AREA = 8 * MIB
MOST_A_LIFE = ACK_AREA // SECTOR - 1
LONGEST_S = 4
HANG_S = 120  # much longer than a write may wait for all steps of a copy, and for the flag
LEAST_A_LIFE = 3  # acknowledged writes of each writer


class Keep:
    """What must be so after the cut, on a disk of its own: a record, written by turns to two places, and images of the
    partition at its quiet moments."""

    PLACES = (0, 64 * KIB)
    FIRST_IMAGE = MIB

    def __init__(self):
        self.path = kit.disk("keep")
        self.record = max(filter(None, map(self.read, self.PLACES)), key=lambda found: found["turn"], default=
                          {"turn": 0, "life": 0, "base": None, "snaps": [], "going": [], "found": {}})

    def __getitem__(self, name):
        return self.record[name]

    def read(self, place):
        with open(self.path, "rb") as disk:
            disk.seek(place)
            length, checksum = struct.unpack("<II", disk.read(8))
            text = disk.read(length) if length < 60 * KIB else b""
        return json.loads(text) if text and zlib.crc32(text) == checksum else None

    def update(self, **fields):
        """Durable, and whole, when it returns: the new record or, if the power is cut before, the old."""
        self.record = {**self.record, **fields, "turn": self.record["turn"] + 1}
        text = json.dumps(self.record).encode()
        self.write(self.PLACES[self.record["turn"] % 2], struct.pack("<II", len(text), zlib.crc32(text)) + text)

    def write(self, at, data):
        with open(self.path, "r+b") as disk:
            disk.seek(at)
            disk.write(data)
            disk.flush()
            os.fsync(disk.fileno())

    def image(self, slot):
        with open(self.path, "rb") as disk:
            disk.seek(self.FIRST_IMAGE + slot * SIZE)
            return disk.read(SIZE)

    def keep_image(self, data):
        """The slot of it, which is none that is still needed."""
        needed = {self["base"], *(snap["slot"] for snap in self["snaps"])}
        slot = next(number for number in range(SLOTS) if number not in needed)
        self.write(self.FIRST_IMAGE + slot * SIZE, data)
        return slot

    def count(self, what, many=1):
        self.update(found={**self["found"], what: self["found"].get(what, 0) + many})


class Writer(threading.Thread):
    """Writes to its stripe of the node, one write at a time, and keeps down which were acknowledged as durable.

    Each sector says which write it is of: the life of the guest, and its number in that."""

    HEAD = struct.Struct("<IIII")  # life, writer, number, sector
    least = LEAST_A_LIFE

    def __init__(self, life, number):
        super().__init__(daemon=True)
        self.life, self.number = life, number
        self.rng = random.Random(life * WRITERS + number)
        # Every other life soon comes back to the same extents: behind a save nothing new is marked, and the file is whole.
        self.reach = STRIPE if life % 2 else 128 * KIB
        self.acks = os.open(kit.disk("acks"), os.O_WRONLY | os.O_DSYNC)
        self.node = os.open(NODE, os.O_RDWR | (0 if number == 0 else os.O_DIRECT | os.O_DSYNC))
        self.failure = None
        self.done = 0  # acknowledged writes

    @classmethod
    def sectors(cls, life, writer, number, first, count):
        return b"".join(cls.HEAD.pack(life, writer, number, first + sector).ljust(SECTOR, bytes([number & 0xff]))
                        for sector in range(count))

    def run(self):
        try:
            self.write_on()
        except Exception as error:  # pylint: disable=broad-except
            self.failure = error  # for the case to raise

    def write_on(self):
        with images.aligned(64 * KIB) as page, memoryview(page) as view:
            for number in range(1, MOST_A_LIFE + 1):
                count = self.rng.choice((1, 2, 8, 8, 8, 40, 128))
                first = (self.number * STRIPE + self.rng.randrange(0, self.reach - count * SECTOR, SECTOR)) // SECTOR
                view[:count * SECTOR] = self.sectors(self.life, self.number, number, first, count)
                os.pwrite(self.node, view[:count * SECTOR], first * SECTOR)
                if self.number == 0:
                    os.fsync(self.node)
                ack = struct.pack("<IIII", self.life, number, first, count)
                os.pwrite(self.acks, ack.ljust(SECTOR, b"\0"), self.number * ACK_AREA + (number - 1) * SECTOR)
                self.done = number

    @staticmethod
    def acknowledged(life, writer):
        """How many of that life's writes were acknowledged, and the last of them to each sector."""
        last = {}
        with open(kit.disk("acks"), "rb") as acks:
            acks.seek(writer * ACK_AREA)
            for number in range(1, MOST_A_LIFE + 1):
                its_life, its_number, first, count = struct.unpack("<IIII", acks.read(SECTOR)[:16])
                if (its_life, its_number) != (life, number):
                    return number - 1, last
                last.update({first + sector: number for sector in range(count)})
        return number, last

    @classmethod
    def lost(cls, life, last, data):
        """Sectors that hold neither what was acknowledged last, which `last` tells of each writer, nor what was written
        after it."""
        wrong = []
        for writer in range(WRITERS):
            for sector, number in last[writer].items():
                held = data[sector * SECTOR:(sector + 1) * SECTOR]
                its_life, _, its_number, _ = cls.HEAD.unpack_from(held)
                if its_life != life or its_number < number or held != cls.sectors(life, writer, its_number, sector, 1):
                    wrong.append(sector)
        return wrong


def stem(number):
    return f"{FOLDER}/cow{number}"


def attach():
    kit.state_folder("store")
    kit.load(snbf_debug=0)
    kit.done(kit.add(kit.disk("raw"), FOLDER, minor=0, extent_size=EXTENT)[0], "add")


def add(snap):
    minor = FIRST_MINOR + snap["number"] % 100
    kit.done(kit.add_snap(0, stem(snap["number"]), minor=minor, chunk_size=16 * KIB)[0], "add snap")
    return minor


def judge_bitmaps(keep, now):
    base = keep.image(keep["base"])
    changed = {at // EXTENT for at in range(0, SIZE, EXTENT) if now[at:at + EXTENT] != base[at:at + EXTENT]}
    for kind in kit.BITMAPS:
        marked = kit.marked(0, kind)
        kit.check(changed <= marked, f"bitmap {kind} lacks {sorted(changed - marked)[:20]} of {len(changed)} changed extents")
        keep.count("bitmaps all ones" if len(marked) == SIZE // EXTENT else "bitmaps covering")


def resume_all(keep):
    """All of them before the first is read: an older one reads what a newer one holds."""
    resumed = []
    for snap in keep["snaps"]:
        minor = add(snap)
        kit.done(kit.resume(minor), f"resume of snap {snap['number']}")
        resumed.append(images.Image(minor, bytearray(keep.image(snap["slot"]))))
    for image in resumed:
        image.check("after the cut")
        keep.count("snaps exact")


def forget_those_that_were_going(keep):
    """Their deletion, or their start, was under way: nobody counts on them."""
    for number in keep["going"]:
        for suffix in (".bmp", ".data"):
            if os.path.exists(stem(number) + suffix):
                os.unlink(stem(number) + suffix)
                keep.count("files of half a snap")
    keep.update(going=[])


def judge():
    keep = Keep()
    attach()
    now = images.read_all(kit.disk("raw"))
    writes, last = zip(*(Writer.acknowledged(keep["life"], number) for number in range(WRITERS)))
    kit.check(min(writes) >= LEAST_A_LIFE, f"acknowledged writes of each writer: {writes}; {LEAST_A_LIFE} are the least")
    lost = Writer.lost(keep["life"], last, now)
    kit.equal(lost[:20], [], f"{len(lost)} sectors lost an acknowledged write")
    keep.count("acknowledged writes", sum(writes))
    judge_bitmaps(keep, now)
    forget_those_that_were_going(keep)
    resume_all(keep)
    keep.count("lives")
    return keep


def begin_life(keep):
    """At a quiet moment: what the bitmaps and the new snap are about is what the partition holds."""
    if not kit.info(0).started:
        kit.done(kit.start(0), "start")
    life = keep["life"] + 1
    slot = keep.keep_image(images.read_all(kit.disk("raw")))
    # What covers the changes since the older base covers those since the newer.
    keep.update(life=life, base=slot, going=[life])
    kit.clear(0)
    snap = {"number": life, "slot": slot}
    kit.done(kit.start(add(snap)), "start of a snap")
    keep.update(snaps=[*keep["snaps"], snap], going=[])


def let_the_oldest_go(keep):
    oldest, *others = keep["snaps"]
    keep.update(snaps=others, going=[oldest["number"]])
    minor = FIRST_MINOR + oldest["number"] % 100
    kit.done(kit.stop(minor), "stop of the oldest")
    kit.done(kit.delete(minor), "its deletion")
    keep.update(going=[])


def check_writers(writers):
    for failure in filter(None, (writer.failure for writer in writers)):
        raise failure


class Saves:
    """Who saves the bitmaps, and lets snaps go; it counts as a writer does."""

    done = 0
    least = 1


def all_get_on(workers, writers, rng):
    """What hung before the cut would look as if it had been cut: from its moment on each has one more done. A life in which
    little was done goes on until it is enough, and then for a while that nobody chose."""
    seen = [worker.done for worker in workers]
    wanted = [min(max(done + 1, worker.least), MOST_A_LIFE) for worker, done in zip(workers, seen)]
    deadline = time.monotonic() + HANG_S * kit.SLOWNESS
    while any(worker.done < least for worker, least in zip(workers, wanted)):
        check_writers(writers)
        now = [worker.done for worker in workers]
        if all(done > before for done, before in zip(now, seen)):
            seen, deadline = now, time.monotonic() + HANG_S * kit.SLOWNESS
        kit.check(time.monotonic() < deadline, f"before the cut somebody hangs: {now} done, {seen} {HANG_S} s before")
        time.sleep(0.005)
    time.sleep(rng.uniform(0, 0.1))
    check_writers(writers)


def work_until_the_end(keep):
    begin_life(keep)
    rng = random.Random(keep["life"])
    writers = [Writer(keep["life"], number) for number in range(WRITERS)]
    saves = Saves()
    moments = random.Random(f"moments of {keep['life']}")
    kit.crash_after(rng.uniform(0.1, LONGEST_S), lambda: all_get_on([*writers, saves], writers, moments))
    for writer in writers:
        writer.start()
    while True:
        time.sleep(rng.uniform(0, 0.2))
        check_writers(writers)
        if len(keep["snaps"]) > SNAPS - 1:
            let_the_oldest_go(keep)
        kit.done(kit.bmp_select("SAVE_BMP", 0, rng.choice(kit.BITMAPS)), "save")
        saves.done += 1


@kit.case(boot="begin")
def the_first_life_is_cut():
    with open(kit.disk("raw"), "wb") as out:
        out.write(random.Random(1).randbytes(SIZE))
    attach()
    work_until_the_end(Keep())


@kit.case(boot="cut")
def what_the_cut_left_is_true_and_the_next_one_comes():
    work_until_the_end(judge())


@kit.case(boot="end")
def what_the_last_cut_left_is_true():
    keep = judge()
    found = {"bitmaps covering": 0, "bitmaps all ones": 0, **keep["found"]}
    print(found)
    lives = int(os.environ.get("SNBF_LONG") or 1) + 1
    kit.equal(found["lives"], lives, "lives that were judged")
    kit.equal(found["bitmaps covering"] + found["bitmaps all ones"], lives * len(kit.BITMAPS), "bitmaps that were judged")
    # Each life starts one before its writers begin, and the second has that of the first as well.
    kit.check(found["snaps exact"] > lives, f"{found['snaps exact']} images were judged in {lives} lives")
    if os.environ.get("SNBF_LONG"):
        kit.check(found["bitmaps covering"] and found["bitmaps all ones"], "too little was tried")
    kit.unload()
    kit.equal(kit.slabs(), [], "slab caches")


if __name__ == "__main__":
    kit.main()
