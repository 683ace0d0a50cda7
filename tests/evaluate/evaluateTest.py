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
    entry = page[offset : offset + 8]
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
            (5, 1, 4, 0x08, None),  # an absent column is unknown, not zero
        ]
        for number, raw, page, offset, want in cases:
            with self.subTest(attribute=number, raw=raw):
                pages = scenario.device_statistics_pages({number: raw})
                data = bytes.fromhex(
                    next(p for p in pages if p["code"] == page)["data"]
                )
                self.assertEqual(data[2], page)
                self.assertEqual(statistic(data, offset), want)


def write_csv(rows, columns=("smart_5_raw", "smart_188_raw")):
    fh = tempfile.NamedTemporaryFile("w", suffix=".csv", delete=False, newline="")
    writer = csv.writer(fh)
    writer.writerow(("date", "serial_number", "model", "failure") + columns)
    writer.writerows(rows)
    fh.close()
    return fh.name


class Backblaze(unittest.TestCase):
    def test_failed_healthy_and_retired_drives(self):
        path = write_csv(
            [
                ("2019-12-30", "FAILS", "M", "0", "0", "0"),
                ("2019-12-31", "FAILS", "M", "1", "0", "0"),
                ("2019-12-31", "HEALTHY", "M", "0", "0", "5"),
                ("2019-12-29", "RETIRED", "M", "0", "0", "0"),
                # failure set on a row before the last still marks a failure
                ("2019-12-30", "EARLY", "M", "1", "0", "0"),
                ("2019-12-31", "EARLY", "M", "0", "2", "0"),
                ("2019-12-30", "HEALED", "M", "0", "9", "0"),
                ("2019-12-31", "HEALED", "M", "0", "0", "0"),
            ]
        )
        self.addCleanup(os.unlink, path)
        drives, columns, last = evaluate.load_backblaze(path)
        got = {d["serial"]: (d["failed"], d["flags"][-1][0]) for d in drives}
        self.assertEqual(
            got,
            {
                "FAILS": (True, False),
                "HEALTHY": (False, True),
                "EARLY": (True, True),
                "HEALED": (False, False),
            },
        )
        self.assertEqual((columns, last), ({5, 188}, "2019-12-31"))

    def test_days_of_each_kind_of_file(self):
        rows = [{"date": f"2019-06-0{i}"} for i in range(1, 6)]
        drive = {"rows": rows}
        aligned = evaluate.daily_rows(evaluate.ALIGNED, drive, "2019-12-31")
        self.assertEqual(
            [d.isoformat() for d, _ in aligned], [f"2019-12-{i}" for i in range(27, 32)]
        )
        history = evaluate.daily_rows("bb2013_x.csv", drive, "2019-12-31")
        self.assertEqual(history[-1][0], datetime.date(2019, 6, 5))
        last = evaluate.daily_rows("x_lastday.csv", drive, "2019-12-31")
        self.assertEqual(last, [(datetime.date(2019, 12, 31), rows[-1])])


class Rules(unittest.TestCase):
    def test_five_and_growth_over_the_columns_the_file_has(self):
        cases = [  # 5, 197, 188 (not a column of this file) -> five, grew
            ("0", "0", "0", (False, False)),
            ("0", "2", "0", (True, True)),
            ("0", "1", "0", (True, False)),  # a fall is no growth
            ("3.0", "0", "0", (True, True)),  # one rises, one falls
            ("", "0", "0", (False, False)),  # missing: neither > 0 nor rose
            ("4", "0", "0", (True, False)),  # nothing the row before
            ("4", "0", "9", (True, False)),
        ]
        rows = [
            {"smart_5_raw": a, "smart_197_raw": b, "smart_188_raw": c}
            for a, b, c, _ in cases
        ]
        self.assertEqual(
            evaluate.rule_flags(rows, {5, 9, 197}), [want for *_, want in cases]
        )

    def test_verdicts_of_each_day_from_the_export(self):
        text = "\n".join(
            (
                "# TYPE qv_smart_device_verdict gauge",
                'qv_smart_device_verdict{fqdd="A:1",class="SATA HDD"} 1 ' "1365552000",
                'qv_smart_device_verdict{class="SATA HDD",fqdd="B"} 2 '
                "1365638400.000",
                'qv_smart_device_verdict_changes{fqdd="A:1"} 0 1365638400',
                'qv_smart_temperature_celsius{fqdd="B"} 40 1365552000',
                "# EOF",
            )
        )
        self.assertEqual(
            evaluate.day_verdicts(text),
            {
                ("A:1", datetime.date(2013, 4, 10)): "WARNING",
                ("B", datetime.date(2013, 4, 11)): "FAILED",
            },
        )


def drive(failed, days, verdicts, five, grew, since=None):
    """A drive read on the given days of May 2013; one letter a day."""
    names = {"P": "PASSED", "W": "WARNING", "F": "FAILED"}
    return {
        "failed": failed,
        "since": since,
        "last_day": "2013-05-19",
        "marks": [
            evaluate.Mark(datetime.date(2013, 5, d), names[v], f == "1", g == "1")
            for d, v, f, g in zip(days, verdicts, five, grew)
        ],
    }


class Counting(unittest.TestCase):
    drives = [
        drive(
            True, range(10, 20), "PPWWWWWWFF", "0011111111", "0010000001", "2013-05-18"
        ),
        drive(True, range(16, 20), "WWWW", "1111", "0000", "2013-05-16"),
        # not read between the 2nd and the 10th: a week before is the 10th
        drive(True, (1, 2, 10, 19), "PPWP", "0010", "0010"),
        drive(False, range(16, 20), "PWWF", "0111", "0100", "2013-05-17"),
        drive(False, (18, 19), "PP", "00", "00"),
    ]

    def counts(self, t, group):
        return tuple(t[f"{group}_{key}"] for key in ("warn", "fail", "five", "grow"))

    def test_last_day_drive_days_and_a_week_before(self):
        t = evaluate.tally(self.drives, multi_day=True)
        cases = [  # group, its total, (WARN+, FAILED, 5-ATTR, GROWTH)
            ("f", t["n_failed"], (2, 1, 2, 1)),
            ("h", t["n_healthy"], (1, 1, 1, 0)),
            ("hd", t["n_days"], (3, 1, 3, 1)),
            ("wk", t["n_week"], (2, 0, 2, 2)),
        ]
        for group, total, want in cases:
            with self.subTest(group=group):
                self.assertEqual(self.counts(t, group), want)
        self.assertEqual([c[1] for c in cases], [3, 2, 6, 2])
        self.assertEqual(t["wk_out"], 1)

    def test_lead_days_of_each_rule(self):
        t = evaluate.tally(self.drives, multi_day=True)
        self.assertEqual(
            (t["leads"], t["leads_run"], t["leads_five"], t["leads_grow"]),
            ([1, 3], [7, 3], [7, 3], [0]),
        )

    def test_a_single_day_file_has_no_growth_days_or_leads(self):
        t = evaluate.tally(self.drives, multi_day=False)
        self.assertEqual(self.counts(t, "f"), (2, 1, 2, 1))
        self.assertEqual(
            (t["n_grow_failed"], t["n_days"], t["n_week"], t["leads"], t["leads_run"]),
            (0, 0, 0, [], []),
        )
        rows = dict(evaluate.table_rows([("x.csv", "held-out", t)]))
        self.assertEqual(
            rows["Failed drives flagged on their last day"][1],
            ("x", "held-out", "2/3  66.7%", "1/3  33.3%", "2/3  66.7%", "-"),
        )


class SmartctlCheck(unittest.TestCase):
    def test_a_wrong_figure_or_a_missed_failure_is_named(self):
        base = {
            "file": "f",
            "fqdd": "D",
            "class": "NVMe",
            "notes": [],
            "expected": {"temp_c": 40, "critical_warning": 16},
            "passed": False,
        }
        row = {
            "class": "NVMe",
            "temp_c": "40",
            "critical_warning": "volatile-backup-failed",
            "verdict": "FAILED",
        }
        cases = [
            ({}, "ok FAILED"),
            ({"temp_c": "39"}, "MISMATCH FAILED"),
            ({"critical_warning": "none"}, "MISMATCH FAILED"),
            ({"verdict": "WARNING"}, "MISMATCH WARNING"),
            ({"class": "SATA SSD"}, "MISMATCH FAILED"),
        ]
        for change, want in cases:
            with self.subTest(change=change):
                lines = evaluate.compare_smartctl([base], {"D": {**row, **change}})
                self.assertEqual(lines[0][2], want)

    def test_warning_bits_read_back(self):
        for text, want in (
            ("none", 0),
            ("", None),
            ("spare-below-threshold;temperature", 3),
            ("pmr-read-only;bit7", 32 | 128),
        ):
            with self.subTest(text=text):
                self.assertEqual(evaluate.warning_bits(text), want)


if __name__ == "__main__":
    unittest.main()
