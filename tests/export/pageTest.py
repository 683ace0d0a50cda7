#!/usr/bin/env python3
"""The page of collector-written daily reports, rendered by headless
Chromium: every drive of the reader's history is on it, failed drives
first, each with a plot of its history drawn; the screenshot is kept.

pageTest.py READER DAYS WORK"""
import html.parser
import json
import os
import shutil
import struct
import subprocess
import sys

reader, days, work = sys.argv[1:4]
shutil.rmtree(work, ignore_errors=True)
os.makedirs(work)
DAMAGE_OR_USAGE = 3
RANK = {"FAILED": 0, "WARNING": 1, "PASSED": 2}
WIDTH, HEIGHT = 1000, 1000


def check(condition, what):
    if not condition:
        sys.exit(f"pageTest: {what}")


def read(*args):
    result = subprocess.run([reader, *args], capture_output=True, text=True, timeout=60)
    check(result.returncode & DAMAGE_OR_USAGE == 0, result.stderr)
    return result.stdout


def chromium(*args):
    flags = "--headless --no-sandbox --disable-gpu --no-first-run --hide-scrollbars"
    result = subprocess.run(
        ["chromium", *flags.split(), "--no-default-browser-check"]
        + ["--disable-dev-shm-usage", f"--user-data-dir={work}/profile", *args]
        + [f"file://{work}/page.html"],
        capture_output=True,
        text=True,
        timeout=120,
    )
    check(result.returncode == 0, f"chromium: {result.stderr}")
    return result.stdout


class Drives(html.parser.HTMLParser):
    """Each drive's section in page order, with the plots drawn in it."""

    def __init__(self):
        super().__init__()
        self.sections = []

    def handle_starttag(self, tag, attrs):
        attrs = dict(attrs)
        if tag == "section" and "drive" in attrs.get("class", ""):
            self.sections.append(
                {
                    "fqdd": attrs["data-fqdd"],
                    "verdict": attrs["data-verdict"],
                    "plots": 0,
                    "lines": 0,
                }
            )
        elif tag == "svg" and self.sections:
            self.sections[-1]["plots"] += 1
        elif tag in ("polyline", "circle") and self.sections:
            self.sections[-1]["lines"] += attrs.get("points", "x") != ""


history = json.loads(read("history", "--format=json", days))
with open(f"{work}/page.html", "w") as page:
    page.write(read("html", days))

rendered = Drives()
rendered.feed(chromium("--dump-dom"))
sections = rendered.sections
check(
    sorted(s["fqdd"] for s in sections) == sorted(d["fqdd"] for d in history["drives"]),
    f"drives on the page: {[s['fqdd'] for s in sections]}",
)
verdicts = {d["fqdd"]: d["verdict"] for d in history["drives"]}
check(
    all(s["verdict"] == verdicts[s["fqdd"]] for s in sections),
    "verdicts differ from the history's",
)
ranks = [RANK[s["verdict"]] for s in sections]
check(ranks == sorted(ranks), f"drives not failed first: {ranks}")
check(
    all(s["plots"] >= 1 and s["lines"] >= s["plots"] for s in sections),
    f"a drive without a drawn plot: {sections}",
)

chromium(f"--window-size={WIDTH},{HEIGHT}", f"--screenshot={work}/page.png")
with open(f"{work}/page.png", "rb") as shot:
    head = shot.read(24)
check(
    head[:8] == b"\x89PNG\r\n\x1a\n"
    and struct.unpack(">II", head[16:24]) == (WIDTH, HEIGHT),
    "the screenshot is no PNG of the window's size",
)
print(f"pageTest: {len(sections)} drives, screenshot {work}/page.png")
