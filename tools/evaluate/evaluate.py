#!/usr/bin/env python3
"""The collector and its reader over real drives (see README.md).

usage: evaluate.py --build DIR [--data DIR] [--jobs N] [--keep DIR]
"""
import argparse
import glob
import os
import shutil
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor

from backblaze import (
    ALIGNED,
    Mark,
    backblaze_tasks,
    daily_rows,
    day_verdicts,
    load_backblaze,
    multi_day,
    read_server,
    rule_flags,
)
from pipeline import run_all
from scorecard import add_tallies, print_table, table_rows, tally
from smartctl import compare_smartctl, smartctl_drives, warning_bits

# The parts' names, as the evaluation's callers and tests reach them.
__all__ = [
    "ALIGNED",
    "Mark",
    "compare_smartctl",
    "daily_rows",
    "day_verdicts",
    "load_backblaze",
    "rule_flags",
    "table_rows",
    "tally",
    "warning_bits",
]

# The thresholds were chosen on these two files; the others are held out.
TRAINING = ("bb2019_ST8000DM002_lastday.csv", "bb2019_ST8000NM0055_lastday.csv")


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True)
    parser.add_argument(
        "--data", default=os.path.join(here, "../../../shared/realdata")
    )
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1)
    parser.add_argument("--keep", help="keep the servers' daily files here")
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    data = os.path.abspath(args.data)
    work = args.keep or tempfile.mkdtemp(prefix="qv-evaluate-")
    os.makedirs(work, exist_ok=True)
    problems = []
    try:
        files = sorted(glob.glob(os.path.join(data, "backblaze/*.csv")))
        if not files:
            sys.exit(f"evaluate: no backblaze/*.csv under {data}")
        loaded = []
        tasks = []
        servers = {}
        for path in files:
            name = os.path.basename(path)
            drives, columns, last_date = load_backblaze(path)
            made, more = backblaze_tasks(name, drives, columns, last_date, work)
            servers.update(
                {dest: (bays, multi_day(name)) for dest, bays in made.items()}
            )
            tasks += more
            loaded.append((name, drives))
        for rc in run_all(build, work, args.jobs, tasks):
            if rc != 0:
                problems.append(f"collector exit {rc}")
        with ThreadPoolExecutor(args.jobs) as ex:
            list(
                ex.map(
                    lambda s: read_server(build, s, *servers[s], problems),
                    sorted(servers),
                )
            )
        results = []
        for name, drives in loaded:
            kind = "training" if name in TRAINING else "held-out"
            results.append((name, kind, tally(drives, multi_day(name))))
        for kind in ("training", "held-out"):
            results.append(
                (
                    f"pooled {kind}",
                    kind,
                    add_tallies([t for _, k, t in results if k == kind]),
                )
            )
        results.append(
            (
                "pooled all",
                "all",
                add_tallies([t for n, _, t in results if not n.startswith("pooled")]),
            )
        )
        print(
            f"Backblaze drives through the collector and "
            f"`qv-smart-report history` / `export` ({len(tasks)} collector "
            f"runs), three rules:\nthe reader's verdict, any of raw "
            f"5/187/188/197/198 > 0 (5-ATTR), any of them rose since the "
            f"drive's row before (GROWTH)"
        )
        for title, rows in table_rows(results):
            print(f"\n{title}")
            print_table(rows, left=2)
        print()
        drives, rows = smartctl_drives(data, build, work, args.jobs, problems)
        lines = compare_smartctl(drives, rows)
        print(
            "smartctl JSON drives through the collector and "
            "`qv-smart-report --format csv`: figures against smartctl's"
        )
        print_table([("FILE", "CLASS", "RESULT", "NOTES")] + lines)
        bad = [line for line in lines if line[2].startswith(("MISMATCH", "MISSING"))]
        out = [line for line in lines if line[2] == "left out"]
        print(
            f"\nsmartctl: {len(lines) - len(out)} files compared, "
            f"{len(bad)} disagree, {len(out)} left out; "
            f"{len(problems)} pipeline problems"
        )
        for problem in problems[:20]:
            print("problem:", problem)
        return 1 if problems or bad else 0
    finally:
        if not args.keep:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
