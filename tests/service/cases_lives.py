# SPDX-License-Identifier: LGPL-2.1-or-later
"""Clients, modules and machines that come, go and sleep."""

import itertools
import subprocess
import sys

import dbus
from bench import DEVICE, MANAGER, NAME, Bench, until
from cases import registry

CASES, case = registry()

# What a client has done when it is killed, and what it had to wait for.
STATES = {
    "claimed": [],
    "enrolling": [("EnrollStart", "right-thumb")],
    "verifying": [("VerifyStart", "left-thumb")],
    "answered": [("VerifyStart", "left-thumb")],
}

VICTIM = """
import sys, time
sys.path.insert(0, {folder!r})
from bench import Client
client = Client({address!r})
for call in {calls!r}:
    client.call(*call)
print("there", flush=True)
time.sleep(60)
"""


def victim(bench, state):
    """A client in a process of its own, in that state."""
    calls = [("Claim", ""), *STATES[state]]
    code = VICTIM.format(folder=sys.path[0], address=bench.address, calls=calls)
    process = subprocess.Popen([sys.executable, "-c", code], env=bench.env, stdout=subprocess.PIPE)
    assert process.stdout.readline() == b"there\n"
    return process


@case("after a client is killed in any state the next one works", 40)
def killed():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        for state in STATES:
            process = victim(bench, state)
            other = bench.client()
            assert other.refused("Claim", "") == "AlreadyInUse", state
            if state == "answered":
                bench.play("press toe")
                until(lambda: other.heard and other.heard.pop()[-1] is True, what="the answer")
            process.kill()
            process.wait()
            until(lambda: other.refused("Claim", "") is None, 3, "the claim")
            bench.begin(other, "VerifyStart", "any")
            bench.play("press thumb")
            assert other.answer() == "verify-match", state
            other.call("VerifyStop")
            other.call("Release")
            bench.agree()


@case("two clients at once: one holds, the other is told so, whoever stops or dies", 60)
def two_clients():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        begins = (("VerifyStart", "any"), ("EnrollStart", "right-thumb"), None)
        ends = ("stop", "release", "die")
        for begin, end in itertools.product(begins, ends):
            first, second = bench.client(), bench.client()
            first.call("Claim", "")
            if begin:
                first.call(*begin)
            calls = (("Claim", ""), ("Release",), ("VerifyStart", "any"), ("VerifyStop",))
            calls += (("EnrollStart", "right-thumb"), ("EnrollStop",), ("DeleteEnrolledFingers2",))
            calls += (("DeleteEnrolledFingers", ""),)
            for call in calls:
                assert second.refused(*call) == "AlreadyInUse", (begin, end, call)
            if end == "stop" and begin:
                first.call(begin[0].replace("Start", "Stop"))
            if end == "die":
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


@case("a second client's wait begins only when the first one's has left the wire")
def no_interleaving():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        first, second = bench.client(), bench.client()
        first.call("Claim", "")
        first.call("VerifyStart", "any")
        first.leave()
        until(lambda: second.refused("Claim", "") is None, 3, "the claim")
        bench.begin(second, "VerifyStart", "any")
        bench.play("press thumb")
        assert second.answer() == "verify-match"
        calls = [
            line.split("ops_")[1]
            for line in bench.trace().splitlines()
            if any(f"demo_ops_{word} start" in line for word in ("open", "search", "close"))
        ]
        for position, call in enumerate(calls):
            assert call != "open start" or calls[position - 1] == "close start" or position == 0


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
