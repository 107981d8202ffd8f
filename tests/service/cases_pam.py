# SPDX-License-Identifier: LGPL-2.1-or-later
"""Logging in through PAM."""

import contextlib
import os
import subprocess

from bench import Bench, until
from cases import registry

CASES, case = registry()


@contextlib.contextmanager
def stack():
    """A PAM service that takes a finger and nothing else; its name."""
    name = f"wrxd-test-{os.getpid()}"
    path = "/etc/pam.d/" + name
    with open(path, "w", encoding="utf-8") as file:
        file.write("auth required pam_fprintd.so max-tries=3 timeout=30\n")
    try:
        yield name
    finally:
        os.unlink(path)


class LogIn:
    """pamtester in the background."""

    def __init__(self, bench, service, user="root"):
        self.process = subprocess.Popen(
            ["pamtester", service, user, "authenticate"],
            env=bench.env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True,
        )

    def end(self, seconds=10):
        """Whether it let in; and what it said."""
        text, _ = self.process.communicate(timeout=seconds)
        return self.process.returncode == 0, text


def begun(bench, service):
    """A log-in that waits for a finger."""
    waits = bench.waits()
    log_in = LogIn(bench, service)
    until(lambda: bench.waits() > waits, what="the wait")
    return log_in


@case("the right finger lets in; a wrong one before it does not matter")
def right_finger():
    with Bench() as bench, stack() as service:
        bench.enrol("thumb", "right-thumb")
        for presses in ("press thumb", "press toe; press thumb"):
            bench.play(presses)
            let_in, text = LogIn(bench, service).end()
            assert let_in, text
        bench.agree()


@case("a wrong finger three times, another user's finger, a deleted one: all keep out")
def keep_out():
    with Bench(leaves=1) as bench, stack() as service:
        bench.enrol("thumb", "right-thumb")
        bench.enrol("gone", "left-thumb")
        bench.enrol("other", "right-thumb", user="daemon")
        bench.forget(0, 0)
        for finger in ("toe", "other", "gone"):
            bench.play(f"press {finger} x3")
            let_in, text = LogIn(bench, service).end()
            assert not let_in and text.count("Failed to match fingerprint") >= 2, text
        bench.play("press other")
        assert LogIn(bench, service, "daemon").end()[0]


@case("a module unplugged in the middle keeps out at once, and works again when it is back")
def unplugged():
    with Bench() as bench, stack() as service:
        bench.enrol("thumb", "right-thumb")
        log_in = begun(bench, service)
        bench.play("unplug")
        let_in, text = log_in.end(3)
        assert not let_in, text
        assert not LogIn(bench, service).end()[0]
        bench.play("plug; press thumb")
        until(lambda: "right-thumb" in bench.tool("fprintd-list", "root")[1])
        assert LogIn(bench, service).end()[0]


@case("a log-in that is killed leaves the reader to the next")
def killed():
    with Bench() as bench, stack() as service:
        bench.enrol("thumb", "right-thumb")
        log_in = begun(bench, service)
        log_in.process.kill()
        log_in.end()
        log_in = begun(bench, service)
        bench.play("press thumb")
        assert log_in.end()[0]
