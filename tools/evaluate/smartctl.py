"""smartctl captures: one drive each on a test server, its figures compared
with the reader's."""
import csv
import datetime
import glob
import json
import os

import scenario as sc
from pipeline import BAYS, reader, run_all

WARNING_BITS = (
    "spare-below-threshold",
    "temperature",
    "reliability-degraded",
    "read-only",
    "volatile-backup-failed",
    "pmr-read-only",
)


def warning_bits(text):
    if text in ("", "none"):
        return 0 if text == "none" else None
    value = 0
    for name in text.split(";"):
        value |= 1 << (
            WARNING_BITS.index(name) if name in WARNING_BITS else int(name[3:])
        )
    return value


def smartctl_drives(data, build, work, jobs, problems):
    files = sorted(glob.glob(os.path.join(data, "smartctl_json/*/*.json")))
    drives = []
    for number, start in enumerate(range(0, len(files), BAYS)):
        scenario = sc.empty_scenario()
        for bay, path in enumerate(files[start : start + BAYS]):
            with open(path) as fh:
                doc = json.load(fh)
            fqdd = sc.fqdd_of(bay, 100 + number)
            cls, expected, notes = sc.smartctl_drive(doc, fqdd, start + bay, scenario)
            drives.append(
                {
                    "file": os.path.relpath(path, os.path.join(data, "smartctl_json")),
                    "fqdd": fqdd,
                    "class": cls,
                    "expected": expected,
                    "notes": notes,
                    "passed": doc.get("smart_status", {}).get("passed"),
                    "dest": os.path.join(work, "smartctl", f"server{number + 1}"),
                }
            )
        drives[-1]["scenario"] = scenario
    tasks = [
        (d["scenario"], d["dest"], datetime.date(2026, 1, 1))
        for d in drives
        if "scenario" in d
    ]
    for rc in run_all(build, work, jobs, tasks):
        if rc != 0:
            problems.append(f"smartctl server: collector exit {rc}")
    rows = {}
    for dest in sorted({d["dest"] for d in drives}):
        result = reader(
            build, "--format", "csv", *sorted(glob.glob(os.path.join(dest, "*.json")))
        )
        if result.returncode & 3:
            problems.append(f"{dest}: reader exit {result.returncode}")
        for row in csv.DictReader(result.stdout.splitlines()):
            rows[row["fqdd"]] = row
    return drives, rows


def compare_smartctl(drives, rows):
    lines = []
    for d in drives:
        if d["class"] is None:
            lines.append((d["file"], "-", "left out", "; ".join(d["notes"])))
            continue
        row = rows.get(d["fqdd"])
        if row is None:
            lines.append((d["file"], d["class"], "MISSING", "not in report"))
            continue
        wrong = []
        if row["class"] != d["class"]:
            wrong.append(f"class {row['class']}")
        for figure, value in d["expected"].items():
            if value is None:
                continue
            got = row[figure]
            got = (
                warning_bits(got)
                if figure == "critical_warning"
                else (int(got) if got else None)
            )
            if got != value:
                wrong.append(f"{figure} {value} -> {got}")
        if d["passed"] is False and row["verdict"] != "FAILED":
            wrong.append(f"smartctl FAILED, reader {row['verdict']}")
        status = "MISMATCH" if wrong else "ok"
        notes = "; ".join(wrong + d["notes"])
        lines.append(
            (
                d["file"],
                d["class"],
                f"{status} {row['verdict']}",
                notes if len(notes) <= 160 else notes[:157] + "...",
            )
        )
    return lines
