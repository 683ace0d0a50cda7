#!/usr/bin/env python3
"""From the collector's daily reports to an alert, through the real
programs: qv-smart-report's textfile, node_exporter's textfile collector,
Prometheus with the shipped rules, Alertmanager with the shipped route and
inhibition, and a webhook receiver of this test. The alerts that arrive are
the ones the reader's verdicts call for, less those a FAILED verdict of the
same drive holds back; every process listens on 127.0.0.1 only and is
stopped by the test.

alertsTest.py READER DAYS RULES ROUTE WORK"""
import csv
import datetime
import http.server
import io
import json
import os
import re
import shutil
import socket
import subprocess
import sys
import threading
import time
import urllib.request

reader, days, rules, route, work = sys.argv[1:6]
shutil.rmtree(work, ignore_errors=True)
os.makedirs(f"{work}/textfile")
WAIT_S = 45


def check(condition, what):
    if not condition:
        raise SystemExit(f"alertsTest: {what}")


def read(*args):
    result = subprocess.run([reader, *args], capture_output=True, text=True, timeout=60)
    check(result.returncode & 3 == 0, result.stderr)  # damage or usage
    return result.stdout


def freePort():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def get(port, path):
    with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=5) as reply:
        return json.loads(reply.read()) if path.startswith("/api") else None


# The counters whose rise alerts, by the names the reasons give them, and
# the alerts of a drive that its FAILED alert holds back in Alertmanager.
WATCHED = {
    ("qv_smart_device_media_errors", None): "media_errors",
    ("qv_smart_device_attribute", "Reallocated_Sector_Ct"): "reallocated",
    ("qv_smart_device_attribute", "Current_Pending_Sector"): "pending",
}
HELD_BACK = {"QvSmartDriveWarning", "QvSmartDriveHot", "QvSmartDriveCounterRose"}


def counters(textfile):
    found = {}
    with open(textfile) as metrics:
        for line in metrics:
            sample = re.fullmatch(r"(\w+)\{(.*)\} (\S+)\n", line)
            if sample:
                labels = dict(re.findall(r'(\w+)="([^"]*)"', sample[2]))
                name = WATCHED.get((sample[1], labels.get("attribute_name")))
                if name:
                    found[labels["fqdd"], name] = float(sample[3])
    return found


def place(names, into):
    """The simulated days moved to the days up to yesterday: the last
    reading is fresh at any time of today, and only a drive that stopped
    answering days ago is silent."""
    os.makedirs(into)
    dates = sorted({n[2:10] for n in names})
    for name in names:
        ago = datetime.timedelta(days=len(dates) - dates.index(name[2:10]))
        day = (datetime.date.today() - ago).strftime("%Y%m%d")
        shutil.copy(f"{days}/{name}", f"{into}/{name[:2]}{day}.json")


# The collection before the last, as the export wrote it a day earlier:
# what a counter rose from.
every = os.listdir(days)
lastDay = max(n[2:10] for n in every)
place([n for n in every if n[2:10] < lastDay], f"{work}/before")
place(every, f"{work}/days")
# In the last reading SSD-A, which has FAILED, is at 70 °C (the temperature
# from which a solid-state drive warns), and SATA-HDD, which has not, has
# one more reported uncorrectable error (device statistics, general errors,
# offset 08h).
for kind, pattern, value in (
    ("SL", r'("SSD-A":\n\{[^}]*"Drive Temp": ")\d+', "70"),
    (
        "RD",
        r'("SATA-HDD":\n\{.*?"genErrStatistics\(4\)": \{\n'
        r'"000000": "(?:[0-9a-f]{2} ){8})01',
        "02",
    ),
):
    last = f"{work}/days/" + max(n for n in os.listdir(f"{work}/days") if n[:2] == kind)
    with open(last) as logs:
        text, count = re.subn(pattern, rf"\g<1>{value}", logs.read(), flags=re.S)
    check(count == 1, f"{pattern} not in {last}")
    with open(last, "w") as logs:
        logs.write(text)

# What the reader says of the drives still in the server.
history = json.loads(read("history", "--format=json", f"{work}/days"))
reasons = {
    row["fqdd"]: row["reasons"]
    for row in csv.DictReader(
        io.StringIO(read("history", "--format=csv", f"{work}/days"))
    )
}
present = {d["fqdd"]: d for d in history["drives"] if not d["vanished"]}
verdicts = {
    v: {f for f, d in present.items() if d["verdict"] == v}
    for v in ("FAILED", "WARNING", "PASSED")
}
hot = {
    f for f, d in present.items() if any(r["figure"] == "temp_c" for r in d["reasons"])
}
check(all(verdicts.values()) and hot, f"a drive of each verdict: {present}")

# The export of the collection before is scraped first; the last one's ran
# 27 hours ago.
textfile = f"{work}/textfile/qv_smart.prom"
read("export", "--format=textfile", "--output", textfile, f"{work}/before")
before = counters(textfile)
silent = {f for f, d in present.items() if d["silent_since"]}
check(silent, f"a drive without a reading on the last day: {present}")


def key(alert):
    labels = alert["labels"]
    return (
        labels["alertname"],
        labels.get("fqdd", labels.get("file")),
        labels.get("counter"),
    )


received = []
arrived = threading.Condition()


class Webhook(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        body = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        with arrived:
            received.append(body)
            arrived.notify_all()
        self.send_response(200)
        self.end_headers()

    def log_message(self, *args):
        pass


webhook = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Webhook)
threading.Thread(target=webhook.serve_forever, daemon=True).start()
ports = {name: freePort() for name in ("node", "alertmanager", "prometheus")}
nodeExporter = f"127.0.0.1:{ports['node']}"
# The shipped Alertmanager configuration with this test's webhook, and a
# second's wait where it waits for more alerts of a group.
with open(route) as shipped:
    text, urls = re.subn(
        r"url: \S+",
        "url: http://127.0.0.1:" f"{webhook.server_port}/alerts",
        shipped.read(),
    )
text, waits = re.subn(r"(group_wait|group_interval): \S+", r"\1: 1s", text)
check(urls and waits, f"no webhook or no group wait in {route}")
# YAML takes JSON's flow style.
configs = {
    "alertmanager": text,
    "prometheus": f"""
global: {{scrape_interval: 1s, evaluation_interval: 1s}}
rule_files: [{json.dumps(rules)}]
alerting:
  alertmanagers:
    - static_configs: [{{targets: ["127.0.0.1:{ports['alertmanager']}"]}}]
scrape_configs:
  - {{job_name: node, static_configs: [{{targets: ["{nodeExporter}"]}}]}}
""",
}
commands = {
    "node": [
        "prometheus-node-exporter",
        "--collector.disable-defaults",
        "--collector.textfile",
        f"--collector.textfile.directory={work}/textfile",
    ],
    "alertmanager": [
        "prometheus-alertmanager",
        "--cluster.listen-address=",
        f"--storage.path={work}/alertmanager",
    ],
    "prometheus": ["prometheus", f"--storage.tsdb.path={work}/prometheus"],
}
servers = {}


def start(name):
    args = [
        "timeout",
        "90",
        *commands[name],
        f"--web.listen-address=127.0.0.1:{ports[name]}",
    ]
    if name in configs:
        with open(f"{work}/{name}.yml", "w") as config:
            config.write(configs[name])
        args += [
            f"--config.file={work}/{name}.yml",
            f"--web.external-url=http://127.0.0.1:{ports[name]}/",
        ]
    servers[name] = subprocess.Popen(
        args, stdout=subprocess.DEVNULL, stderr=open(f"{work}/{name}.log", "w")
    )
    deadline = time.monotonic() + WAIT_S
    while True:
        try:
            return get(ports[name], "/metrics" if name == "node" else "/-/ready")
        except OSError:
            check(servers[name].poll() is None, f"{name} stopped; see its log")
            check(time.monotonic() < deadline, f"{name} never became ready")
            time.sleep(0.1)


def alerts():
    return [a for body in received for a in body["alerts"] if a["status"] == "firing"]


try:
    for name in ("node", "alertmanager", "prometheus"):
        start(name)
    deadline = time.monotonic() + WAIT_S
    query = "/api/v1/query?query=qv_smart_device_verdict"
    while not get(ports["prometheus"], query)["data"]["result"]:
        check(time.monotonic() < deadline, "the textfile never scraped")
        time.sleep(0.1)
    read("export", "--format=textfile", "--output", textfile, f"{work}/days")
    os.utime(textfile, (time.time() - 27 * 3600,) * 2)
    rose = {
        (f, c)
        for (f, c), value in counters(textfile).items()
        if value > before.get((f, c), value)
    }
    check(rose, f"no counter rose from {before}")
    expected = (
        {("QvSmartDriveFailed", f, None) for f in verdicts["FAILED"]}
        | {("QvSmartDriveHot", f, None) for f in hot}
        | {("QvSmartDriveCounterRose", f, c) for f, c in rose}
        | {("QvSmartDriveSilent", f, None) for f in silent}
        | {("QvSmartTextfileStale", textfile, None)}
    )
    # A FAILED drive's other alerts are held back, another drive's are not.
    heldBack = {k for k in expected if k[0] in HELD_BACK and k[1] in verdicts["FAILED"]}
    check(
        heldBack and any(k[0] in HELD_BACK for k in expected - heldBack),
        f"a FAILED drive's alert to hold back and another's not: {expected}",
    )
    with arrived:
        while not expected - heldBack <= {key(a) for a in alerts()}:
            check(time.monotonic() < deadline, f"after {WAIT_S} s: {alerts()}")
            arrived.wait(deadline - time.monotonic())
    # Prometheus sends an evaluation's alerts at once: any alert beside the
    # expected ones is in Alertmanager by now.
    held = get(ports["alertmanager"], "/api/v2/alerts")
    check({key(a) for a in held} == expected, f"Alertmanager holds {held}")
    failures = {
        key(a)[1]: a["fingerprint"] for a in held if key(a)[0] == "QvSmartDriveFailed"
    }
    for alert in held:
        status = alert["status"]
        check(
            (status["state"], status["inhibitedBy"])
            == (
                ("suppressed", [failures[key(alert)[1]]])
                if key(alert) in heldBack
                else ("active", [])
            ),
            f"held back or not: {alert}",
        )
    pending = {
        key(a)[:2]
        for a in get(ports["prometheus"], "/api/v1/alerts")["data"]["alerts"]
        if a["state"] == "pending"
    }
    check(
        pending == {("QvSmartDriveWarning", f) for f in verdicts["WARNING"]},
        f"pending {pending}",
    )
finally:
    for server in servers.values():
        server.terminate()
    for server in servers.values():
        server.wait(timeout=10)  # each under timeout(1) all the same
    webhook.shutdown()
    webhook.server_close()

with open(f"{work}/webhook.json", "w") as out:
    json.dump(received, out, indent=2, ensure_ascii=False)
check({key(a) for a in alerts()} == expected - heldBack, f"received {alerts()}")
# The reasons of a FAILED alert are the reader's, looked up in the textfile.
for alert in alerts():
    labels = alert["labels"]
    check(
        labels["alertname"] != "QvSmartDriveFailed"
        or alert["annotations"]["reasons"] == reasons[labels["fqdd"]],
        f"reasons: {alert}",
    )
print(
    f"alertsTest: {len(alerts())} alerts at the webhook "
    f"({work}/webhook.json), {len(heldBack)} held back, "
    f"{len(pending)} pending"
)
