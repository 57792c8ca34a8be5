"""A second opinion on what was written: the kernel's own trace of the requests that reach a disk."""

import os
import re

import kit

TRACING = "/sys/kernel/tracing"
EVENT = re.compile(r"block_bio_queue: (\d+),(\d+) (\S+) (\d+) \+ (\d+) ")
WRITES = re.compile("[WDN]")  # write, discard, and what the trace has no letter for: write-zeroes


def _set(name, text):
    with open(f"{TRACING}/{name}", "w", encoding="ascii") as out:
        out.write(text)


class Trace:
    """The extents that write requests to one node touched since the trace began or was last asked."""

    def __init__(self, minor, extent_size):
        if not os.path.exists(f"{TRACING}/trace"):
            kit.run("mount", "-t", "tracefs", "tracefs", TRACING)
        self.extent_size = extent_size
        device = kit.block_major() << 20 | minor
        _set("tracing_on", "0")
        _set("buffer_size_kb", "16384")
        _set("trace", "")
        _set("events/block/block_bio_queue/filter", f"dev == {device}")
        _set("events/block/block_bio_queue/enable", "1")
        _set("tracing_on", "1")

    def written(self):
        """The extents, and nothing of them is kept for the next call."""
        _set("tracing_on", "0")
        found = set()
        with open(f"{TRACING}/trace", encoding="utf-8", errors="replace") as lines:
            for line in lines:
                match = EVENT.search(line)
                if match and WRITES.search(match.group(3)):
                    first, count = int(match.group(4)), int(match.group(5))
                    found |= kit.covering(first * 512, count * 512, self.extent_size)
        for cpu in os.listdir(f"{TRACING}/per_cpu"):
            with open(f"{TRACING}/per_cpu/{cpu}/stats", encoding="ascii") as stats:
                for line in stats:
                    if line.startswith(("overrun:", "dropped events:")):
                        kit.equal(int(line.split(":")[1]), 0, f"trace lost events ({cpu})")
        _set("trace", "")
        _set("tracing_on", "1")
        return found

    def close(self):
        _set("tracing_on", "0")
        _set("events/block/block_bio_queue/enable", "0")
