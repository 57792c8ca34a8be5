#!/usr/bin/env python3
"""No power cut leaves a bitmap file that a load takes over and that lacks a change: writers and saves over a
device whose every durable write is logged, and each prefix of that log judged. SNBF_LONG=N makes the load N times
as long, and leaves the judging to replay.py over the log's disk."""

import os
import random
import threading

import kit
import logged
import replay
from kit import MIB

GUEST = {"quick": True, "disks": ["base:64M", "log:4G"], "limit": 240}

PART = 16 * MIB
SAVES_A_ROUND = 8
ROUNDS = 3 * int(os.environ.get("SNBF_LONG") or 1)
SEED = 20240619


def save_some(rng):
    for _ in range(SAVES_A_ROUND):
        kit.done(kit.bmp_select("SAVE_BMP", 0, rng.choice(kit.BITMAPS)), "save")
        threading.Event().wait(rng.random() * 0.15)


def one_round(device, rng):
    device.mark("clearing")
    kit.clear(0)
    device.mark("cleared")
    with logged.writers(rng, PART):
        save_some(rng)


@kit.case
def every_prefix_of_the_log_has_a_true_bitmap():
    rng = random.Random(SEED)
    kit.load(snbf_debug=0)
    with logged.node(PART) as device:
        kit.clear(0)
        device.mark("begin")
        for _ in range(ROUNDS):
            one_round(device, rng)
        device.mark("end")
    logged.judge(replay.Judge, PART)


if __name__ == "__main__":
    kit.main()
