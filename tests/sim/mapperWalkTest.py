#!/usr/bin/env python3
"""What a real object mapper finds of the simulator: it walks each service's
objects by Introspect from "/", so every drive object of the scenario must
be reachable that way on the storage service's name, the mapper's name must
show only the mapper, and an unknown path must be an unknown object.

Run by qv-test-server, which serves SCENARIO on the bus it names in
DBUS_SYSTEM_BUS_ADDRESS: mapperWalkTest.py SCENARIO"""
import json
import os
import subprocess
import sys

scenario = sys.argv[1]
address = os.environ["DBUS_SYSTEM_BUS_ADDRESS"]


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
    introspect = ("org.freedesktop.DBus.Introspectable", "Introspect")
    result = busctl("call", "--json=short", service, path, *introspect)
    check(result.returncode == 0, f"Introspect {service} {path}: {result.stderr}")
    xml = json.loads(result.stdout)["data"][0]
    for part in xml.split('<node name="')[1:]:
        child = part.split('"')[0]
        walk(service, path.rstrip("/") + "/" + child, found)
    return found


def main():
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


main()
