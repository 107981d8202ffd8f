# SPDX-License-Identifier: LGPL-2.1-or-later
"""The interface's words, errors and rights."""

import os
import re
import shutil
import signal
import stat
import subprocess
import tempfile
import time
import xml.etree.ElementTree as xml

import dbus
from bench import BUILD, DEVICE, MANAGER, NAME, SOURCE, Bench, until
from cases import registry

CASES, case = registry()
DEBIAN = "/usr/share/dbus-1/interfaces/"
NOBODY, DAEMON = 65534, 1


def members(root, interface):
    """{(kind, name): (signature in, signature out or type)} of an interface."""
    found = {}
    for member in root.find(f"interface[@name='{interface}']"):
        if member.tag not in ("method", "signal", "property"):
            continue
        words = {"in": "", "out": ""}
        for arg in member.findall("arg"):
            words[arg.get("direction", "out")] += arg.get("type")
        found[member.tag, member.get("name")] = (words, member.get("type"), member.get("access"))
    return found


@case("our description has the members and signatures of the packaged one, and is what we offer")
def description():
    with Bench() as bench:
        client = bench.client()
        for path, interface in ((DEVICE, NAME + ".Device"), (MANAGER, NAME + ".Manager")):
            packaged = members(xml.parse(f"{DEBIAN}{interface}.xml").getroot(), interface)
            ours = members(xml.parse(f"{SOURCE}/host/service/bus/{interface}.xml").getroot(), interface)
            assert ours == packaged, (ours, packaged)
            text = client.call("Introspect", path=path, interface=dbus.INTROSPECTABLE_IFACE)
            assert members(xml.fromstring(text), interface) == packaged


@case("properties tell stages, kind of scan, and whether a finger is needed")
def properties():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        client = bench.client()
        wanted = {"num-enroll-stages": 12, "scan-type": "press", "finger-needed": False}
        assert {name: client.property(name) for name in wanted} == wanted
        assert "WRX5300" in client.property("name")
        client.call("Claim", "")
        client.call("VerifyStart", "left-thumb")
        assert client.property("finger-needed") is True
        bench.play("press thumb")
        client.answer()
        assert client.property("finger-needed") is False
        assert client.property("finger-present") is False


@case("every call out of place is refused by its own error")
def errors():
    with Bench() as bench:
        client = bench.client()
        unclaimed = (("Release",), ("VerifyStart", "any"), ("VerifyStop",), ("EnrollStop",))
        unclaimed += (("EnrollStart", "left-thumb"), ("DeleteEnrolledFingers2",))
        for call in unclaimed:
            assert client.refused(*call) == "ClaimDevice", call
        assert client.refused("ListEnrolledFingers", "root") == "NoEnrolledPrints"
        assert client.refused("Claim", "nobody-of-that-name") == "Internal"
        client.call("Claim", "")
        rows = {
            ("Claim", ""): "AlreadyInUse",
            ("VerifyStart", "any"): "NoEnrolledPrints",
            ("VerifyStart", "left-thumb"): "NoEnrolledPrints",
            ("VerifyStart", "tail"): "InvalidFingername",
            ("EnrollStart", "any"): "InvalidFingername",
            ("DeleteEnrolledFinger", "tail"): "InvalidFingername",
            ("DeleteEnrolledFinger", "left-thumb"): "NoEnrolledPrints",
            ("VerifyStop",): "NoActionInProgress",
            ("EnrollStop",): "NoActionInProgress",
        }
        for call, error in rows.items():
            assert client.refused(*call) == error, call
        client.call("EnrollStart", "left-thumb")
        assert client.refused("EnrollStart", "left-thumb") == "AlreadyInUse"
        assert client.refused("VerifyStop") == "NoActionInProgress"
        assert client.refused("DeleteEnrolledFingers2") == "AlreadyInUse"
        client.call("EnrollStop")
        assert not client.heard, client.heard


@case("polkit's word decides, for root too")
def polkit():
    with Bench(mocks=["polkitd"]) as bench:
        polkit = bench.watcher.get_object(
            "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority"
        )
        actions = {word: f"net.reactivated.fprint.device.{word}" for word in RIGHTS}

        def allow(*words):
            polkit.SetAllowed(
                dbus.Array([actions[word] for word in words], "s"),
                dbus_interface="org.freedesktop.DBus.Mock",
            )

        client = bench.client()
        for words, user in (((), ""), (("verify", "enroll"), "daemon"), (("setusername",), "daemon")):
            allow(*words)
            assert client.refused("Claim", user) == "PermissionDenied", words
        assert client.refused("ListEnrolledFingers", "") == "PermissionDenied"
        allow("verify")
        client.call("Claim", "")
        assert client.refused("EnrollStart", "left-thumb") == "PermissionDenied"
        assert client.refused("DeleteEnrolledFingers2") == "PermissionDenied"
        allow("enroll")
        assert client.refused("VerifyStart", "any") == "PermissionDenied"
        client.call("Release")
        allow("enroll", "setusername")
        bench.enrol("thumb", "left-thumb", user="daemon")
        code, text = bench.tool("fprintd-list", "daemon")
        assert code != 0 and "PermissionDenied" in text, text
        assert bench.records() == {(DAEMON, 0): 20}


RIGHTS = ("verify", "enroll", "setusername")


@case("without polkit everybody has the own fingers, and root all")
def no_polkit():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb", user="daemon")
        code, text = bench.tool("fprintd-list", "daemon", user=NOBODY)
        assert code != 0 and "PermissionDenied" in text, text
        code, text = bench.tool("fprintd-list", "daemon", user=DAEMON)
        assert code == 0 and "left-thumb" in text, text
        code, text = bench.tool("fprintd-list", "daemon")
        assert code == 0 and "left-thumb" in text, text


@case("the database and the trace are their owner's alone; the trace tells who and where")
def rights_of_files():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        bench.stop()
        modes = {n: stat.S_IMODE(os.stat(f"{bench.state}/{n}").st_mode) for n in os.listdir(bench.state)}
        assert {"simulated.db", "trace.log"} <= modes.keys() and set(modes.values()) == {0o600}, modes
        assert stat.S_IMODE(os.stat(bench.state).st_mode) == 0o700
        assert "bio_idx_name = left-thumb" in bench.trace()


@case("in fprintd's unit the service exposes no more than 2.0 of 10")
def unit():
    with tempfile.TemporaryDirectory() as units:
        shutil.copy("/lib/systemd/system/fprintd.service", units)
        os.mkdir(units + "/fprintd.service.d")
        shutil.copy(BUILD + "/packaging/wrxd.conf", units + "/fprintd.service.d")
        done = subprocess.run(
            ["systemd-analyze", "security", "--offline=true", "--threshold=20", "--no-pager"]
            + [units + "/fprintd.service"],
            capture_output=True, text=True, check=False,
        )
    assert done.returncode == 0, done.stdout[-200:] + done.stderr
    assert float(re.search(r"fprintd.service: ([\d.]+)", done.stdout)[1]) <= 2.0


@case("told to make way, the service leaves when its client is done, not before")
def makes_way():
    with Bench() as bench:
        client = bench.client()
        client.call("Claim", "")
        bench.service.send_signal(signal.SIGHUP)
        time.sleep(1.5)
        client.call("Release")
        assert bench.service.wait(5) == 0


@case("a call starts the service, idleness ends it, the next call starts it again")
def activation():
    with Bench(options=("--idle-exit", "1"), activated=True) as bench:
        for _ in range(2):
            code, text = bench.tool("fprintd-list", "root")
            assert code == 0 and "found 1 devices" in text, text
            until(lambda: not bench.watcher.name_has_owner(NAME), 6, "the end")
        held = bench.client()
        held.call("GetDevices", path=MANAGER, interface=NAME + ".Manager")
        held.call("Claim", "")
        until(lambda: True, 2)
        assert bench.watcher.name_has_owner(NAME)
        held.call("Release")
        until(lambda: not bench.watcher.name_has_owner(NAME), 6, "the end")
