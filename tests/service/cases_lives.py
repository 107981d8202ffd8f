# SPDX-License-Identifier: LGPL-2.1-or-later
"""Clients, modules and machines that come, go and sleep."""

import itertools
import re

import dbus
from bench import DEVICE, MANAGER, NAME, Bench, until
from cases import registry

CASES, case = registry()


@case("two clients at once: one holds, the other is told so, whoever stops or dies", 60)
def two_clients():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        begins = (("VerifyStart", "any"), ("EnrollStart", "right-thumb"), None)
        ends = ("stop", "release", "die", "die answered")
        for begin, end in itertools.product(begins, ends):
            first, second = bench.client(), bench.client()
            first.call("Claim", "")
            if begin:
                first.call(*begin)
            if end == "die answered" and begin == begins[0]:
                bench.play("press toe")
                assert first.answer() == "verify-no-match"
                until(lambda: second.heard and second.heard.pop()[-1] is True)  # everybody hears it
            calls = (("Claim", ""), ("Release",), ("VerifyStart", "any"), ("VerifyStop",))
            calls += (("EnrollStart", "right-thumb"), ("EnrollStop",), ("DeleteEnrolledFingers2",))
            calls += (("DeleteEnrolledFingers", ""),)
            for call in calls:
                assert second.refused(*call) == "AlreadyInUse", (begin, end, call)
            if end == "stop" and begin:
                first.call(begin[0].replace("Start", "Stop"))
            if end.startswith("die"):
                first.leave()
                until(lambda: second.refused("Claim", "") is None, 3, "the claim")
            else:
                first.call("Release")
                second.call("Claim", "")
            bench.begin(second, "VerifyStart", "any")
            bench.play("press thumb")
            assert second.answer() == "verify-match", (begin, end)
            second.call("Release")
            bench.agree()
        # A client's calls begin only when the last one's have left the wire.
        opened = re.findall("demo_ops_(open|close) start", bench.trace())
        assert "open open" not in " ".join(opened)


@case("unplugging answers the client at once; the object goes and comes with the module")
def hot_plug():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        watcher = bench.client()

        def devices():
            return watcher.call("GetDevices", path=MANAGER, interface=NAME + ".Manager")

        waits = {
            "verify-disconnected": ("VerifyStart", "left-thumb"),
            "enroll-disconnected": ("EnrollStart", "right-thumb"),
        }
        for number, (word, call) in enumerate(waits.items()):
            client = bench.client()
            client.call("Claim", "")
            bench.begin(client, *call)
            bench.play("unplug")
            assert client.answer(1) == word
            until(lambda: devices() == [])
            bench.play("plug")
            until(lambda: bench.trace().count("usb dev attach.") > number)
            until(lambda: devices() == [DEVICE])
        assert bench.trace().count("usb dev detach.") == 2
        bench.agree()


def logind(bench, member, *words):
    return bench.watcher.call_blocking(
        "org.freedesktop.login1", "/org/freedesktop/login1", *member, *words
    )


@case("sleep in the middle of a verify is answered; after it the reader works, renumbered or not")
def sleep():
    with Bench(mocks=["logind"]) as bench:
        bench.enrol("thumb", "left-thumb")

        def inhibitors():
            member = ("org.freedesktop.login1.Manager", "ListInhibitors", "", ())
            return [str(each[1]) for each in logind(bench, member)]

        def prepare(sleeping):
            member = ("org.freedesktop.DBus.Mock", "EmitSignal", "sssav")
            words = ("org.freedesktop.login1.Manager", "PrepareForSleep", "b")
            logind(bench, member, (*words, [dbus.Boolean(sleeping, variant_level=1)]))

        client = bench.client()
        client.call("Claim", "")
        until(lambda: inhibitors() == ["wrxd"], what="the inhibitor")
        for renumbered in (False, True):
            client.call("VerifyStart", "left-thumb")
            prepare(True)
            assert client.answer(2) == "verify-unknown-error"
            until(lambda: inhibitors() == [], 3, "the end of the inhibitor")
            assert bench.trace().rstrip().endswith("ops_close end"), bench.trace()[-300:]
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
        bench.agree()


@case("a thousand claims leak no thread, descriptor or bus name", 60)
def thousand_claims():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        client = bench.client()
        client.call("Claim", "")
        client.call("Release")
        names = len(bench.watcher.list_names())
        before = bench.usage()
        for number in range(1000):
            client.call("Claim", "")
            if number % 25 == 0:
                client.call("VerifyStart", "any")
                client.call("VerifyStop")
            client.call("Release")
        until(lambda: bench.usage() == before, 3, f"{before}, not {bench.usage()}: the same usage")
        assert len(bench.watcher.list_names()) == names
