"""Devices that fail or stall when a test says so: device-mapper's targets over a disk."""

import kit


class Mapped:
    """A device of device-mapper: `table(sectors)` lays it over the disk."""

    def __init__(self, name, disk):
        self.name = name
        self.disk = disk
        self.sectors = kit.size_of(disk) // 512
        self.call("create", name, "--table", self.good())
        self.path = "/dev/" + self.call("info", "-c", "--noheadings", "-o", "blkdevname", name).strip()

    @staticmethod
    def call(*words):
        return kit.run("dmsetup", "--noudevsync", "--noudevrules", *words)

    def good(self):
        """Requests pass; by the target that can also fail them, which is not request-based."""
        return f"0 {self.sectors} flakey {self.disk} 0 3600 0"

    def failing(self, *features):
        """Every request fails; with features as "error_writes", what they say."""
        words = f" {len(features)} {' '.join(features)}" if features else ""
        return f"0 {self.sectors} flakey {self.disk} 0 0 3600{words}"

    def with_hole(self, start, length):
        """Requests to that range of bytes fail."""
        first, count = start // 512, length // 512
        behind = first + count
        return (f"0 {first} linear {self.disk} 0\n{first} {count} error\n"
                f"{behind} {self.sectors - behind} linear {self.disk} {behind}")

    def become(self, table):
        self.call("suspend", "--nolockfs", "--noflush", self.name)
        self.call("reload", self.name, "--table", table)
        self.call("resume", self.name)

    def stall(self):
        """No request ends until go_on(). Nothing is flushed or frozen before."""
        self.call("suspend", "--nolockfs", "--noflush", self.name)

    def go_on(self):
        self.call("resume", self.name)

    def remove(self):
        self.call("remove", "--retry", self.name)
