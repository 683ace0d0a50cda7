#!/usr/bin/env python3
"""What a real object mapper finds of the simulator: it walks each service's
objects by Introspect from "/", so every drive object of the scenario must
be reachable that way on the storage service's name, the mapper's name must
show only the mapper, and an unknown path must be an unknown object.

mapperWalkTest.py STORAGE_SIM SCENARIO WORK"""
import json
import os
import shutil
import subprocess
import sys
import time

simulator, scenario, work = sys.argv[1:4]
shutil.rmtree(work, ignore_errors=True)
os.makedirs(work)
address = f"unix:abstract={work}/bus"
with open(f"{work}/bus.conf", "w") as conf:
    conf.write(
        f"<busconfig><type>system</type><listen>{address}</listen>"
        '<auth>EXTERNAL</auth><policy context="default">'
        '<allow user="*"/><allow own="*"/>'
        '<allow send_destination="*"/><allow receive_sender="*"/>'
        "</policy></busconfig>"
    )
env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=address)


def check(condition, what):
    if not condition:
        sys.exit(f"mapperWalkTest: {what}")


def busctl(*args):
    return subprocess.run(
        ["timeout", "20", "busctl", f"--address={address}", *args],
        capture_output=True,
        text=True,
    )


def walk(service, path, found):
    """The paths below `path` as a mapper finds them: Introspect, then each
    child node in turn."""
    found.append(path)
    result = busctl(
        "call",
        "--json=short",
        service,
        path,
        "org.freedesktop.DBus.Introspectable",
        "Introspect",
    )
    check(result.returncode == 0, f"Introspect {service} {path}: " f"{result.stderr}")
    xml = json.loads(result.stdout)["data"][0]
    for part in xml.split('<node name="')[1:]:
        child = part.split('"')[0]
        walk(service, path.rstrip("/") + "/" + child, found)
    return found


bus = subprocess.Popen(
    [
        "timeout",
        "60",
        "dbus-daemon",
        f"--config-file={work}/bus.conf",
        "--nofork",
        "--nopidfile",
    ],
    stderr=subprocess.DEVNULL,
)
sim = None
try:
    for _ in range(100):
        if busctl("list").returncode == 0:
            break
        time.sleep(0.05)
    sim = subprocess.Popen(
        ["timeout", "60", simulator, "--scenario", scenario],
        env=env,
        stdout=subprocess.PIPE,
        text=True,
    )
    check(sim.stdout.readline().strip() == "ready", "simulator not ready")

    objects = [o["path"] for o in json.load(open(scenario))["objects"]]
    storage = walk("com.kest.omrix.storage", "/", [])
    check(
        set(objects) <= set(storage),
        f"drive objects a mapper would miss: {set(objects) - set(storage)}",
    )
    check(
        "/com/kest/omrix/storage/drive" in storage,
        "the storage service's drive object is missing",
    )
    check(
        "/xyz/openbmc_project/object_mapper" not in storage,
        "the mapper's object shows on the storage service's name",
    )
    mapper = walk("xyz.openbmc_project.ObjectMapper", "/", [])
    check(
        mapper[-1] == "/xyz/openbmc_project/object_mapper"
        and not set(objects) & set(mapper),
        f"the mapper's name shows {mapper}",
    )

    first = busctl("introspect", "com.kest.omrix.storage", objects[0])
    check(
        "com.kest.omrix.storage.drive.inventory" in first.stdout
        and ".Fqdd" in first.stdout,
        f"{objects[0]}: {first.stdout}",
    )
    unknown = busctl("introspect", "com.kest.omrix.storage", "/nothing")
    check(
        unknown.returncode != 0 and "Unknown object" in unknown.stderr,
        f"/nothing: {unknown.stderr}",
    )
    print(f"mapperWalkTest: {len(storage)} nodes, every drive object found")
finally:
    for process in (sim, bus):
        if process is not None:
            process.terminate()
            process.wait()
