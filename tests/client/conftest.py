# SPDX-License-Identifier: LGPL-2.1-or-later
"""wrxctl, run from outside."""

import json
import os
import pathlib
import re
import signal
import subprocess

import pytest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["WRX_BUILD"])
CACHE, QUICK_TIME = BUILD / "CMakeCache.txt", BUILD / "lib/libwrx-quick-time.so"
# What is installed has no cache, and takes its time.
SANITIZED = CACHE.exists() and re.search(r"^WRX_SANITIZE:.*=.+$", CACHE.read_text(), re.M)
# Presses come after the driver's start has looked for one of the power button.
INSTANT = f"set press-gap {200 if SANITIZED else 60}ms;" + "".join(f"set {time} 1ms;" for time in (
    "capture-time", "feature-time", "step-time", "merge-time", "erase-time", "write-time", "crc-time",
    "leave-delay", "run-delay", "bootloader-delay", "application-delay"))


class Client:
    """wrxctl with a home of its own and the simulated module."""

    def __init__(self, home):
        self.home = home

    def start(self, arguments, script="lift", language=""):
        environment = dict(os.environ, LC_ALL="C.UTF-8", LANGUAGE=language, HOME=str(self.home))
        for kind in ("CONFIG", "DATA", "STATE"):
            environment[f"XDG_{kind}_HOME"] = str(self.home / kind)
        if QUICK_TIME.exists() and not SANITIZED:
            environment["LD_PRELOAD"] = str(QUICK_TIME)
        simulated = ["--simulate", INSTANT + script] if script else []
        return subprocess.Popen([BUILD / "bin/wrxctl", *arguments, *simulated], text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=environment)

    def run(self, arguments, script="lift", language=""):
        """Its exit code and what it printed."""
        process = self.start(arguments, script, language)
        text, _ = process.communicate(timeout=60)
        return process.returncode, text

    def ask(self, command, script="lift"):
        """Its exit code and what it said, line by line."""
        code, text = self.run([*command.split(), "--json"], script)
        return code, [json.loads(line) for line in text.splitlines()]

    def interrupt(self, command, script, texts):
        """As ask(), with a Ctrl-C at the line that holds each of `texts`."""
        process, lines, texts = self.start([*command.split(), "--json"], script), [], list(texts)
        for line in process.stdout:
            lines.append(json.loads(line))
            if texts and texts[0] in line:
                texts.pop(0)
                process.send_signal(signal.SIGINT)
        process.communicate(timeout=60)
        return process.returncode, lines


@pytest.fixture
def client(tmp_path):
    return Client(tmp_path)
