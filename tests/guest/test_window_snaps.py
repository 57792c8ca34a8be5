#!/usr/bin/env python3
"""No power cut leaves COW files of which a resume would make a wrong image: writers over snaps that come and go, on a
device whose every durable write is logged, and each prefix of that log judged. SNBF_LONG=N makes the load N times
as long, and leaves the judging to replay_snaps.py over the log's disk."""

import os
import random
import time

import kit
import logged
import replay_snaps
from kit import MIB

GUEST = {"quick": True, "kernels": "installed", "disks": ["base:64M", "log:4G"], "limit": 240}

PART = 8 * MIB
SNAPS = 3
ROUNDS = 5 * int(os.environ.get("SNBF_LONG") or 1)
SEED = 20240719
FIRST_MINOR = 10


def minor_of(number):
    return FIRST_MINOR + number % 100


def begin(device, number):
    result, _ = kit.add_snap(0, f"{logged.FOLDER}/cow{number}", minor=minor_of(number), chunk_size=replay_snaps.CHUNK)
    kit.done(result, "add snap")
    kit.done(kit.start(minor_of(number)), "start of a snap")
    device.mark(f"snap:{number}")


def end(device, number):
    device.mark(f"going:{number}")
    kit.done(kit.stop(minor_of(number)), "stop of the oldest")
    kit.done(kit.delete(minor_of(number)), "its deletion")


@kit.case
def every_prefix_of_the_log_has_true_images():
    rng = random.Random(SEED)
    kit.load(snbf_debug=0)
    with logged.node(PART) as device:
        for number in range(ROUNDS):
            begin(device, number)
            with logged.writers(rng, PART):
                time.sleep(0.5 + rng.random())
                if number >= SNAPS - 1:
                    end(device, number - SNAPS + 1)
                    time.sleep(rng.random() * 0.3)
        for number in range(max(ROUNDS - SNAPS + 1, 0), ROUNDS):
            end(device, number)
        device.mark("end")
    logged.judge(replay_snaps.Judge, PART)


if __name__ == "__main__":
    kit.main()
