# SPDX-License-Identifier: LGPL-2.1-or-later
"""What the tests of the client's outside share: where things are, and running wrxctl."""

import concurrent.futures
import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["WRX_BUILD"])
# Presses come after the driver's start has looked for one of the power button.
INSTANT = "set press-gap 200ms;" + "".join(
    f"set {time} 0ms;" for time in ("capture-time", "feature-time", "step-time", "merge-time"))


class Client:
    """wrxctl with a home of its own and the simulated module."""

    def __init__(self, case):
        self.home = tempfile.mkdtemp(prefix="wrx-client-")
        case.addCleanup(subprocess.run, ["rm", "-r", self.home], check=True)

    def at(self, path):
        return pathlib.Path(self.home) / path

    def start(self, arguments, script="lift", language=""):
        environment = dict(os.environ, LC_ALL="C.UTF-8", LANGUAGE=language, HOME=self.home)
        for kind in ("CONFIG", "DATA", "STATE"):
            environment[f"XDG_{kind}_HOME"] = os.path.join(self.home, kind)
        simulated = ["--simulate", INSTANT + script] if script else []
        return subprocess.Popen([BUILD / "bin/wrxctl", *arguments, *simulated], text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                env=environment)

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


def command_shapes():
    """Every command with its options, from the completion, which the option tree made."""
    text = (SOURCE / "packaging/completion/wrxctl.bash").read_text()
    rows = [line.strip() for line in text.splitlines() if line.startswith('    ["')]
    return {row.split('"')[1]: row.split('"')[3].split() for row in rows}


def main():
    """Runs the tests of the program at once: they mostly wait. Words choose among their names."""
    loaded = unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"])
    cases = [case for suite in loaded for case in suite
             if all(word in case.id() for word in sys.argv[1:])]
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        results = list(pool.map(lambda case: case.run(), cases))
    for result in results:
        for case, text in result.failures + result.errors:
            print(f"FAILED {case}\n{text}")
    print(f"{len(results)} tests")
    sys.exit(not results or not all(result.wasSuccessful() for result in results))
