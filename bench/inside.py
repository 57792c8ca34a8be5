#!/usr/bin/env python3
"""The guest's side of the benchmarks: measures every subject, one JSON record a figure.

    inside.py OUT [--module KO] [--quick] [--only SUBJECT,...]

OUT gets a line at each figure, so that a run that breaks off still tells what it had.
"""

import argparse
import fnmatch
import functools
import json
import subprocess
import time

import backings
import subjects
import workloads

SNAPSHOTS = [(chunk, count) for chunk in (64, 4) for count in (1, 4, 16)]


class Recorder:
    def __init__(self, path):
        self.out = open(path, "w", encoding="ascii")
        self.began = time.monotonic()

    def put(self, **record):
        self.out.write(json.dumps(record) + "\n")
        self.out.flush()

    def figure(self, subject, workload, count_and_ms, **more):
        count, ms = count_and_ms
        self.put(backing=subject.backing.name, subject=subject.name, workload=workload,
                 requests=count, ms=ms, **more)
        print(f"{subject.backing.name:4} {subject.name:16} {workload:16} {count:7} in {ms:8.1f} ms",
              flush=True)


def measure_first(subject, recorder, rounds):
    """The bare device writes the same lists: the figure that the others are set against."""
    exact = subject.name in ("raw", "snbf")  # so little each that one round is a handful of ticks
    for name in workloads.FIRST:
        for number in range(rounds if exact else 1):
            count = subject.touches - number * workloads.SHORTER_BY
            subject.renew()
            with subject.backing.count_written() as written:
                figure = workloads.first_touches(subject.device, name, count, subject.touch_unit)
            recorder.figure(subject, name, figure, bytes=4096 * count, written=written())
            if exact:
                recorder.figure(subject, name.replace("first", "again"),
                                workloads.first_touches(subject.device, name, count,
                                                        subject.touch_unit))


def measure_reads(subject, recorder, rounds):
    for name in workloads.STEADY:
        if name.startswith("read"):
            for number in range(rounds):
                recorder.figure(subject, name, workloads.steady(subject.device, name,
                                                                subject.backing.slow, number))


def measure_snap_reads(subject, recorder):
    for name in workloads.SNAP_READS:
        recorder.figure(subject, name, workloads.snap_read(subject.oldest, name,
                                                           subject.backing.slow,
                                                           subject.touch_unit))


def measure_sequence(subject, recorder):
    for _ in range(3 if subject.name in ("raw", "snbf") else 1):
        subject.renew()
        with subject.backing.count_written() as written:
            figure = workloads.first_sequence(subject.device, subject.sequence_mib)
        recorder.figure(subject, workloads.FIRST_SEQ, figure, bytes=subject.sequence_mib << 20,
                        written=written())


def measure_writes(subject, recorder, rounds):
    workloads.write_rewrite_area(subject.device)
    for name in workloads.STEADY:
        if name.startswith("write"):
            for number in range(rounds):
                recorder.figure(subject, name, workloads.steady(subject.device, name,
                                                                subject.backing.slow, number))


def measure(make, recorder, rounds, first_rounds):
    subject = make()
    steady_only = subject.name == "snbf-debug1"  # there to show that the default costs no more
    touched = not steady_only and (subject.tracks or subject.name == "raw")
    try:
        workloads.steady(subject.device, "read-4k-qd1", True)  # brings fio itself into the cache
        if touched:
            measure_first(subject, recorder, first_rounds)
        if subject.oldest and subject.touches == workloads.FIRST_TOUCHES:
            measure_snap_reads(subject, recorder)
        measure_reads(subject, recorder, rounds)
        if touched:
            measure_sequence(subject, recorder)
        measure_writes(subject, recorder, rounds)
        for ms in subject.created_ms:
            recorder.put(backing=subject.backing.name, subject=subject.name, workload="create",
                         created_ms=ms)
    finally:
        subject.remove()


def measure_floor(backing, program, chunk_kib, recorder):
    """The file work alone of the first touches: the yardstick of what copies into files."""
    floor = subjects.Floor(backing, program, chunk_kib)
    try:
        for name in (*workloads.FIRST, workloads.FIRST_SEQ):
            with backing.count_written() as written:
                figure, touched = floor.measure(name)
            recorder.figure(floor, name, figure, bytes=touched, written=written())
    finally:
        floor.remove()


def measure_memory(backing, module, recorder, only):
    makers = {"dm-era": lambda disk, sectors: subjects.Era(backing, disk, sectors, backing.store)}
    if module:
        makers["snbf"] = lambda disk, sectors: subjects.Filter(backing, module, volume=disk)
    for name, make in makers.items():
        if is_wanted(name, only):
            recorder.put(subject=name, workload="memory-per-tib",
                         bytes=subjects.bytes_per_tib(make))
    if module and is_wanted("snbf-snap-4k", only):
        recorder.put(subject="snbf-snap-4k", workload="memory-per-tib",
                     bytes=subjects.copied_snap_per_tib(backing, module))


def is_wanted(name, only):
    return not only or any(fnmatch.fnmatch(name, pattern) for pattern in only)


def chosen(args, backing):
    """Name of each subject and how it is made on a backing."""
    makers = {"raw": subjects.Subject, "dm-linear": subjects.Linear, "dm-era": subjects.Era}
    for chunk, count in ((4, 1), (4, 16), (64, 1), (64, 16)) if args.quick else SNAPSHOTS:
        makers[f"dm-snap-{chunk}k-{count}"] = functools.partial(
            subjects.Snapshots, chunk_kib=chunk, count=count)
    for count in (1,) if args.quick else (1, 16):
        makers[f"dm-thin-{count}"] = functools.partial(subjects.Thin, count=count)
    if args.module:
        makers["snbf"] = functools.partial(subjects.Filter, module=args.module)
        makers["snbf-debug1"] = functools.partial(subjects.Filter, module=args.module,
                                                  name="snbf-debug1", parameters=())
        for chunk, count in ((4, 1), (4, 16), (64, 1), (64, 16)) if args.quick else SNAPSHOTS:
            makers[f"snbf-snap-{chunk}k-{count}"] = functools.partial(
                subjects.Snaps, module=args.module, chunk_kib=chunk, count=count)
    only = args.only
    if args.quick and backing.slow and not only:
        only = ["dm-era", "snbf", "*snap-4k-*"]
    return [functools.partial(make, backing) for name, make in makers.items()
            if name == "raw" or is_wanted(name, only)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("out")
    parser.add_argument("--module")
    parser.add_argument("--floor", help="the program that does the file work alone")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", type=lambda text: text.split(","), default=[])
    parser.add_argument("--backings", type=lambda text: text.split(","), default=["brd", "lat"])
    args = parser.parse_args()
    recorder = Recorder(args.out)
    for target in ("dm-mod", "dm-era", "dm-snapshot", "dm-thin-pool", "null_blk nr_devices=0"):
        subprocess.run(["modprobe", *target.split()], check=True)
    backings.run("mount", "-t", "configfs", "configfs", "/sys/kernel/config")
    for name, build in backings.ALL.items():
        if name not in args.backings:
            continue
        backing = build()
        exact = not backing.slow and is_wanted("snbf", args.only)
        for make in chosen(args, backing):
            measure(make, recorder, 1 if args.quick else 2,
                    1 if not exact else 3 if args.quick else 8)
        for chunk in (4, 64):
            if args.floor and is_wanted(f"floor-file-{chunk}k", args.only):
                measure_floor(backing, args.floor, chunk, recorder)
        if not backing.slow:
            measure_memory(backing, args.module, recorder, args.only)
        backing.remove()


if __name__ == "__main__":
    main()
