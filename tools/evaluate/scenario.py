"""Simulator scenarios from real drives: Backblaze rows and smartctl JSON.

Only what a drive reported goes into a scenario. A device-statistics entry
whose source value is missing is sent without its supported and valid
flags, so the reader shows it as unknown instead of 0.
"""

SATA = 16
SAS = 32
NVME = 64
SOLID_STATE = 2

FLAGS_VALID = 0xC0
MAX_48 = (1 << 48) - 1

# Device statistics (ACS-4, log 04h): page number -> {offset: source name}.
# The source names are Backblaze's SMART attribute numbers; the same pages
# are filled from smartctl's attributes or its own device statistics.
PAGE_LAYOUT = {
    1: (7, {0x08: 12, 0x10: 9, 0x18: 241, 0x28: 242}),
    3: (8, {0x10: 240, 0x18: 193, 0x20: 5, 0x38: 197}),
    4: (3, {0x08: 187}),
    5: (4, {0x08: 194}),
}

# Backblaze attributes that no device-statistics entry of those pages holds.
NOT_CARRIED_ATA = {
    1: "read error rate",
    3: "spin-up time",
    4: "start/stop count",
    7: "seek error rate",
    10: "spin retries",
    184: "end-to-end errors",
    188: "command timeout",
    190: "airflow temperature",
    191: "G-sense errors",
    192: "power-off retracts",
    195: "hardware ECC recovered",
    196: "reallocation events",
    198: "offline uncorrectable",
    199: "UDMA CRC errors",
}


def qword(value, temperature=False):
    """One statistic: the value in the low octets, flags in the top one."""
    if value is None:
        return bytes(8)
    if temperature:
        low = value & 0xFF
        return bytes([low, 0, 0, 0, 0, 0, 0, FLAGS_VALID])
    value = min(max(int(value), 0), MAX_48)
    return value.to_bytes(6, "little") + bytes([0, FLAGS_VALID])


def device_statistics_pages(values):
    """The five pages of a SATA hard drive from {attribute: raw or None}."""
    supported = bytes([1, 0, 0, 0, 0, 0, 0, 0, 5, 0, 1, 3, 4, 5, 0, 0])
    pages = [{"code": 0, "data": supported.hex()}]
    for number, (entries, offsets) in PAGE_LAYOUT.items():
        data = bytearray([1, 0, number, 0, 0, 0, 0, 0])
        for offset in range(8, entries * 8, 8):
            source = offsets.get(offset)
            value = values.get(source) if source is not None else None
            data += qword(value, temperature=source == 194)
        pages.append({"code": number, "data": data.hex()})
    return pages


def fqdd_of(bay, server):
    return f"Drive.Bay.{bay}:Backplane.1:Storage.Controller.{server}"


def inventory(fqdd, protocol, attributes, model, index):
    props = {
        "Fqdd": ["s", fqdd],
        "Protocol": ["u", protocol],
        "Attributes": ["u", attributes],
    }
    if model:
        props["Model"] = ["s", model[:40]]
    return {
        "path": f"/com/kest/omrix/storage/drive/d{index}",
        "interfaces": {"com.kest.omrix.storage.drive.inventory": props},
    }


def empty_scenario():
    return {
        "sasSata": {"status": 0, "entries": []},
        "nvme": {"status": 0, "entries": []},
        "objects": [],
        "drives": {},
    }


def add_sata_hdd(scenario, fqdd, model, values):
    index = len(scenario["objects"])
    scenario["objects"].append(inventory(fqdd, SATA, 0, model, index))
    scenario["drives"][fqdd] = {
        "sataHdd": {
            "protocol": SATA,
            "attributes": 0,
            "pages": device_statistics_pages(values),
        }
    }


def backblaze_values(row, columns):
    """{attribute: raw} of one Backblaze row; None where it has no column."""
    out = {}
    for number in (5, 9, 12, 187, 193, 194, 197, 240, 241, 242):
        text = row.get(f"smart_{number}_raw") if number in columns else None
        out[number] = int(float(text)) if text not in (None, "") else None
    return out


# ---------------------------------------------------------------------------
# smartctl JSON


def attribute_table(doc):
    return {a["id"]: a for a in doc.get("ata_smart_attributes", {}).get("table", [])}


def raw_of(attrs, number):
    a = attrs.get(number)
    return a["raw"]["value"] if a else None


def device_statistic(doc, page, offset):
    for p in doc.get("ata_device_statistics", {}).get("pages", []):
        if p.get("number") != page:
            continue
        for entry in p.get("table", []):
            if entry.get("offset") == offset and entry.get("flags", {}).get(
                "valid", True
            ):
                return entry.get("value")
    return None


# The figure smartctl gives for wear of SATA solid-state drives: the device
# statistics' percentage used when present, else the vendor attribute that
# counts the life left as its normalized value (found by smartctl's name:
# the same number means other things on other vendors' drives).
LIFE_ATTRIBUTES = (
    "SSD_Life_Left",
    "Percent_Lifetime_Remain",
    "Media_Wearout_Indicator",
    "Wear_Leveling_Count",
    "Remaining_Lifetime_Perc",
)


def ata_life_remaining(doc, attrs):
    used = device_statistic(doc, 7, 0x08)
    if used is not None:
        return max(0, 100 - used), "device statistics percentage used"
    for a in attrs.values():
        if a["name"] in LIFE_ATTRIBUTES:
            return a["value"], f"attribute {a['id']} {a['name']} normalized"
    return None, None


def classify(doc):
    protocol = doc.get("device", {}).get("protocol")
    rotation = doc.get("rotation_rate")
    if protocol == "NVMe":
        return "NVMe"
    if rotation is None:
        return None
    solid = rotation == 0
    if protocol == "ATA":
        return "SATA SSD" if solid else "SATA HDD"
    if protocol == "SCSI":
        return "SAS SSD" if solid else "SAS HDD"
    return None


def scsi_parameter(code, value, width=4):
    return (
        code.to_bytes(2, "big")
        + bytes([0x02, width])
        + int(value).to_bytes(width, "big")
    )


def background_scan_status(minutes):
    """Parameter 0000h: power-on minutes, then scan state, progress, counts."""
    return scsi_parameter(0, minutes << 64, 12)


def scsi_page(code, params):
    body = b"".join(params)
    return {
        "code": code,
        "data": (bytes([code, 0]) + len(body).to_bytes(2, "big") + body).hex(),
    }


def smartctl_drive(doc, fqdd, index, scenario):
    """Add one smartctl drive; returns (class, expected figures, not carried)."""
    cls = classify(doc)
    model = doc.get("model_name") or doc.get("scsi_model_name") or ""
    temp = doc.get("temperature", {}).get("current")
    hours = doc.get("power_on_time", {}).get("hours")
    expected = {"temp_c": temp, "power_on_hours": hours}
    missing = []
    if cls == "NVMe":
        log = doc["nvme_smart_health_information_log"]
        entry = {
            "key": f"nvme{index}",
            "fqdd": fqdd,
            "protocol": NVME,
            "attributes": SOLID_STATE,
            "objStatus": 1,
            "criticalWarning": log["critical_warning"],
            "compositeTemparature": log["temperature"] + 273,
            "availableSpare": log["available_spare"],
            "availableSpareThreshold": log["available_spare_threshold"],
            "percentageUsed": log["percentage_used"],
            "powerOnHoursLower": log["power_on_hours"],
            "powerCyclesLower": log.get("power_cycles", 0),
            "unsafeShutdownsLower": log.get("unsafe_shutdowns", 0),
            "mediaAndDataIntegrityErrsLower": log["media_errors"],
            "numOfErrorInfoLogEntriesLower": log["num_err_log_entries"],
        }
        scenario["nvme"]["entries"].append(entry)
        scenario["objects"].append(inventory(fqdd, NVME, SOLID_STATE, model, index))
        expected.update(
            temp_c=log["temperature"],
            power_on_hours=log["power_on_hours"],
            percent_used=log["percentage_used"],
            media_errors=log["media_errors"],
            available_spare=log["available_spare"],
            critical_warning=log["critical_warning"],
        )
        missing.append("error-log entries (not shown by the reader)")
    elif cls in ("SATA SSD", "SAS SSD"):
        attrs = attribute_table(doc)
        life, life_source = ata_life_remaining(doc, attrs)
        protocol = SATA if cls == "SATA SSD" else SAS
        counters = {
            "reallocatedBlockCount": raw_of(attrs, 5),
            "uncorrectableErrorCount": raw_of(attrs, 187),
            "commandTimeout": raw_of(attrs, 188),
            "crcErrorCount": raw_of(attrs, 199),
            "currentPendingSectorCount": raw_of(attrs, 197),
        }
        entry = {
            "key": f"pd{index}",
            "fqdd": fqdd,
            "protocol": protocol,
            "attributes": SOLID_STATE,
            "objStatus": 1,
            "powerOnHours": hours or 0,
            "driveTemperature": temp or 0,
            "percentDriveLifeRemaining": life if life is not None else 0,
        }
        for name, value in counters.items():
            # A table entry has no "unknown": a counter the drive lacks is
            # sent as 0 and listed below as not reported.
            entry[name] = (
                value & 0xFFFF if name == "commandTimeout" and value else (value or 0)
            )
        scenario["sasSata"]["entries"].append(entry)
        scenario["objects"].append(inventory(fqdd, protocol, SOLID_STATE, model, index))
        scenario["drives"][fqdd] = {"rawData": {"data": ""}}
        expected.update(
            life_remaining=life,
            reallocated=raw_of(attrs, 5),
            media_errors=raw_of(attrs, 187),
            command_timeouts=counters["commandTimeout"]
            and counters["commandTimeout"] & 0xFFFF,
            crc_errors=raw_of(attrs, 199),
            pending=raw_of(attrs, 197),
        )
        for number, name in (
            (5, "reallocated"),
            (187, "reported uncorrectable"),
            (188, "command timeout"),
            (199, "CRC errors"),
            (197, "pending"),
        ):
            if number not in attrs:
                missing.append(f"{name}: not reported, sent as 0")
                expected.pop(
                    {
                        5: "reallocated",
                        187: "media_errors",
                        188: "command_timeouts",
                        199: "crc_errors",
                        197: "pending",
                    }[number]
                )
        if life is None:
            missing.append("life remaining: no wear figure, sent as 0")
            expected.pop("life_remaining")
        else:
            missing.append(f"life remaining from {life_source}")
        if 198 in attrs:
            missing.append(f"198 offline uncorrectable = {raw_of(attrs, 198)}")
    elif cls == "SATA HDD":
        attrs = attribute_table(doc)
        source = "device statistics" if "ata_device_statistics" in doc else "attributes"
        values = {n: raw_of(attrs, n) for n in (5, 9, 12, 187, 193, 197, 240, 241, 242)}
        values[194] = temp
        values[9] = hours if hours is not None else values[9]
        for page, offset, number in (
            (1, 0x10, 9),
            (3, 0x20, 5),
            (3, 0x38, 197),
            (4, 0x08, 187),
        ):
            stat = device_statistic(doc, page, offset)
            if stat is not None:
                values[number] = stat
        add_sata_hdd(scenario, fqdd, model, values)
        expected.update(
            reallocated=values[5], pending=values[197], media_errors=values[187]
        )
        missing.append(f"counters from {source}")
        for number, name in NOT_CARRIED_ATA.items():
            if number in attrs and attrs[number]["raw"]["value"]:
                missing.append(
                    f"{number} {name} = " f"{attrs[number]['raw']['string']}"
                )
    elif cls == "SAS HDD":
        log = doc.get("scsi_error_counter_log", {})
        pages = []
        total = 0
        seen = False
        for code, name in ((3, "read"), (2, "write"), (5, "verify")):
            counters = log.get(name)
            if counters is None:
                pages.append({})
                continue
            seen = True
            total += counters["total_uncorrected_errors"]
            pages.append(
                scsi_page(
                    code, [scsi_parameter(6, counters["total_uncorrected_errors"])]
                )
            )
        pages += [{}, {}]
        minutes = doc.get("power_on_time")
        if minutes:
            pages.append(
                scsi_page(
                    0x15,
                    [
                        background_scan_status(
                            minutes["hours"] * 60 + minutes.get("minutes", 0)
                        )
                    ],
                )
            )
        else:
            pages.append({})
        pages.append(
            scsi_page(
                0x0D,
                [
                    scsi_parameter(0, temp if temp is not None else 0xFF, 2),
                    scsi_parameter(
                        1, doc.get("temperature", {}).get("drive_trip", 0xFF), 2
                    ),
                ],
            )
        )
        scenario["objects"].append(inventory(fqdd, SAS, 0, model, index))
        scenario["drives"][fqdd] = {"sasHdd": {"protocol": SAS, "pages": pages}}
        expected.update(media_errors=total if seen else None)
        if "scsi_grown_defect_list" in doc:
            missing.append(f"grown defect list = {doc['scsi_grown_defect_list']}")
        if "scsi_start_stop_cycle_counter" in doc:
            missing.append("start-stop cycle counter (not shown)")
        if not minutes:
            missing.append("power-on time: not in the capture")
    else:
        return None, {}, ["class unknown (no rotation rate): left out"]
    return cls, expected, missing
