# SPDX-License-Identifier: LGPL-2.1-or-later
"""The interface's words, errors and rights."""

import os
import pathlib
import shutil
import signal
import stat
import subprocess
import time
import xml.etree.ElementTree as xml

import dbus
from bench import BUILD, DEVICE, NAME, until, with_options
from stage import MANAGER

PACKAGED = "/usr/share/dbus-1/interfaces/"
OURS = f"{pathlib.Path(__file__).parents[2]}/host/service/bus/"
NOBODY, DAEMON = 65534, 1


def members(root, interface):
    """What a description offers: a member's kind, name, type, access and arguments."""
    return {
        (*(member.get(word) for word in ("name", "type", "access")), member.tag)
        + tuple((arg.get("direction", "out"), arg.get("type")) for arg in member.findall("arg"))
        for member in root.find(f"interface[@name='{interface}']")
        if member.tag in ("method", "signal", "property")
    }


def test_our_description_is_the_packaged_one_and_what_we_offer(bench):
    for path, interface in ((DEVICE, NAME + ".Device"), (MANAGER, NAME + ".Manager")):
        packaged = members(xml.parse(f"{PACKAGED}{interface}.xml").getroot(), interface)
        assert members(xml.parse(f"{OURS}{interface}.xml").getroot(), interface) == packaged
        text = bench.client().call("Introspect", path=path, interface=dbus.INTROSPECTABLE_IFACE)
        assert members(xml.fromstring(text), interface) == packaged


def test_properties_tell_stages_and_kind_of_scan_and_whether_a_finger_is_needed(bench):
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


def test_every_call_out_of_place_is_refused_by_its_own_error(bench):
    client = bench.client()
    stages = (
        (
            ("ClaimDevice", "Release"), ("ClaimDevice", "VerifyStart", "any"),
            ("ClaimDevice", "VerifyStop"), ("ClaimDevice", "EnrollStop"),
            ("ClaimDevice", "EnrollStart", "left-thumb"), ("ClaimDevice", "DeleteEnrolledFingers2"),
            ("NoEnrolledPrints", "ListEnrolledFingers", "root"),
            ("Internal", "Claim", "nobody-of-that-name"), (None, "Claim", ""),
        ), (
            ("AlreadyInUse", "Claim", ""), ("NoEnrolledPrints", "VerifyStart", "any"),
            ("NoEnrolledPrints", "VerifyStart", "left-thumb"),
            ("InvalidFingername", "VerifyStart", "tail"), ("InvalidFingername", "EnrollStart", "any"),
            ("InvalidFingername", "DeleteEnrolledFinger", "tail"),
            ("NoEnrolledPrints", "DeleteEnrolledFinger", "left-thumb"),
            ("NoActionInProgress", "VerifyStop"), ("NoActionInProgress", "EnrollStop"),
            (None, "EnrollStart", "left-thumb"),
        ), (
            ("AlreadyInUse", "EnrollStart", "left-thumb"), ("NoActionInProgress", "VerifyStop"),
            ("AlreadyInUse", "DeleteEnrolledFingers2"), (None, "EnrollStop"),
        ),
    )
    for number, stage in enumerate(stages):
        for error, *call in stage:
            assert client.refused(*call) == error, (number, call)
    assert not client.heard


@with_options(mocks=["polkitd"])
def test_polkits_word_decides_for_root_too(bench):
    polkit = bench.watcher.get_object(
        "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority"
    )

    def allow(*words):
        actions = [f"net.reactivated.fprint.device.{word}" for word in words]
        polkit.SetAllowed(dbus.Array(actions, "s"), dbus_interface="org.freedesktop.DBus.Mock")

    client = bench.client()
    rows = (
        ((), ("Claim", "")), (("verify", "enroll"), ("Claim", "daemon")),
        (("setusername",), ("Claim", "daemon")), (("setusername",), ("ListEnrolledFingers", "")),
        (("verify",), None), (("verify",), ("EnrollStart", "left-thumb")),
        (("verify",), ("DeleteEnrolledFingers2",)), (("enroll",), ("VerifyStart", "any")),
    )
    for words, call in rows:
        allow(*words)
        if call is None:
            client.call("Claim", "")
        else:
            assert client.refused(*call) == "PermissionDenied", (words, call)
    client.call("Release")
    allow("enroll", "setusername")
    bench.enrol("thumb", "left-thumb", user="daemon")
    code, text = bench.tool("fprintd-list", "daemon")
    assert code != 0 and "PermissionDenied" in text
    assert bench.records() == {(DAEMON, 0): 20}


def test_without_polkit_everybody_has_the_own_fingers_and_root_all(bench):
    bench.enrol("thumb", "left-thumb", user="daemon")
    for user, told in ((NOBODY, "PermissionDenied"), (DAEMON, "left-thumb"), (0, "left-thumb")):
        code, text = bench.tool("fprintd-list", "daemon", user=user)
        assert (code == 0) == (user != NOBODY) and told in text
    # What is stored is its owner's alone.
    modes = {n: stat.S_IMODE(os.stat(f"{bench.state}/{n}").st_mode) for n in os.listdir(bench.state)}
    assert {"simulated.db", "trace.log"} <= modes.keys() and set(modes.values()) == {0o600}
    assert stat.S_IMODE(os.stat(bench.state).st_mode) == 0o700
    assert "bio_idx_name = left-thumb" in bench.trace()


def test_in_the_unit_of_fprintd_it_exposes_no_more_than_2_of_10(tmp_path):
    drop_ins = tmp_path / "fprintd.service.d"
    drop_ins.mkdir()
    shutil.copy("/lib/systemd/system/fprintd.service", tmp_path)
    shutil.copy(BUILD + "/packaging/wrxd.conf", drop_ins)
    command = "systemd-analyze security --offline=true --threshold=20 --no-pager"
    subprocess.run([*command.split(), tmp_path / "fprintd.service"], check=True)


def test_told_to_make_way_it_leaves_when_its_client_is_done_and_not_before(bench):
    client = bench.client(claimed="")
    bench.service.send_signal(signal.SIGHUP)
    time.sleep(1.5)
    client.call("Release")
    assert bench.service.wait(5) == 0
    bench.service = None


@with_options(options=("--idle-exit", "1"))
def test_idleness_ends_the_service_and_the_next_call_starts_it_again(bench):
    assert bench.service.wait(6) == 0
    bench.service = None
    code, text = bench.tool("fprintd-list", "root")
    assert code == 0 and "found 1 devices" in text
    client = bench.client(claimed="")
    time.sleep(1.5)
    assert bench.is_there()
    client.call("Release")
    until(lambda: not bench.is_there(), 6, "the end of the service")
