# SPDX-License-Identifier: LGPL-2.1-or-later
"""What the tests of the client's outside share: where things are, and running wrxctl."""

import atexit
import json
import os
import pathlib
import subprocess
import tempfile

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["WRX_BUILD"])
INSTANT = "set press-gap 200ms;" + "".join(
    f"set {time} 0ms;" for time in ("capture-time", "feature-time", "step-time", "merge-time"))


class Client:
    """wrxctl with a home of its own and the simulated module."""

    def __init__(self):
        self.home = tempfile.TemporaryDirectory(prefix="wrx-client-")
        atexit.register(self.home.cleanup)

    def at(self, path):
        return pathlib.Path(self.home.name) / path

    def run(self, arguments, script="lift", language="", simulate=True):
        environment = dict(os.environ, LC_ALL="C.UTF-8", LANGUAGE=language, HOME=self.home.name)
        for kind in ("CONFIG", "DATA", "STATE"):
            environment[f"XDG_{kind}_HOME"] = os.path.join(self.home.name, kind)
        simulated = ["--simulate", INSTANT + script] if simulate else []
        return subprocess.run([BUILD / "bin/wrxctl", *arguments, *simulated], text=True, timeout=60,
                              capture_output=True, env=environment)

    def ask(self, command, script="lift"):
        """Its exit code and what it said, line by line."""
        ended = self.run([*command.split(), "--json"], script)
        return ended.returncode, [json.loads(line) for line in ended.stdout.splitlines()]


def command_shapes():
    """Every command with its options, from the completion, which the option tree made."""
    text = (SOURCE / "packaging/completion/wrxctl.bash").read_text()
    rows = [line.strip() for line in text.splitlines() if line.startswith('    ["')]
    return {row.split('"')[1]: row.split('"')[3].split() for row in rows}
