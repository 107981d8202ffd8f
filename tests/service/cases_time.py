# SPDX-License-Identifier: LGPL-2.1-or-later
"""What a verify costs, and modules that udev announces."""

import os
import subprocess
import sys
import time
import unittest

from bench import BUILD, QUICK, SOURCE, Bench
from cases import registry

CASES, case = registry()

# Nothing but the driver takes time here.
INSTANT = QUICK.replace("1ms", "0ms") + "; set response-delay 0ms; set in-cost 0ms; set out-cost 0ms"
INSTANT += "; set capture-report off"


def sanitized():
    with open(BUILD + "/CMakeCache.txt", encoding="utf-8") as cache:
        return any(l.startswith("WRX_SANITIZE:") and l.strip()[-1] != "=" for l in cache)


@case("from touch to verify-match the service waits for nothing but the driver's 40 ms")
def touch_to_match():
    if sanitized():
        raise unittest.SkipTest("a sanitizer has its own sleeps")
    virtual_time = BUILD + "/lib/libwrx-virtual-time.so"
    if not os.path.exists(virtual_time):
        raise unittest.SkipTest("no virtual time was built")
    with Bench(INSTANT, more={"LD_PRELOAD": virtual_time}) as bench:
        bench.enrol("thumb", "left-thumb")
        client = bench.client()
        client.call("Claim", "")
        costs = []
        for asked in ("left-thumb", "any") * 5:
            before = len(bench.sleeps())
            bench.play("press thumb")
            begun = time.monotonic()
            client.call("VerifyStart", asked)
            assert client.answer() == "verify-match"
            costs.append(time.monotonic() - begun)
            sleeps = bench.sleeps()[before:]
            assert {who for who, _ in sleeps} == {"wrx5300-scratch.so"}, sleeps
            assert sum(us for _, us in sleeps) == 40_000, sleeps
            client.call("VerifyStop")
        print(f"         beside the driver's 40 ms: {min(costs) * 1000:.1f} ms of work, in real time")
        assert min(costs) < 0.03


@case("udev's add and remove of a device in the id table reach the driver, of another do not")
def udev():
    if sanitized():
        raise unittest.SkipTest("the mock of udev and a sanitizer both want to come first")
    with Bench(options=("--idle-exit", "0"), activated=True) as bench:
        simulated = bench.command.index("--simulate")
        command = bench.command[:simulated] + ["--idle-exit", "0"]
        helper = os.path.join(SOURCE, "tests/service/udev_events.py")
        code, text = bench.tool("umockdev-wrapper", sys.executable, helper, bench.state, *command)
        assert code == 0, text
        assert bench.trace().count("usb dev attach.") == 1, text
        assert bench.trace().count("usb dev detach.") == 1, text
