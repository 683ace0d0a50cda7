#!/usr/bin/env python3
"""The collector and its reader over real drives (see README.md).

usage: evaluate.py --build DIR [--data DIR] [--jobs N] [--keep DIR]
"""
import argparse
import collections
import csv
import datetime
import glob
import hashlib
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor

import scenario as sc

BAYS = 24
FIVE = (5, 187, 188, 197, 198)
# The thresholds were chosen on these two files; the others are held out.
TRAINING = ("bb2019_ST8000DM002_lastday.csv", "bb2019_ST8000NM0055_lastday.csv")
# The Toshiba file keeps the last ten days of each drive, whatever their
# dates: its drives are laid over the same ten days, their last row on the
# last of them.
ALIGNED = "bb2019_TOSHIBA_MQ01ABF050_last10days.csv"
ALIGNED_LAST = datetime.date(2019, 12, 31)
ALIGNED_DAYS = 10
EPOCH = datetime.date(1970, 1, 1)
VERDICTS = ("PASSED", "WARNING", "FAILED")  # the exported values 0, 1, 2

# One drive on one day: the reader's verdict, whether the five-attribute
# rule flags its row and whether one of the five rose since its last row.
Mark = collections.namedtuple("Mark", "day verdict five growth")


def raw(row, number):
    text = row.get(f"smart_{number}_raw")
    return int(float(text)) if text not in (None, "") else None


def rule_flags(rows, columns):
    """[(any of the five > 0, any of the five rose)] per row, a rise
    against the drive's row before, over the columns the file has."""
    present = [n for n in FIVE if n in columns]
    flags = []
    before = {}
    for row in rows:
        now = {n: raw(row, n) for n in present}
        flags.append(
            (
                any((v or 0) > 0 for v in now.values()),
                any(
                    v is not None and before.get(n) is not None and v > before[n]
                    for n, v in now.items()
                ),
            )
        )
        before = now
    return flags


def load_backblaze(path):
    """Drives of one file, as the realdata summary defines them."""
    by_serial = {}
    last_date = ""
    with open(path, newline="") as fh:
        reader = csv.DictReader(fh)
        columns = {
            int(name.split("_")[1])
            for name in reader.fieldnames
            if name.startswith("smart_") and name.endswith("_raw")
        }
        for row in reader:
            by_serial.setdefault(row["serial_number"], []).append(row)
            last_date = max(last_date, row["date"])
    drives = []
    for serial, rows in by_serial.items():
        rows.sort(key=lambda r: r["date"])
        failed = any(r["failure"] == "1" for r in rows)
        if not failed and rows[-1]["date"] != last_date:
            continue  # left service without failing
        flags = rule_flags(rows, columns)
        drives.append(
            {
                "serial": serial,
                "model": rows[-1]["model"],
                "rows": rows,
                "failed": failed,
                "flags": flags,
            }
        )
    # A repeatable mix of failed and healthy drives in each server.
    drives.sort(key=lambda d: hashlib.sha1(d["serial"].encode()).hexdigest())
    return drives, columns, last_date


def multi_day(name):
    return "lastday" not in name


def daily_rows(name, drive, last_date):
    """[(day, row)] of a drive, on the days its server is collected."""
    rows = drive["rows"]
    if name == ALIGNED:
        first = ALIGNED_LAST - datetime.timedelta(days=len(rows) - 1)
        return [(first + datetime.timedelta(days=i), row) for i, row in enumerate(rows)]
    if "lastday" in name:
        # One run per server: the drive's last row, on the file's last day.
        return [(datetime.date.fromisoformat(last_date), rows[-1])]
    return [(datetime.date.fromisoformat(r["date"]), r) for r in rows]


def collect(build, work, scenario, dest, day):
    """One daily run of the shipped collector on a test server of its own
    (tests' qv-test-server: a private bus, the simulator, the sandbox); its
    files land in dest, dated day. Exit code."""
    run = tempfile.mkdtemp(dir=work)
    path = os.path.join(run, "scenario.json")
    with open(path, "w") as fh:
        json.dump(scenario, fh)
    kept = os.path.join(run, "kept")
    rc = subprocess.run(
        [
            os.path.join(build, "tests/qv-test-server"),
            "--scenario",
            path,
            "--keep",
            kept,
            "--",
            os.path.join(build, "qvcollectors/qv-smart-collector"),
            "1",
        ],
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    ).returncode
    written = os.path.join(kept, "mmc2/mas032/smartlogs")
    os.makedirs(dest, exist_ok=True)
    stamp = day.strftime("%Y%m%d")
    for name in sorted(os.listdir(written)) if os.path.isdir(written) else []:
        shutil.move(
            os.path.join(written, name),
            os.path.join(dest, name[:2] + stamp + ".json"),
        )
    shutil.rmtree(run)
    return rc


def run_all(build, work, jobs, tasks):
    """tasks: [(scenario, dest, day)] -> [exit code], jobs at a time."""
    with ThreadPoolExecutor(jobs) as ex:
        return list(ex.map(lambda task: collect(build, work, *task), tasks))


def reader(build, *args):
    return subprocess.run(
        [os.path.join(build, "tools/qv-smart-report/qv-smart-report"), *args],
        capture_output=True,
        text=True,
    )


# ---------------------------------------------------------------------------
# Backblaze


def backblaze_tasks(name, drives, columns, last_date, work):
    """Collector runs of one file; {server dir: {fqdd: drive}}."""
    servers = {}
    tasks = []
    for number, start in enumerate(range(0, len(drives), BAYS)):
        dest = os.path.join(work, name[:-4], f"server{number + 1}")
        bays = {}
        days = {}
        for bay, drive in enumerate(drives[start : start + BAYS]):
            fqdd = sc.fqdd_of(bay, number + 1)
            bays[fqdd] = drive
            drive["days"] = daily_rows(name, drive, last_date)
            for day, row in drive["days"]:
                days.setdefault(day, []).append((fqdd, drive, row))
        for day in sorted(days):
            scenario = sc.empty_scenario()
            for fqdd, drive, row in days[day]:
                sc.add_sata_hdd(
                    scenario, fqdd, drive["model"], sc.backblaze_values(row, columns)
                )
            tasks.append((scenario, dest, day))
        servers[dest] = bays
    return servers, tasks


def day_verdicts(text):
    """{(fqdd, day): verdict} from the OpenMetrics verdict samples."""
    verdicts = {}
    for line in text.splitlines():
        if not line.startswith("qv_smart_device_verdict{"):
            continue
        labels, _, sample = line.partition("} ")
        fqdd = labels.split('fqdd="', 1)[1].split('"', 1)[0]
        value, stamp = sample.split()[:2]
        day = EPOCH + datetime.timedelta(days=int(float(stamp)) // 86400)
        verdicts[(fqdd, day)] = VERDICTS[int(float(value))]
    return verdicts


def marks_of(drive, verdict_of):
    """The drive's Mark of each day it was read, verdict_of(day) its
    reader's verdict."""
    flags = drive["flags"][-len(drive["days"]) :]
    return [
        Mark(day, verdict_of(day), five, grew)
        for (day, _), (five, grew) in zip(drive["days"], flags)
    ]


def read_server(build, dest, bays, multi_day, problems):
    result = reader(build, "history", "--format", "json", dest)
    if result.returncode & 3:
        problems.append(
            f"{dest}: history exit {result.returncode}: "
            f"{result.stderr.strip()[:200]}"
        )
    history = json.loads(result.stdout)
    export = reader(build, "export", "--format", "textfile", dest)
    if export.returncode & 3 or "qv_smart_device_verdict" not in export.stdout:
        problems.append(f"{dest}: export exit {export.returncode}")
    daily = {}
    if multi_day:
        export = reader(build, "export", dest)
        if export.returncode & 3:
            problems.append(f"{dest}: export exit {export.returncode}")
        daily = day_verdicts(export.stdout)
    seen = set()
    for entry in history["drives"]:
        fqdd = entry["fqdd"]
        drive = bays.get(fqdd)
        if drive is None:
            problems.append(f"{dest}: unknown drive {fqdd}")
            continue
        seen.add(fqdd)
        drive["verdict"] = entry["verdict"]
        drive["last_day"] = entry["last_day"]
        expected = drive["days"][-1][0].isoformat()
        if entry["last_day"] != expected:
            problems.append(
                f"{drive['serial']}: last day {entry['last_day']}"
                f", its last row {expected}"
            )
        since = [r["since"] for r in entry.get("reasons", []) if r["since"]]
        drive["since"] = min(since) if since else None
        if not multi_day:
            drive["marks"] = marks_of(drive, lambda day: entry["verdict"])
            continue
        drive["marks"] = marks_of(drive, lambda day: daily.get((fqdd, day)))
        missing = [m.day for m in drive["marks"] if m.verdict is None]
        if missing:
            problems.append(
                f"{drive['serial']}: no exported verdict on "
                f"{len(missing)} days, first {missing[0]}"
            )
        elif drive["marks"][-1].verdict != entry["verdict"]:
            problems.append(
                f"{drive['serial']}: exported verdict "
                f"{drive['marks'][-1].verdict} on the last day, "
                f"history {entry['verdict']}"
            )
    for fqdd in set(bays) - seen:
        problems.append(f"{dest}: {bays[fqdd]['serial']} not in the history")
        bays[fqdd]["marks"] = marks_of(bays[fqdd], lambda day: None)


def share(hit, total):
    return f"{hit}/{total} {100.0 * hit / total:5.1f}%" if total else "-"


def warned(mark):
    return mark.verdict in ("WARNING", "FAILED")


def failing(mark):
    return mark.verdict == "FAILED"


def five_rule(mark):
    return mark.five


def growth_rule(mark):
    return mark.growth


# The reader counts twice (WARNING or worse, FAILED); the other rules have
# one flag. Key suffix -> what flags a day.
RULES = (
    ("warn", warned),
    ("fail", failing),
    ("five", five_rule),
    ("grow", growth_rule),
)


def lead_days(marks, rule):
    """Days from the first of the unbroken run of flagged days ending on
    the last day up to it; None when the last day is not flagged."""
    if not marks or not rule(marks[-1]):
        return None
    first = len(marks) - 1
    while first and rule(marks[first - 1]):
        first -= 1
    return (marks[-1].day - marks[first].day).days


def week_before(marks, days=7):
    """The day a week before the last one, or the latest reading before
    it when the drive was not read that day; None if it was not yet there."""
    target = marks[-1].day - datetime.timedelta(days=days)
    earlier = [m for m in marks if m.day <= target]
    return earlier[-1] if earlier else None


def tally(drives, multi_day):
    """Counters of one file, keyed <group>_<rule>: f_ failed and h_ healthy
    drives on their last day, hd_ healthy drive-days, wk_ failed drives a
    week before their last day; n_ the totals they are shares of."""
    failed = [d for d in drives if d["failed"]]
    healthy = [d for d in drives if not d["failed"]]
    t = {
        "n_failed": len(failed),
        "n_healthy": len(healthy),
        "n_grow_failed": len(failed) if multi_day else 0,
        "n_grow_healthy": len(healthy) if multi_day else 0,
        "n_days": 0,
        "n_week": 0,
        "wk_out": 0,
        "leads": [],
        "leads_run": [],
        "leads_five": [],
        "leads_grow": [],
    }
    for key, rule in RULES:
        t["f_" + key] = sum(rule(d["marks"][-1]) for d in failed)
        t["h_" + key] = sum(rule(d["marks"][-1]) for d in healthy)
        t["hd_" + key] = 0
        t["wk_" + key] = 0
    if not multi_day:
        return t
    t["leads"] = [
        (
            datetime.date.fromisoformat(d["last_day"])
            - datetime.date.fromisoformat(d["since"])
        ).days
        for d in failed
        if d.get("since") and warned(d["marks"][-1])
    ]
    for name, rule in (("run", warned), ("five", five_rule), ("grow", growth_rule)):
        t["leads_" + name] = [
            lead
            for lead in (lead_days(d["marks"], rule) for d in failed)
            if lead is not None
        ]
    for d in healthy:
        t["n_days"] += len(d["marks"])
        for key, rule in RULES:
            t["hd_" + key] += sum(rule(m) for m in d["marks"])
    for d in failed:
        mark = week_before(d["marks"])
        if mark is None:
            t["wk_out"] += 1
            continue
        t["n_week"] += 1
        for key, rule in RULES:
            t["wk_" + key] += rule(mark)
    return t


def add_tallies(parts):
    total = {k: type(v)() for k, v in parts[0].items()}
    for part in parts:
        for key, value in part.items():
            total[key] = total[key] + value
    return total


def median(leads):
    return f"{statistics.median(leads):g} ({len(leads)})" if leads else "-"


def table_rows(results):
    """The five tables: (title, rows), the rows without data left out of
    the multi-day ones."""

    def shares(t, group, total, grow_total=None):
        return [share(t[f"{group}_{key}"], t[total]) for key, _ in RULES[:3]] + [
            share(t[f"{group}_grow"], t[grow_total or total])
        ]

    def block(title, head, cells, needs=None):
        rows = [("FILE", "SET") + head]
        for name, kind, t in results:
            if needs is None or t[needs]:
                rows.append((name.removesuffix(".csv"), kind, *cells(t)))
        return title, rows

    rules = ("READER WARN+", "READER FAILED", "5-ATTR", "GROWTH")
    return [
        block(
            "Failed drives flagged on their last day",
            rules,
            lambda t: shares(t, "f", "n_failed", "n_grow_failed"),
        ),
        block(
            "Healthy drives flagged on their last day",
            rules,
            lambda t: shares(t, "h", "n_healthy", "n_grow_healthy"),
        ),
        block(
            "Healthy drive-days flagged (multi-day files)",
            ("READER WARNING", "READER FAILED", "5-ATTR", "GROWTH"),
            lambda t: [share(t["hd_warn"] - t["hd_fail"], t["n_days"])]
            + shares(t, "hd", "n_days")[1:],
            "n_days",
        ),
        block(
            "Failed drives flagged 7 days before their last day " "(multi-day files)",
            rules + ("LEFT OUT",),
            lambda t: shares(t, "wk", "n_week") + [str(t["wk_out"])],
            "n_week",
        ),
        block(
            "Median lead days of failed drives flagged on their last "
            "day (multi-day files)",
            ("READER SINCE", "READER RUN", "5-ATTR RUN", "GROWTH RUN"),
            lambda t: [
                median(t["leads"]),
                median(t["leads_run"]),
                median(t["leads_five"]),
                median(t["leads_grow"]),
            ],
            "n_grow_failed",
        ),
    ]


def print_table(rows, left=None):
    """Columns from `left` on are numbers, aligned on the right."""
    widths = [max(len(r[i]) for r in rows) for i in range(len(rows[0]))]
    left = len(widths) if left is None else left
    for r in rows:
        print(
            "  ".join(
                c.ljust(w) if i < left else c.rjust(w)
                for i, (c, w) in enumerate(zip(r, widths))
            ).rstrip()
        )


# ---------------------------------------------------------------------------
# smartctl


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
