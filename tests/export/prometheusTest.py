#!/usr/bin/env python3
"""The export of collector-written daily reports, proven with the real
Prometheus: promtool accepts both formats, the OpenMetrics history loads
into a TSDB, and a prometheus server on that data (loopback only, stopped by
the test) answers PromQL queries with what the reader's history says.

prometheusTest.py READER DAYS WORK"""
import datetime
import json
import os
import shutil
import socket
import subprocess
import sys
import time
import urllib.parse
import urllib.request

reader, days, work = sys.argv[1:4]
shutil.rmtree(work, ignore_errors=True)
os.makedirs(work)
DAMAGE_OR_USAGE = 3


def run(*args, stdin=None):
    result = subprocess.run(
        args, input=stdin, capture_output=True, text=True, timeout=120
    )
    return result.returncode, result.stdout, result.stderr


def read(*args):
    code, out, err = run(reader, *args)
    assert code & DAMAGE_OR_USAGE == 0, (args, code, err)
    return out


def check(condition, what):
    if not condition:
        sys.exit(f"prometheusTest: {what}")


def promtoolAccepts(text, what):
    code, out, err = run("promtool", "check", "metrics", stdin=text)
    check(code == 0 and not out.strip(), f"promtool on the {what}: {out}{err}")


def freePort():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def query(port, promql, at):
    url = f"http://127.0.0.1:{port}/api/v1/query?" + urllib.parse.urlencode(
        {"query": promql, "time": at}
    )
    with urllib.request.urlopen(url, timeout=10) as reply:
        body = json.load(reply)
    check(body["status"] == "success", f"{promql}: {body}")
    return {r["metric"]["fqdd"]: float(r["value"][1]) for r in body["data"]["result"]}


def startPrometheus(data):
    port = freePort()
    with open(f"{work}/prometheus.yml", "w") as config:
        config.write("global:\n  scrape_interval: 1h\n")
    server = subprocess.Popen(
        ["timeout", "120", "prometheus", f"--config.file={work}/prometheus.yml"]
        + [f"--storage.tsdb.path={data}", "--storage.tsdb.retention.time=100y"]
        + [f"--web.listen-address=127.0.0.1:{port}"],
        stdout=subprocess.DEVNULL,
        stderr=open(f"{work}/prometheus.log", "w"),
    )
    for _ in range(300):
        try:
            urllib.request.urlopen(f"http://127.0.0.1:{port}/-/ready", timeout=1)
            return server, port
        except OSError:
            check(server.poll() is None, "prometheus stopped; see its log")
            time.sleep(0.2)
    server.kill()
    sys.exit("prometheusTest: prometheus never became ready")


history = json.loads(read("history", "--format=json", days))
lastDay = history["last_day"]
present = [d for d in history["drives"] if d["last_day"] == lastDay]

openMetrics = read("export", "--format=openmetrics", days)
promtoolAccepts(openMetrics, "OpenMetrics history")
textfile = f"{work}/qv_smart.prom"
read("export", "--format=textfile", "--output", textfile, days)
promtoolAccepts(open(textfile).read(), "textfile")
for drive in history["drives"]:
    check(
        (f'fqdd="{drive["fqdd"]}"' in open(textfile).read()) == (not drive["vanished"]),
        f"{drive['fqdd']} in the textfile",
    )

# The file is written block by block as the export goes: it must be the text
# of standard output to the octet.
read("export", "--format=openmetrics", "--output", f"{work}/history.om", days)
with open(f"{work}/history.om") as written:
    check(written.read() == openMetrics, "the OpenMetrics file differs")
code, out, err = run(
    *"promtool tsdb create-blocks-from openmetrics".split(),
    f"{work}/history.om",
    f"{work}/data",
)
check(code == 0, f"create-blocks-from: {out}{err}")

server, port = startPrometheus(f"{work}/data")
try:

    def midnight(day):
        return (
            datetime.datetime.fromisoformat(day)
            .replace(tzinfo=datetime.timezone.utc)
            .timestamp()
        )

    at = midnight(lastDay)
    span = f"{int(at - midnight(history['first_day'])) // 86400 + 1}d"
    hottest = query(
        port,
        "max by (fqdd) (max_over_time(" f"qv_smart_device_temperature[{span}]))",
        at,
    )
    check(
        hottest
        == {d["fqdd"]: d["figures"]["temp_c"]["max"] for d in history["drives"]},
        f"highest temperatures {hottest}",
    )
    codes = {"PASSED": 0, "WARNING": 1, "FAILED": 2}
    notPassed = query(port, "qv_smart_device_verdict > 0", at)
    check(
        notPassed
        == {
            d["fqdd"]: codes[d["verdict"]] for d in present if d["verdict"] != "PASSED"
        },
        f"drives not PASSED {notPassed}",
    )
    pending = query(
        port,
        "qv_smart_device_attribute{attribute_name=" '"Current_Pending_Sector"}',
        at,
    )
    check(
        pending
        == {
            d["fqdd"]: d["figures"]["pending"]["last"]
            for d in present
            if "pending" in d["figures"]
        },
        f"pending sectors {pending}",
    )
finally:
    server.terminate()
    server.wait(timeout=30)
print(f"prometheusTest: {len(history['drives'])} drives, queries match")
