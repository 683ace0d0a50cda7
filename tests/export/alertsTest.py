#!/usr/bin/env python3
"""From the collector's daily reports to an alert, through the real
programs: qv-smart-report's textfile, node_exporter's textfile collector,
Prometheus with the shipped rules, Alertmanager and a webhook receiver of
this test. The alerts that arrive are the ones the reader's verdicts call
for; every process listens on 127.0.0.1 only and is stopped by the test.

alertsTest.py READER DAYS RULES WORK"""
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

reader, days, rules, work = sys.argv[1:5]
shutil.rmtree(work, ignore_errors=True)
os.makedirs(f"{work}/textfile")
WAIT_S = 45


def check(condition, what):
    if not condition:
        raise SystemExit(f"alertsTest: {what}")


def read(*args):
    result = subprocess.run([reader, *args], capture_output=True, text=True,
                            timeout=60)
    check(result.returncode & 3 == 0, result.stderr)  # damage or usage
    return result.stdout


def freePort():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def get(port, path):
    with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}",
                                timeout=5) as reply:
        return json.loads(reply.read()) if path.startswith("/api") else None


# The simulated days moved to the days up to today, so the last reading is
# fresh and only a drive that stopped answering days ago is silent; SSD-A's
# last reading at 70 °C: the temperature from which a solid-state drive
# warns.
os.makedirs(f"{work}/days")
named = sorted({n[2:10] for n in os.listdir(days)})
for name in os.listdir(days):
    ago = datetime.timedelta(days=len(named) - 1 - named.index(name[2:10]))
    day = (datetime.date.today() - ago).strftime("%Y%m%d")
    shutil.copy(f"{days}/{name}", f"{work}/days/{name[:2]}{day}.json")
last = f"{work}/days/" + max(n for n in os.listdir(f"{work}/days")
                             if n[:2] == "SL")
with open(last) as logs:
    text, count = re.subn(r'("SSD-A":\n\{[^}]*"Drive Temp": ")\d+',
                          r"\g<1>70", logs.read())
check(count == 1, f"no temperature of SSD-A in {last}")
with open(last, "w") as logs:
    logs.write(text)

# What the reader says of the drives still in the server.
history = json.loads(read("history", "--format=json", f"{work}/days"))
reasons = {row["fqdd"]: row["reasons"] for row in csv.DictReader(
    io.StringIO(read("history", "--format=csv", f"{work}/days")))}
present = {d["fqdd"]: d for d in history["drives"] if not d["vanished"]}
verdicts = {v: {f for f, d in present.items() if d["verdict"] == v}
            for v in ("FAILED", "WARNING", "PASSED")}
hot = {f for f, d in present.items()
       if any(r["figure"] == "temp_c" for r in d["reasons"])}
check(all(verdicts.values()) and hot, f"a drive of each verdict: {present}")

# The export of the last collection ran 27 hours ago.
textfile = f"{work}/textfile/qv_smart.prom"
read("export", "--format=textfile", "--output", textfile, f"{work}/days")
os.utime(textfile, (time.time() - 27 * 3600,) * 2)
silent = {f for f, d in present.items() if d["silent_since"]}
check(silent, f"a drive without a reading on the last day: {present}")
expected = ({("QvSmartDriveFailed", f) for f in verdicts["FAILED"]}
            | {("QvSmartDriveHot", f) for f in hot}
            | {("QvSmartDriveSilent", f) for f in silent}
            | {("QvSmartTextfileStale", textfile)})


def key(alert):
    labels = alert["labels"]
    return labels["alertname"], labels.get("fqdd", labels.get("file"))


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
configs = {
    "alertmanager": {
        "route": {"receiver": "fleet", "group_by": ["alertname", "instance"],
                  "group_wait": "1s", "group_interval": "1s",
                  "repeat_interval": "1h"},
        "receivers": [{"name": "fleet", "webhook_configs": [{
            "url": f"http://127.0.0.1:{webhook.server_port}/alerts",
            "send_resolved": False}]}]},
    "prometheus": {
        "global": {"scrape_interval": "1s", "evaluation_interval": "1s"},
        "rule_files": [rules],
        "alerting": {"alertmanagers": [{"static_configs": [{
            "targets": [f"127.0.0.1:{ports['alertmanager']}"]}]}]},
        "scrape_configs": [{"job_name": "node", "static_configs": [{
            "targets": [nodeExporter]}]}]}}
commands = {
    "node": ["prometheus-node-exporter", "--collector.disable-defaults",
             "--collector.textfile",
             f"--collector.textfile.directory={work}/textfile"],
    "alertmanager": ["prometheus-alertmanager", "--cluster.listen-address=",
                     f"--storage.path={work}/alertmanager"],
    "prometheus": ["prometheus", f"--storage.tsdb.path={work}/prometheus"]}
servers = {}


def start(name):
    args = ["timeout", "90", *commands[name],
            f"--web.listen-address=127.0.0.1:{ports[name]}"]
    if name in configs:
        with open(f"{work}/{name}.yml", "w") as config:
            json.dump(configs[name], config)  # YAML takes JSON
        args += [f"--config.file={work}/{name}.yml",
                 f"--web.external-url=http://127.0.0.1:{ports[name]}/"]
    servers[name] = subprocess.Popen(args, stdout=subprocess.DEVNULL,
                                     stderr=open(f"{work}/{name}.log", "w"))
    deadline = time.monotonic() + WAIT_S
    while True:
        try:
            return get(ports[name], "/metrics" if name == "node" else "/-/ready")
        except OSError:
            check(servers[name].poll() is None, f"{name} stopped; see its log")
            check(time.monotonic() < deadline, f"{name} never became ready")
            time.sleep(0.1)


def alerts():
    return [a for body in received for a in body["alerts"]]


try:
    for name in ("node", "alertmanager", "prometheus"):
        start(name)
    deadline = time.monotonic() + WAIT_S
    with arrived:
        while not expected <= {key(a) for a in alerts()}:
            check(time.monotonic() < deadline, f"after {WAIT_S} s: {alerts()}")
            arrived.wait(deadline - time.monotonic())
    # Prometheus sends an evaluation's alerts at once: any alert beside the
    # expected ones is in Alertmanager by now.
    held = get(ports["alertmanager"], "/api/v2/alerts")
    check({key(a) for a in held} == expected, f"Alertmanager holds {held}")
    pending = {key(a) for a in get(ports["prometheus"], "/api/v1/alerts")
               ["data"]["alerts"] if a["state"] == "pending"}
    check(pending == {("QvSmartDriveWarning", f) for f in verdicts["WARNING"]},
          f"pending {pending}")
finally:
    for server in servers.values():
        server.terminate()
    for server in servers.values():
        try:
            server.wait(timeout=10)
        except subprocess.TimeoutExpired:
            server.kill()
            server.wait()
    webhook.shutdown()
    webhook.server_close()

with open(f"{work}/webhook.json", "w") as out:
    json.dump(received, out, indent=2, ensure_ascii=False)
check({key(a) for a in alerts()} == expected, f"received {alerts()}")
for alert in alerts():
    labels = alert["labels"]
    check(labels.get("fqdd") not in verdicts["PASSED"] - silent,
          f"PASSED: {alert}")
    check((labels["instance"], labels["job"]) == (nodeExporter, "node")
          and labels.get("class") == present.get(labels.get("fqdd"), {})
          .get("class"), f"labels: {alert}")
    failed = labels["alertname"] == "QvSmartDriveFailed"
    check(labels["severity"] == ("critical" if failed else "warning")
          and (not failed or alert["annotations"]["reasons"]
               == reasons[labels["fqdd"]]), f"severity or reasons: {alert}")
print(f"alertsTest: {len(alerts())} alerts at the webhook "
      f"({work}/webhook.json), {len(pending)} pending")
