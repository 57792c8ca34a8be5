"""From the guest's figures to tables, ratios and verdicts."""

import collections
import json
import os
import statistics

import goals_of_snaps

WRITES = {
    "write-4k-qd1": "4K rewrite QD1", "write-4k-qd32": "4K rewrite QD32",
    "first-4k-qd1": "4K first QD1", "first-4k-qd32": "4K first QD32",
    "first-128k-seq": "128K seq first", "write-128k-seq": "128K seq rewrite",
}
READS = {
    "read-4k-qd1": "4K read QD1", "read-4k-qd32": "4K read QD32", "read-1m-seq": "1M seq read",
    "snap-4k-qd1": "snapshot 4K QD1", "snap-4k-qd32": "snapshot 4K QD32",
    "snap-1m-seq": "snapshot 1M seq",
}
TITLES = {**WRITES, **READS}
# A snapshot's reads are set against the same reads of the bare device.
YARDSTICK = {"snap-4k-qd1": "read-4k-qd1", "snap-4k-qd32": "read-4k-qd32",
             "snap-1m-seq": "read-1m-seq"}
REQUEST_BYTES = {"write-128k-seq": 128 << 10, "first-128k-seq": 128 << 10, "read-1m-seq": 1 << 20,
                 "snap-1m-seq": 1 << 20}
BACKINGS = {"brd": "RAM disks (brd)", "lat": "100 us per request (lat)"}


def summarize(figures):
    """Per backing, subject and workload: ns a request over all rounds, how far the rounds differ,
    the ratio to the bare device and the nanoseconds (on a RAM disk: instructions) over it."""
    rounds = collections.defaultdict(list)
    traffic = collections.defaultdict(list)
    created = collections.defaultdict(list)
    memory = {}
    for figure in figures:
        if figure["workload"] == "memory-per-tib":
            memory[figure["subject"]] = figure["bytes"]
            continue
        key = figure["backing"], figure["subject"], figure["workload"]
        if "ms" in figure:
            rounds[key].append((figure["requests"], figure["ms"]))
        if figure.get("written"):  # RAM disks do not count
            traffic[key].append(figure["written"] / figure["bytes"])
        if "created_ms" in figure:
            created[key[:2]].append(figure["created_ms"])
    cells = {}
    for key, runs in rounds.items():
        each = [ms * 1e6 / count for count, ms in runs]
        cells[key] = {
            "rounds": len(runs),
            "ns": sum(ms for _, ms in runs) * 1e6 / sum(count for count, _ in runs),
            "spread": (max(each) - min(each)) / min(each) if min(each) else None,
        }
        if key in traffic:
            cells[key]["written_per_byte"] = statistics.median(traffic[key])
    for (backing, _, workload), cell in cells.items():
        raw = cells.get((backing, "raw", YARDSTICK.get(workload, workload)))
        if raw:
            cell["ratio"] = raw["ns"] / cell["ns"]
            cell["added"] = cell["ns"] - raw["ns"]
    table = {}
    for (backing, subject, workload), cell in cells.items():
        table.setdefault(backing, {}).setdefault(subject, {})[workload] = cell
    creation = {"/".join(key): statistics.median(each) for key, each in created.items()}
    goals = judge(table, memory) + goals_of_snaps.judge(table, memory, creation)
    return {"cells": table, "memory_per_tib": memory, "creation_ms": creation, "goals": goals}


def judge(table, memory):
    """The bounds that a filter node must hold, and where it is to get."""
    brd = table.get("brd", {})
    node, era = brd.get("snbf"), brd.get("dm-era", {})
    goals = []
    if not node:
        return goals

    def goal(*words):
        goals.append(goals_of_snaps.verdict(*words))

    def over_era(workload):
        return era[workload]["ns"] / node[workload]["ns"]

    for workload in ("write-4k-qd1", "write-4k-qd32", "read-4k-qd1", "read-4k-qd32"):
        goal(f"{TITLES[workload]}: A", node[workload]["added"], 1400, 1000, True)
        goal(f"{TITLES[workload]}: of raw", node[workload]["ratio"], 0.85, 0.89)
        if workload in era:
            goal(f"{TITLES[workload]}: of dm-era", over_era(workload), 1.0, 1.08)
    for workload, must, aim in (("first-4k-qd1", 11, 12), ("first-4k-qd32", 2.2, 2.4)):
        again = workload.replace("first", "again")
        goal(f"{TITLES[workload]}: A", node[workload]["added"], 1400, 1000, True)
        goal(f"{TITLES[workload]}: cost over the same writes again",
             node[workload]["ns"] / node[again]["ns"], 1.03, 1.02, True)
        if workload in era:
            goal(f"{TITLES[workload]}: of dm-era", over_era(workload), must, aim)
    for workload in ("first-128k-seq", "write-128k-seq"):
        goal(f"{TITLES[workload]}: of raw", node[workload]["ratio"], 0.95, 0.97)
    if "snbf" in memory:
        goal("MiB per TiB, 64 KiB extents", memory["snbf"] / (1 << 20), 4.2, 4.05, True)
    return goals


def speed(workload, ns):
    if workload in REQUEST_BYTES:
        return f"{REQUEST_BYTES[workload] * 1e9 / ns / 1e6:.0f}"
    iops = 1e9 / ns
    return f"{iops / 1000:.0f}k" if iops >= 10_000 else f"{iops:.0f}"


def ratio(value):
    return f"{value:.3f}" if value < 0.0995 else f"{value:.2f}"


def markdown_table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


def table_of(subjects, titles, show):
    """A row for each subject that has any of the figures."""
    rows = [[subject] + [show(name, cells[name]) if name in cells else "" for name in titles]
            for subject, cells in subjects.items()]
    return markdown_table(["subject", *titles.values()], [row for row in rows if any(row[1:])])


def speed_table(subjects, titles):
    return table_of(subjects, titles,
                    lambda name, cell: f"{speed(name, cell['ns'])} {ratio(cell['ratio'])}")


def added_table(subjects):
    titles = {name: title for name, title in TITLES.items() if name not in REQUEST_BYTES}
    return table_of(subjects, titles, lambda _, cell: f"{cell['added']:.0f}")


def traffic_table(subjects):
    written = {subject: {name: cell for name, cell in cells.items() if "written_per_byte" in cell}
               for subject, cells in subjects.items()}
    titles = {name: title for name, title in TITLES.items() if name.startswith("first")}
    return table_of(written, titles, lambda _, cell: f"{cell['written_per_byte']:.2f}")


def number(value):
    return f"{value:.0f}" if abs(value) >= 100 else f"{value:.3f}"


def markdown(summary):
    parts = ["# Speed of filter nodes and their snaps beside device-mapper\n",
             "IOPS, or MB/s for the sequential ones, and the ratio to the bare device; one "
             "nanosecond is one instruction.\n"]
    for backing, subjects in summary["cells"].items():
        parts += [f"## {BACKINGS[backing]}\n", speed_table(subjects, WRITES),
                  "Reads of the node, and of the oldest snapshot, half of it changed:\n",
                  speed_table(subjects, READS)]
        if backing == "lat":
            parts += ["Bytes written to both disks for each byte first written:\n",
                      traffic_table(subjects)]
        if backing == "brd":
            parts += ["Instructions added per request over the bare device (A):\n",
                      added_table(subjects)]
            raw = subjects["raw"]["write-4k-qd1"]["ns"]
            parts.append(f"A bare 4 KiB write is {raw:.0f} instructions, fio's included.\n")
    spreads = sorted((cell["spread"], backing, subject, name)
                     for backing, subjects in summary["cells"].items()
                     for subject, cells in subjects.items() for name, cell in cells.items()
                     if cell["rounds"] > 1 and name[:5] not in ("first", "again"))
    if spreads:
        above = sum(spread > 0.01 for spread, *_ in spreads)
        worst = "/".join(spreads[-1][1:])
        middle = spreads[len(spreads) // 2][0]
        parts.append(f"Rounds of the same figure differ by {middle:.2%} in the middle, "
                     f"{spreads[-1][0]:.2%} at worst ({worst}); {above} of {len(spreads)} by more "
                     "than 1 %.\n")
    if summary["memory_per_tib"]:
        parts += ["## Memory that grows with the volume\n",
                  markdown_table(["subject", "MiB per TiB"],
                                 [[subject, f"{held / (1 << 20):.2f}"]
                                  for subject, held in summary["memory_per_tib"].items()])]
    if summary["creation_ms"]:
        parts += ["## Creating and starting a snapshot\n",
                  markdown_table(["backing/subject", "ms"],
                                 [[subject, f"{ms:.1f}"]
                                  for subject, ms in summary["creation_ms"].items()])]
    if summary["goals"]:
        parts += ["## Bounds\n",
                  markdown_table(["bound", "measured", "must", "aim", "met"],
                                 [[goal["goal"], number(goal["value"]), str(goal["must"]),
                                   str(goal["aim"]), goal["met"]] for goal in summary["goals"]])]
    return "\n".join(parts)


def write(folder, figures, summary):
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "figures.jsonl"), "w", encoding="ascii") as out:
        out.writelines(json.dumps(figure) + "\n" for figure in figures)
    with open(os.path.join(folder, "report.json"), "w", encoding="utf-8") as out:
        json.dump(summary, out, indent=1)
    with open(os.path.join(folder, "report.md"), "w", encoding="utf-8") as out:
        out.write(markdown(summary))
