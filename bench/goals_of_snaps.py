"""The bounds that a node with started snaps must hold, and where it is to get."""

# backing, subjects, workload, what of it, must, aim. N = 1 and 16 copy once, so they cost alike.
BOTH_4K = ("snbf-snap-4k-1", "snbf-snap-4k-16")
BOTH_64K = ("snbf-snap-64k-1", "snbf-snap-64k-16")
FIGURES = (
    ("brd", BOTH_4K, "write-4k-qd1", "added", 3200, 2500),
    ("brd", BOTH_4K, "write-4k-qd32", "added", 3200, 2500),
    ("brd", BOTH_4K, "write-128k-seq", "ratio", 0.60, 0.75),
    ("brd", BOTH_4K, "first-4k-qd1", "iops", 7400, 8700),
    ("brd", BOTH_4K, "first-4k-qd32", "iops", 18000, 22000),
    ("brd", BOTH_4K, "first-128k-seq", "MB/s", 225, 450),
    ("brd", BOTH_64K, "first-4k-qd1", "iops", 2900, 6000),
    ("brd", BOTH_64K, "first-4k-qd32", "iops", 3600, 10000),
    ("brd", BOTH_4K, "read-4k-qd1", "added", 2600, 2000),
    ("brd", BOTH_4K, "read-4k-qd32", "added", 2600, 2000),
    ("brd", BOTH_4K[:1], "snap-4k-qd1", "ratio", 0.40, 0.50),
    ("brd", BOTH_4K[:1], "snap-4k-qd32", "ratio", 0.40, 0.50),
    ("brd", BOTH_4K[1:], "snap-4k-qd1", "ratio", 0.40, 0.45),
    ("brd", BOTH_4K[1:], "snap-4k-qd32", "ratio", 0.40, 0.45),
    ("brd", BOTH_4K, "snap-1m-seq", "ratio", 0.20, 0.25),
    ("lat", BOTH_4K, "write-4k-qd1", "ratio", 0.96, 0.97),
    ("lat", BOTH_4K, "write-4k-qd32", "ratio", 0.79, 0.83),
    ("lat", BOTH_4K, "first-4k-qd1", "iops", 1230, 1400),
    ("lat", BOTH_4K, "first-4k-qd32", "iops", 10500, 13000),
    ("lat", BOTH_4K, "snap-4k-qd32", "ratio", 0.20, 0.40),
    ("lat", BOTH_4K, "snap-1m-seq", "ratio", 0.07, 0.35),
    ("lat", BOTH_4K, "first-4k-qd1", "written", 9.5, 9.1),
    ("lat", BOTH_4K, "first-4k-qd32", "written", 2.6, 2.4),
    ("lat", BOTH_64K, "first-4k-qd1", "written", 25, 24),
    ("lat", BOTH_64K, "first-4k-qd32", "written", 18, 17.5),
)
# backing, subject, another of the same run, workload, how often as fast: must, aim.
BESIDE = (
    ("brd", "snbf-snap-4k-16", "snbf-snap-4k-1", "write-4k-qd1", 0.97, 0.99),
    ("brd", "snbf-snap-4k-16", "snbf-snap-4k-1", "first-4k-qd1", 0.97, 1.0),
    ("brd", "snbf-snap-4k-16", "snbf-snap-4k-1", "first-4k-qd32", 0.97, 1.0),
    ("brd", "snbf-snap-4k-16", "dm-snap-4k-16", "write-4k-qd1", 1.1, 1.2),
    ("brd", "snbf-snap-4k-16", "dm-snap-4k-16", "first-4k-qd1", 2.8, 3.2),
    ("brd", "snbf-snap-4k-16", "dm-snap-4k-16", "first-4k-qd32", 5.3, 6.5),
    ("brd", "snbf-snap-4k-16", "dm-snap-4k-16", "first-128k-seq", 13, 26),
    ("brd", "snbf-snap-64k-16", "dm-snap-64k-16", "first-4k-qd1", 4.4, 9),
    ("brd", "snbf-snap-64k-16", "dm-snap-64k-16", "first-4k-qd32", 3.6, 10),
    # One snapshot of the neighbour is its best case: a raw device with metadata of its own beside a
    # file whose blocks a journal gives out.
    ("brd", "snbf-snap-4k-1", "dm-snap-4k-1", "first-4k-qd1", 0.26, 0.31),
    ("brd", "snbf-snap-4k-1", "dm-snap-4k-1", "first-4k-qd32", 0.5, 0.63),
    ("brd", "snbf-snap-4k-1", "dm-snap-4k-1", "first-128k-seq", 0.95, 1.9),
    ("brd", "snbf-snap-64k-1", "dm-snap-64k-1", "first-4k-qd1", 0.32, 0.65),
    ("brd", "snbf-snap-64k-1", "dm-snap-64k-1", "first-4k-qd32", 0.3, 0.85),
    ("lat", "snbf-snap-4k-16", "dm-snap-4k-16", "first-4k-qd1", 1.0, 1.6),
    ("lat", "snbf-snap-4k-16", "dm-snap-4k-16", "first-4k-qd32", 1.0, 7),
)
# subject, the file work of its copies alone, workload, how often as fast: must, aim.
FLOORS = tuple((backing, f"snbf-snap-{chunk}-1", f"floor-file-{chunk}", workload, must, aim)
               for backing, chunk, workload, must, aim in (
                   ("brd", "4k", "first-4k-qd1", 0.85, 1.0),
                   ("brd", "4k", "first-4k-qd32", 0.85, 1.05),
                   ("brd", "64k", "first-4k-qd1", 0.85, 1.7),
                   ("brd", "64k", "first-4k-qd32", 0.85, 2.4),
                   ("brd", "4k", "first-128k-seq", 0.75, 1.5),
                   ("lat", "4k", "first-4k-qd1", 0.7, 0.8),
                   ("lat", "4k", "first-4k-qd32", 0.7, 0.9)))
UNITS = {"added": "A", "ratio": "of raw", "iops": "IOPS", "MB/s": "MB/s",
         "written": "bytes written per byte"}
SEQUENTIAL_BYTES = 128 << 10


def verdict(text, value, must, aim, lower_is_better=False):
    sign = -1 if lower_is_better else 1
    met = "no"
    if value * sign >= must * sign:
        met = "aim" if value * sign >= aim * sign else "must"
    return {"goal": text, "value": value, "must": must, "aim": aim, "met": met}


def value_of(cell, kind):
    if kind == "iops":
        return 1e9 / cell["ns"]
    if kind == "MB/s":
        return SEQUENTIAL_BYTES * 1e3 / cell["ns"]
    return cell.get("written_per_byte" if kind == "written" else kind)


def judge(table, memory, creation):
    goals = []
    for backing, subjects, workload, kind, must, aim in FIGURES:
        for subject in subjects:
            cell = table.get(backing, {}).get(subject, {}).get(workload)
            value = cell and value_of(cell, kind)
            if value is not None:
                goals.append(verdict(f"{backing} {subject} {workload}: {UNITS[kind]}", value, must,
                                     aim, kind in ("added", "written")))
    for backing, subject, other, workload, must, aim in (*BESIDE, *FLOORS):
        cells = [table.get(backing, {}).get(name, {}).get(workload) for name in (subject, other)]
        if all(cells):
            goals.append(verdict(f"{backing} {subject} {workload}: of {other}",
                                 cells[1]["ns"] / cells[0]["ns"], must, aim))
    if "snbf-snap-4k" in memory:
        goals.append(verdict("MiB per TiB, a snap all copied, 4 KiB chunks",
                             memory["snbf-snap-4k"] / (1 << 20), 33.6, 32.3, True))
    goals += [verdict(f"{subject}: creating a snap, ms", ms, 100, 40, True)
              for subject, ms in creation.items() if subject.startswith("brd/snbf")]
    return goals
