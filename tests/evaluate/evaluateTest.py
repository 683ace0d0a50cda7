#!/usr/bin/env python3
"""The evaluation's own parts: what it sends the simulator, whom it counts.

usage: evaluateTest.py TOOLS_EVALUATE_DIR
"""
import csv
import datetime
import os
import sys
import tempfile
import unittest

sys.path.insert(0, sys.argv.pop(1))
import evaluate  # noqa: E402
import scenario  # noqa: E402


def statistic(page, offset):
    """ACS device statistics: LE value, supported and valid in the top octet."""
    entry = page[offset:offset + 8]
    if len(entry) < 8 or entry[7] & 0xC0 != 0xC0:
        return None
    return int.from_bytes(entry[:6], "little")


class DeviceStatistics(unittest.TestCase):
    def test_each_attribute_lands_where_the_standard_puts_it(self):
        cases = [  # attribute, raw, page, offset, read back
            (9, 41234, 1, 0x10, 41234),
            (5, 7, 3, 0x20, 7),
            (197, 0, 3, 0x38, 0),
            (187, 3, 4, 0x08, 3),
            # 194 packs lowest and highest beside the current temperature
            (194, 0x0013_0027_0019, 5, 0x08, 0x19),
            (241, 1 << 50, 1, 0x18, (1 << 48) - 1),
            (5, None, 3, 0x20, None),
        ]
        for number, raw, page, offset, want in cases:
            with self.subTest(attribute=number, raw=raw):
                pages = scenario.device_statistics_pages({number: raw})
                data = bytes.fromhex(
                    next(p for p in pages if p["code"] == page)["data"])
                self.assertEqual(data[2], page)
                self.assertEqual(statistic(data, offset), want)

    def test_an_absent_column_is_unknown_not_zero(self):
        pages = scenario.device_statistics_pages({5: 1})
        errors = bytes.fromhex(pages[3]["data"])
        self.assertIsNone(statistic(errors, 0x08))


def write_csv(rows, columns=("smart_5_raw", "smart_188_raw")):
    fh = tempfile.NamedTemporaryFile("w", suffix=".csv", delete=False,
                                     newline="")
    writer = csv.writer(fh)
    writer.writerow(("date", "serial_number", "model", "failure") + columns)
    writer.writerows(rows)
    fh.close()
    return fh.name


class Backblaze(unittest.TestCase):
    def test_failed_healthy_and_retired_drives(self):
        path = write_csv([
            ("2019-12-30", "FAILS", "M", "0", "0", "0"),
            ("2019-12-31", "FAILS", "M", "1", "0", "0"),
            ("2019-12-31", "HEALTHY", "M", "0", "0", "5"),
            ("2019-12-29", "RETIRED", "M", "0", "0", "0"),
            # failure set on a row before the last still marks a failure
            ("2019-12-30", "EARLY", "M", "1", "0", "0"),
            ("2019-12-31", "EARLY", "M", "0", "2", "0"),
            ("2019-12-30", "HEALED", "M", "0", "9", "0"),
            ("2019-12-31", "HEALED", "M", "0", "0", "0"),
        ])
        self.addCleanup(os.unlink, path)
        drives, columns, last = evaluate.load_backblaze(path)
        got = {d["serial"]: (d["failed"], d["five"]) for d in drives}
        self.assertEqual(got, {"FAILS": (True, False),
                               "HEALTHY": (False, True),
                               "EARLY": (True, True),
                               "HEALED": (False, False)})
        self.assertEqual((columns, last), ({5, 188}, "2019-12-31"))

    def test_days_of_each_kind_of_file(self):
        rows = [{"date": f"2019-06-0{i}"} for i in range(1, 6)]
        drive = {"rows": rows}
        aligned = evaluate.daily_rows(evaluate.ALIGNED, drive, "2019-12-31")
        self.assertEqual([d.isoformat() for d, _ in aligned],
                         [f"2019-12-{i}" for i in range(27, 32)])
        history = evaluate.daily_rows("bb2013_x.csv", drive, "2019-12-31")
        self.assertEqual(history[-1][0], datetime.date(2019, 6, 5))
        last = evaluate.daily_rows("x_lastday.csv", drive, "2019-12-31")
        self.assertEqual(last, [(datetime.date(2019, 12, 31), rows[-1])])


class Counting(unittest.TestCase):
    def test_shares_and_lead_days(self):
        def drive(failed, verdict, since=None, five=False):
            return {"failed": failed, "verdict": verdict, "five": five,
                    "last_day": "2013-05-19", "since": since}
        drives = [drive(True, "FAILED", "2013-05-09", True),
                  drive(True, "WARNING", "2013-05-18"),
                  drive(True, "PASSED"),
                  drive(False, "WARNING", "2013-04-10", True),
                  drive(False, "PASSED")]
        t = evaluate.tally(drives, multi_day=True)
        self.assertEqual(
            (t["n_failed"], t["f_warn"], t["f_fail"], t["n_healthy"],
             t["h_warn"], t["h_fail"], t["f_five"], t["h_five"]),
            (3, 2, 1, 2, 1, 0, 1, 1))
        self.assertEqual(sorted(t["leads"]), [1, 10])
        self.assertEqual(evaluate.tally(drives, multi_day=False)["leads"], [])


class SmartctlCheck(unittest.TestCase):
    def test_a_wrong_figure_or_a_missed_failure_is_named(self):
        base = {"file": "f", "fqdd": "D", "class": "NVMe", "notes": [],
                "expected": {"temp_c": 40, "critical_warning": 16},
                "passed": False}
        row = {"class": "NVMe", "temp_c": "40",
               "critical_warning": "volatile-backup-failed",
               "verdict": "FAILED"}
        cases = [
            ({}, "ok FAILED"),
            ({"temp_c": "39"}, "MISMATCH FAILED"),
            ({"critical_warning": "none"}, "MISMATCH FAILED"),
            ({"verdict": "WARNING"}, "MISMATCH WARNING"),
            ({"class": "SATA SSD"}, "MISMATCH FAILED"),
        ]
        for change, want in cases:
            with self.subTest(change=change):
                lines = evaluate.compare_smartctl([base], {"D": {**row,
                                                                 **change}})
                self.assertEqual(lines[0][2], want)

    def test_warning_bits_read_back(self):
        for text, want in (("none", 0), ("", None),
                           ("spare-below-threshold;temperature", 3),
                           ("pmr-read-only;bit7", 32 | 128)):
            with self.subTest(text=text):
                self.assertEqual(evaluate.warning_bits(text), want)


if __name__ == "__main__":
    unittest.main()
