#!/usr/bin/env python3
"""Prints project/reference ratios from a tarvd_bench JSON result file.

Each row pairs a project case with its reference, run in the same program
run.  Thread variants ("/threads:N") are paired with the reference of the same
thread count.  Rows whose cases are missing (a reference library not built
in, a subsystem not there yet) are listed as skipped.
"""
import json
import sys

# (project case, reference case, target ratio or None).  A target may be a
# dict by thread variant ("threads:2"); variants it does not name have none.
PAIRS = [
    ("BM_TraceRingMemory", "BM_RefSpdlogFlush", 0.8),
    ("BM_TraceRingMemory", "BM_FloorSnprintfMmap", None),
    ("BM_TraceRingNoMemory", "BM_RefSpdlogNoFlush", 0.85),
    ("BM_TraceRingNoMemory", "BM_FloorSnprintfMmap", {"threads:1": 2.0, "threads:2": 2.5}),
    ("BM_TraceLogFileMemory", "BM_RefSpdlogFlush", 1.0),
    ("BM_TraceLogFileNoMemory", "BM_RefSpdlogFlush", 1.0),
    ("BM_RegistryLoad", "BM_RefKeyFileLoad", 0.5),
    ("BM_RegistrySave", "BM_RefKeyFileSave", 1.0),
    ("BM_RegistrySetValue", "BM_RefKeyFileSetValue", 1.0),
    ("BM_RegistryQueryValue", "BM_RefKeyFileQueryValue", 1.0),
    ("BM_IniGet", "BM_RefKeyFileIniGet", None),
    ("BM_IniSet", "BM_RefKeyFileIniSet", 1.5),
    ("BM_ProcessExecuteCmdSmall", "BM_RefPosixSpawnSmall", None),
    ("BM_ProcessExecuteCmdLarge", "BM_RefPosixSpawnLarge", 1.2),
    ("BM_SmbiosWalk", "BM_RefLspci", None),
    ("BM_PirValidate", "BM_RefLspci", None),
    ("BM_PciScanSlots", "BM_RefLspci", 0.1),
    ("BM_PerfMonSnapshotAll", "BM_BareProcReadParse", 1.5),
    ("BM_PerfMonSnapshotMemorySystemNetwork", "BM_BareProcReadParse", None),
    ("BM_MetricsHttpGet", "BM_RefNodeExporterScrape", None),
    ("BM_MetricsScrapeLive", "BM_RefNodeExporterScrape", None),
]

UNITS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(path):
    with open(path) as f:
        data = json.load(f)
    medians = {}
    for b in data.get("benchmarks", []):
        if b.get("error_occurred"):
            continue
        agg = b.get("aggregate_name")
        if agg not in (None, "median"):
            continue
        name = b.get("run_name", b["name"])
        if agg is None and name in medians:
            continue  # a median was there already
        medians[name] = b["real_time"] * UNITS.get(b.get("time_unit", "ns"), 1.0)
    return medians


def split(name):
    """("BM_TraceRingMemory", "/real_time/threads:2") -> base, thread suffix."""
    base = name.split("/")[0]
    threads = ""
    for part in name.split("/")[1:]:
        if part.startswith("threads:"):
            threads = part
    return base, threads


def fmt_time(ns):
    for unit, factor in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= factor:
            return f"{ns / factor:.3g} {unit}"
    return f"{ns:.3g} ns"


def main():
    if len(sys.argv) != 2:
        print("usage: bench_table.py RESULTS.json", file=sys.stderr)
        return 2
    medians = load(sys.argv[1])
    by_case = {}
    for name, t in medians.items():
        base, threads = split(name)
        by_case[(base, threads)] = t

    rows = []
    skipped = []
    missed = 0
    for project, reference, target in PAIRS:
        variants = sorted(th for (b, th) in by_case if b == project)
        if not variants:
            skipped.append(f"{project} (not built or not run)")
            continue
        for th in variants:
            # A single-threaded case pairs with the reference's one-thread run.
            ref = by_case.get((reference, th)) or by_case.get((reference, "")) or by_case.get((reference, "threads:1"))
            if ref is None:
                skipped.append(f"{project}{'/' + th if th else ''} vs {reference} (reference missing)")
                continue
            p = by_case[(project, th)]
            ratio = p / ref
            verdict = ""
            limit = target.get(th) if isinstance(target, dict) else target
            if limit is not None:
                ok = ratio <= limit
                verdict = f"<= {limit:g} {'ok' if ok else 'MISSED'}"
                missed += 0 if ok else 1
            label = project + (f" ({th})" if th else "")
            rows.append((label, reference, fmt_time(p), fmt_time(ref), f"{ratio:.3f}", verdict))

    header = ("case", "reference", "project", "reference", "ratio", "target")
    widths = [max(len(str(r[i])) for r in rows + [header]) for i in range(len(header))]
    line = "  ".join(h.ljust(w) for h, w in zip(header, widths))
    print(line)
    print("-" * len(line))
    for r in rows:
        print("  ".join(str(c).ljust(w) for c, w in zip(r, widths)))
    if skipped:
        print("\nskipped: " + "; ".join(skipped))
    print(f"\n{len(rows)} ratios (medians of real time), {missed} target(s) missed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
