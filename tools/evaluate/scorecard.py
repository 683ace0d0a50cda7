"""The scorecard: the reader's verdicts and the two CSV rules counted per
file and pooled, and the tables that show them."""
import datetime
import statistics


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
