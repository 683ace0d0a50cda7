"""The shipped programs at work: collector runs on test servers of their
own, and the reader over what they wrote."""
import json
import os
import shutil
import subprocess
import tempfile
from concurrent.futures import ThreadPoolExecutor

BAYS = 24


def collect(build, work, scenario, dest, day):
    """One daily run of the shipped collector on a test server of its own
    (tests' qv-test-server: a private bus, the simulator, the sandbox); its
    files land in dest, dated day. Exit code."""
    run = tempfile.mkdtemp(dir=work)
    path = os.path.join(run, "scenario.json")
    with open(path, "w") as fh:
        json.dump(scenario, fh)
    kept = os.path.join(run, "kept")
    rc = subprocess.run(
        [
            os.path.join(build, "tests/qv-test-server"),
            "--scenario",
            path,
            "--keep",
            kept,
            "--",
            os.path.join(build, "qvcollectors/qv-smart-collector"),
            "1",
        ],
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    ).returncode
    written = os.path.join(kept, "mmc2/mas032/smartlogs")
    os.makedirs(dest, exist_ok=True)
    stamp = day.strftime("%Y%m%d")
    for name in sorted(os.listdir(written)) if os.path.isdir(written) else []:
        shutil.move(
            os.path.join(written, name),
            os.path.join(dest, name[:2] + stamp + ".json"),
        )
    shutil.rmtree(run)
    return rc


def run_all(build, work, jobs, tasks):
    """tasks: [(scenario, dest, day)] -> [exit code], jobs at a time."""
    with ThreadPoolExecutor(jobs) as ex:
        return list(ex.map(lambda task: collect(build, work, *task), tasks))


def reader(build, *args):
    return subprocess.run(
        [os.path.join(build, "tools/qv-smart-report/qv-smart-report"), *args],
        capture_output=True,
        text=True,
    )
