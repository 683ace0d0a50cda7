"""Backblaze daily records: drives of a file, their servers' collector runs
and what the reader made of them."""
import collections
import csv
import datetime
import hashlib
import json
import os

import scenario as sc
from pipeline import BAYS, reader

FIVE = (5, 187, 188, 197, 198)
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
