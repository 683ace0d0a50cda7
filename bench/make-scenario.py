#!/usr/bin/env python3
"""Writes a simulated server of N drives for the benchmarks.

    make-scenario.py TEMPLATE N OUTDIR [RAW_OCTETS]

TEMPLATE is a scenario such as tools/storage-sim/scenarios/demo.json. Its drives are
sorted into five classes (SAS SSD, SATA SSD, SAS HDD, SATA HDD, NVMe) and
drive i of the new server is a copy of a template drive of class i mod 5,
renamed, with its table entry, inventory object and storage-service data.
Two files come out:

    OUTDIR/scenario-N.json   what the storage simulator serves
    OUTDIR/tables-N.json     the SMART tables the collector reads

With RAW_OCTETS the first solid-state drive's raw-data reply is that many
octets long: the largest reply a run must carry.
"""

import copy
import json
import sys
from pathlib import Path

CLASSES = ["sas-ssd", "sata-ssd", "sas-hdd", "sata-hdd", "nvme"]
PROTOCOL_SAS = 32


def classify(fqdd, template):
    """Class of one template drive, from where its data lives."""
    drive = template["drives"].get(fqdd, {})
    if "sasHdd" in drive:
        return "sas-hdd"
    if "sataHdd" in drive:
        return "sata-hdd"
    if any(e["fqdd"] == fqdd for e in template["nvme"]["entries"]):
        return "nvme"
    for entry in template["sasSata"]["entries"]:
        if entry["fqdd"] == fqdd:
            return "sas-ssd" if entry["protocol"] & PROTOCOL_SAS else "sata-ssd"
    raise SystemExit(f"make-scenario: cannot classify template drive {fqdd}")


def templateDrives(template):
    """Class -> list of (fqdd, table entry or None, object, drive data)."""
    byClass = {name: [] for name in CLASSES}
    entries = {e["fqdd"]: e for e in template["sasSata"]["entries"]}
    entries.update({e["fqdd"]: e for e in template["nvme"]["entries"]})
    for obj in template["objects"]:
        props = obj["interfaces"]["com.kest.omrix.storage.drive.inventory"]
        fqdd = props["Fqdd"][1]
        byClass[classify(fqdd, template)].append(
            (fqdd, entries.get(fqdd), obj, template["drives"].get(fqdd))
        )
    missing = [name for name, drives in byClass.items() if not drives]
    if missing:
        raise SystemExit(f"make-scenario: template has no {', '.join(missing)}")
    return byClass


def newName(index, kind):
    if kind == "nvme":
        return f"Drive.Slot.{index}:PCIe.Switch.{index // 16 + 1}"
    return f"Drive.Bay.{index}:Backplane.{index // 24 + 1}:Storage.Controller.1"


def build(template, count):
    byClass = templateDrives(template)
    tables = {
        "sasSata": {"status": 0, "entries": []},
        "nvme": {"status": 0, "entries": []},
    }
    scenario = {"objects": [], "drives": {}}
    for index in range(count):
        kind = CLASSES[index % len(CLASSES)]
        choices = byClass[kind]
        fqdd, entry, obj, drive = choices[(index // len(CLASSES)) % len(choices)]
        name = newName(index, kind)
        if entry is not None:
            entry = dict(entry, fqdd=name)
            if kind == "nvme":
                entry["key"] = f"nvme{index:04d}"
                tables["nvme"]["entries"].append(entry)
            else:
                entry["key"] = f"pd{index:04d}"
                tables["sasSata"]["entries"].append(entry)
        obj = copy.deepcopy(obj)
        obj["path"] = f"/com/kest/omrix/storage/drive/d{index}"
        props = obj["interfaces"]["com.kest.omrix.storage.drive.inventory"]
        props["Fqdd"] = ["s", name]
        scenario["objects"].append(obj)
        if drive is not None:
            scenario["drives"][name] = drive
    return scenario, tables


def withRawData(scenario, octets):
    first = next(
        fqdd for fqdd, drive in scenario["drives"].items() if "rawData" in drive
    )
    scenario["drives"][first] = dict(
        scenario["drives"][first], rawData={"dataLength": octets}
    )
    return scenario


def main():
    if len(sys.argv) not in (4, 5) or not all(a.isdigit() for a in sys.argv[4:]):
        raise SystemExit(__doc__)
    if not sys.argv[2].isdigit():
        raise SystemExit(__doc__)
    template = json.loads(Path(sys.argv[1]).read_text())
    count = int(sys.argv[2])
    outDir = Path(sys.argv[3])
    outDir.mkdir(parents=True, exist_ok=True)
    scenario, tables = build(template, count)
    if len(sys.argv) == 5:
        scenario = withRawData(scenario, int(sys.argv[4]))
    (outDir / f"scenario-{count}.json").write_text(json.dumps(scenario))
    (outDir / f"tables-{count}.json").write_text(json.dumps(tables))


if __name__ == "__main__":
    main()
