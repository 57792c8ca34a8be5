"""Every power cut in a log of device-mapper's log-writes target, judged for the files of an ext4 on the partition: does one
lack what its writer was told to be durable?

The logged device is the partition, the file system made with Ext4.OPTIONS. A mark "file:NAME:CRC" follows the end of a call
that made a file of one block durable, "going:NAME" comes before its next writing, and "begin" and "end" stand around all.
What a node kept back of a flush, or of a write that asked to be durable, is not in the log where the mark comes.
"""

import zlib

import replay
from replay import FLAG_FUA


class Judge(replay.LogJudge):
    """Counts files that are as they were when a call ended; of marks those whose file came by a single such write."""

    LEAST = {"durable": 500, "by one write": 9, "by a flush": 9}
    LEAST_IN_CUTS = {"durable": 100}
    LEAST_PREFIXES = 60
    CUTS_OF_A_FLUSH = 4

    def __init__(self, total_bytes):
        super().__init__(total_bytes, total_bytes)
        self.judging = False
        self.files = {}
        self.written = set()  # checksums of writes that asked to be durable themselves

    def is_judging(self):
        return self.judging

    def kept(self):
        """All of it follows from the device's bytes."""

    def restore(self, _):
        pass

    def apply(self, entry):
        self.part[entry.offset:entry.offset + entry.length] = entry.data

    def take_write(self, entry):
        if entry.flags & FLAG_FUA:
            self.written.add(zlib.crc32(entry.data))
        super().take_write(entry)

    def take_mark(self, mark):
        word, *rest = mark.split(":")
        if word == "going":
            self.files.pop(rest[0], None)
        elif word == "file":
            self.files[rest[0]] = int(rest[1])
            self.counts["by one write" if int(rest[1]) in self.written else "by a flush"] += 1
            self.look(self.counts, f"what follows prefix {self.prefixes}")
        elif word in ("begin", "end"):
            self.judging = word == "begin"
            self.ended = word == "end"

    def look(self, counts, what):
        fs = replay.Ext4(self.part)
        names = fs.names()
        for name, checksum in self.files.items():
            if name in names and zlib.crc32(fs.read(names[name])) == checksum:
                counts["durable"] += 1
            else:
                counts["lost"] += 1
                self.faults.append(f"{what}: {name} is not what was durable")
