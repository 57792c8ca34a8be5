#!/usr/bin/env python3
"""The guest's side of the benchmarks: measures every subject, one JSON record a figure.

    inside.py OUT [--module KO] [--quick] [--only SUBJECT,...]

OUT gets a line at each figure, so that a run that breaks off still tells what it had.
"""

import argparse
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

    def figure(self, subject, workload, count_and_ms):
        count, ms = count_and_ms
        self.put(backing=subject.backing.name, subject=subject.name, workload=workload,
                 requests=count, ms=ms)
        print(f"{subject.backing.name:4} {subject.name:16} {workload:16} {count:7} in {ms:8.1f} ms",
              flush=True)


def measure_first(subject, recorder, rounds):
    """The bare device writes the same lists: the figure that the others are set against."""
    exact = subject.name in ("raw", "snbf")  # so little each that one round is a handful of ticks
    for name in workloads.FIRST:
        for number in range(rounds if exact else 1):
            count = subject.touches - number * workloads.SHORTER_BY
            subject.renew()
            recorder.figure(subject, name, workloads.first_touches(subject.device, name, count))
            if exact:
                recorder.figure(subject, name.replace("first", "again"),
                                workloads.first_touches(subject.device, name, count))


def measure_reads(subject, recorder, rounds):
    for name in workloads.STEADY:
        if name.startswith("read"):
            for number in range(rounds):
                recorder.figure(subject, name, workloads.steady(subject.device, name,
                                                                subject.backing.slow, number))


def measure_sequence(subject, recorder):
    for _ in range(3 if subject.name in ("raw", "snbf") else 1):
        subject.renew()
        recorder.figure(subject, workloads.FIRST_SEQ,
                        workloads.first_sequence(subject.device, subject.sequence_mib))


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
        measure_reads(subject, recorder, rounds)
        if touched:
            measure_sequence(subject, recorder)
        measure_writes(subject, recorder, rounds)
    finally:
        subject.remove()


def measure_memory(backing, module, recorder):
    makers = {"dm-era": lambda disk, sectors: subjects.Era(backing, disk, sectors, backing.store)}
    if module:
        makers["snbf"] = lambda disk, sectors: subjects.Filter(backing, module, volume=disk)
    for name, make in makers.items():
        recorder.put(subject=name, workload="memory-per-tib",
                     bytes=subjects.bytes_per_tib(make))


def chosen(args, backing):
    """Name of each subject and how it is made on a backing."""
    makers = {"raw": subjects.Subject, "dm-linear": subjects.Linear, "dm-era": subjects.Era}
    for chunk, count in ((64, 1),) if args.quick else SNAPSHOTS:
        makers[f"dm-snap-{chunk}k-{count}"] = functools.partial(
            subjects.Snapshots, chunk_kib=chunk, count=count)
    for count in (1,) if args.quick else (1, 16):
        makers[f"dm-thin-{count}"] = functools.partial(subjects.Thin, count=count)
    if args.module:
        makers["snbf"] = functools.partial(subjects.Filter, module=args.module)
        makers["snbf-debug1"] = functools.partial(subjects.Filter, module=args.module,
                                                  name="snbf-debug1", parameters=())
    wanted = args.only or list(makers)
    if args.quick and backing.slow:
        wanted = [name for name in wanted if name in ("dm-era", "snbf")]
    return [functools.partial(make, backing) for name, make in makers.items()
            if name in wanted or name == "raw"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("out")
    parser.add_argument("--module")
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
        for make in chosen(args, backing):
            measure(make, recorder, 1 if args.quick else 2,
                    1 if backing.slow else 3 if args.quick else 8)
        if not backing.slow:
            measure_memory(backing, args.module, recorder)
        backing.remove()


if __name__ == "__main__":
    main()
