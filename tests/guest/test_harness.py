"""The guest itself: its disks, what a power cut keeps, and a kernel log that loses nothing."""

import os

import kit

GUEST = {"kernels": "installed", "disks": ["a:64M", "b:8M"], "boots": ["first!", "second"], "limit": 200}


@kit.case(boot="first")
def disks_have_their_names_and_sizes():
    kit.equal(kit.size_of(kit.disk("a")), 64 * kit.MIB, "a")
    kit.equal(kit.size_of(kit.disk("b")), 8 * kit.MIB, "b")


@kit.case(boot="first")
def a_power_cut_keeps_what_was_synced():
    fd = os.open(kit.disk("a"), os.O_WRONLY)
    os.pwrite(fd, b"kept" * 1024, 4096)
    os.fsync(fd)
    os.close(fd)
    kit.crash()


@kit.case(boot="second")
def the_next_boot_finds_it():
    with open(kit.disk("a"), "rb") as disk:
        disk.seek(4096)
        kit.equal(disk.read(4096), b"kept" * 1024, "what was written before the cut")


@kit.case(boot="second")
def a_flood_of_log_lines_arrives_whole():
    with open("/dev/kmsg", "w", encoding="ascii", buffering=1) as kmsg:
        for number in range(5000):
            kmsg.write(f"<7>flood {number} {'.' * 100}\n")


if __name__ == "__main__":
    kit.main()
