# SPDX-License-Identifier: LGPL-2.1-or-later
"""Clients, modules and machines that come, go and sleep."""

import itertools
import os
import re

import dbus
import gi
import pytest
from bench import DEVICE, Bench, sanitized, until, with_options

gi.require_version("UMockdev", "1.0")
from gi.repository import UMockdev  # noqa: E402


def held(process):
    """How many threads and descriptors a process has."""
    return [len(os.listdir(f"/proc/{process.pid}/{kind}")) for kind in ("task", "fd")]


def test_of_two_clients_one_holds_and_the_other_is_told_so_whoever_stops_or_dies(bench):
    bench.enrol("thumb", "left-thumb")
    usage = held(bench.service)
    begins = (("VerifyStart", "any"), ("EnrollStart", "right-thumb"), None)
    refused = (("Claim", ""), ("Release",), ("VerifyStart", "any"), ("VerifyStop",))
    refused += (("EnrollStart", "right-thumb"), ("EnrollStop",), ("DeleteEnrolledFingers2",))
    refused += (("DeleteEnrolledFingers", ""),)
    for begin, end in itertools.product(begins, ("stop", "release", "die", "die answered")):
        first, second = bench.client(claimed=""), bench.client()
        if begin:
            first.call(*begin)
        if end == "die answered" and begin == begins[0]:
            bench.play("press toe")
            assert first.answer() == "verify-no-match"
            until(lambda: second.heard and second.heard.pop()[-1] is True)  # everybody hears it
        for call in refused:
            assert second.refused(*call) == "AlreadyInUse", (begin, end, call)
        if end == "stop" and begin:
            first.call(begin[0].replace("Start", "Stop"))
        if end.startswith("die"):
            first.bus.close()
            until(lambda: second.refused("Claim", "") is None, 3, "the claim")
        else:
            first.call("Release")
            second.call("Claim", "")
        bench.begin(second.call, "VerifyStart", "any")
        bench.play("press thumb")
        assert second.answer() == "verify-match", (begin, end)
        for _ in range(20):
            second.call("Release")
            second.call("Claim", "")
        second.call("Release")
        until(lambda: held(bench.service) == usage, 3, f"{usage} again as threads and descriptors")
    # A client's calls begin only when the last one's have left the wire.
    opened = re.findall("demo_ops_(open|close) start", bench.trace())
    assert "open open" not in " ".join(opened)


def test_unplugging_answers_at_once_and_the_object_goes_and_comes_with_the_module(bench):
    bench.enrol("thumb", "left-thumb")
    waits = {
        "verify-disconnected": ("VerifyStart", "left-thumb"),
        "enroll-disconnected": ("EnrollStart", "right-thumb"),
    }
    for number, (word, call) in enumerate(waits.items()):
        client = bench.client(claimed="")
        bench.begin(client.call, *call)
        bench.play("unplug")
        assert client.answer(1) == word
        until(lambda: bench.devices() == [])
        bench.play("plug")
        until(lambda: bench.trace().count("usb dev attach.") > number)
        until(lambda: bench.devices() == [DEVICE])
    assert bench.trace().count("usb dev detach.") == 2


@pytest.mark.skipif(sanitized(), reason="the mock of udev wants to be loaded first, too")
def test_udevs_events_of_a_module_reach_the_driver_and_of_another_device_do_not():
    bed = UMockdev.Testbed.new()
    mocked = {"UMOCKDEV_DIR": bed.get_root_dir()}
    with Bench(script=None, preload="libumockdev-preload.so.0", more=mocked) as bench:
        for name, product in (("mouse", "46d/c077/7200"), ("module", "4d2e/5300/100")):
            properties = ["DEVTYPE", "usb_device", "PRODUCT", product]
            # This announces the device, too.
            path = bed.add_device("usb", name, None, ["idVendor", "0000"], properties)
            if name == "module":
                until(lambda: "usb dev attach." in bench.trace(), what="attach")
            bed.uevent(path, "remove")
        until(lambda: "usb dev detach end." in bench.trace(), what="detach")
        assert bench.trace().count("usb dev attach.") == bench.trace().count("usb dev detach.") == 1


@with_options(mocks=["logind"])
def test_sleep_in_a_verify_is_answered_and_after_it_the_reader_works_renumbered_or_not(bench):
    bench.enrol("thumb", "left-thumb")

    def logind(*call):
        where = ("org.freedesktop.login1", "/org/freedesktop/login1")
        return bench.watcher.call_blocking(*where, *call)

    def inhibitors():
        found = logind("org.freedesktop.login1.Manager", "ListInhibitors", "", ())
        return [str(each[1]) for each in found]

    def prepare(sleeping):
        words = ("org.freedesktop.login1.Manager", "PrepareForSleep", "b")
        words += ([dbus.Boolean(sleeping, variant_level=1)],)
        logind("org.freedesktop.DBus.Mock", "EmitSignal", "sssav", words)

    client = bench.client(claimed="")
    for renumbered in (False, True):
        until(lambda: inhibitors() == ["wrxd"], what="the inhibitor")
        client.call("VerifyStart", "left-thumb")
        prepare(True)
        assert client.answer(2) == "verify-unknown-error"
        until(lambda: inhibitors() == [], 3, "the end of the inhibitor")
        assert bench.trace().rstrip().endswith("ops_close end")
        client.call("VerifyStop")
        if renumbered:
            bench.play("unplug")
        prepare(False)
        client.call("VerifyStart", "left-thumb")
        bench.play("plug; press thumb" if renumbered else "press thumb")
        assert client.answer(4) == "verify-match", renumbered
        client.call("VerifyStop")
    until(lambda: inhibitors() == ["wrxd"], what="the inhibitor")
    client.call("Release")
    until(lambda: inhibitors() == [], what="the end of the inhibitor")
