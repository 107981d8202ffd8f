# SPDX-License-Identifier: LGPL-2.1-or-later
"""The bench of the mutants: a copy of the tree, built once, and one changed driver after the other.

A mutant costs the compilation of what its file reaches and one link: the tests are linked with the
driver as a shared library, of which every worker has a changed one in a folder of its own. The
tests stay as they were built, so that no change of a header reaches them.
"""

import hashlib
import json
import math
import os
import re
import resource
import shlex
import shutil
import signal
import subprocess
import tempfile
import threading
from dataclasses import dataclass
from pathlib import Path

LIBRARY = "libwrx_driver_for_tests.so"
# They look at the module or the framework alone, or at the shipped plug-in, which stays unchanged.
OTHERS = re.compile(r"(exports|host_\w+|module_\w+|usbip)_test")
QUICK = 0.4  # seconds; what takes longer is for survivors only,
SLOWEST = 10.0  # and what takes longer than this is left to ./dev test
ROOM_TESTS = {
    "protocol": r"parser|protocol|decode|procedures",
    "transport": r"transport|lifecycle",
    "operations": r"enroll|match|clean|slots|golden",
    "upgrade": r"bootloader|upgrade",
}


@dataclass(frozen=True)
class Test:
    command: tuple
    name: str
    seconds: float = 0.0  # of processor time

    @property
    def limit(self):
        """Seconds of processor time that it may take; on the clock, where it may have to wait for
        others, four times as many."""
        return math.ceil(max(3.0, 10 * self.seconds))


def update_copy(source, tree):
    """Makes `tree` the versioned files of `source`; what did not change keeps its time."""
    listed = subprocess.run(["git", "ls-files", "-zco", "--exclude-standard"], cwd=source, check=True,
                            stdout=subprocess.PIPE, text=True).stdout.split("\0")
    names = {name for name in listed if name and (source / name).is_file()}
    for name in names:
        old, new = tree / name, (source / name).read_bytes()
        if not old.is_file() or old.read_bytes() != new:
            old.parent.mkdir(parents=True, exist_ok=True)
            old.write_bytes(new)
            shutil.copymode(source / name, old)
    for old in (tree / "tests").glob("*_test.cpp"):
        if f"tests/{old.name}" not in names:
            old.unlink()


class Bench:
    def __init__(self, source, folder):
        self.tree = folder / "tree"
        self.build = self.tree / "build" / "mutate"
        self.folder = folder
        self.times = folder / "times.json"
        update_copy(source, self.tree)
        self.build_all()
        self.objects = self.compile_commands()
        self.link = self.link_command()
        self.includers = self.dependents()

    def build_all(self):
        ccache = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        programs = sorted(path.stem for path in (self.tree / "tests").glob("*_test.cpp")
                          if not OTHERS.fullmatch(path.stem))
        for command in (["cmake", "--preset", "mutate", *ccache],
                        ["cmake", "--build", "--preset", "mutate", "--target", *programs, "sweep"]):
            done = subprocess.run(command, cwd=self.tree, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True)
            if done.returncode != 0:
                raise SystemExit(done.stdout)
        self.programs = programs

    def compile_commands(self):
        """Of each source of the driver: its object and the command that makes it."""
        rows = json.loads((self.build / "compile_commands.json").read_text())
        made = ((row["file"], re.search(r" -o (\S+)", row["command"])[1], row["command"]) for row in rows)
        return {os.path.relpath(source, self.tree): (output, shlex.split(command))
                for source, output, command in made if "wrx_driver_for_tests.dir/" in output}

    def link_command(self):
        lines = subprocess.run(["ninja", "-t", "commands", "wrx_driver_for_tests"], cwd=self.build,
                               check=True, stdout=subprocess.PIPE, text=True).stdout.splitlines()
        return shlex.split(lines[-1].removeprefix(": && ").removesuffix(" && :"))

    def dependents(self):
        """Of each header: the driver's sources that see it."""
        listing = subprocess.run(["ninja", "-t", "deps"], cwd=self.build, check=True,
                                 stdout=subprocess.PIPE, text=True).stdout
        sources = {output: source for source, (output, _) in self.objects.items()}
        seen = {}
        for block in listing.split("\n\n"):
            target, _, rest = block.partition(":")
            if target.strip() in sources:
                for line in rest.splitlines()[1:]:
                    header = os.path.relpath(line.strip(), self.tree)
                    seen.setdefault(header, []).append(sources[target.strip()])
        return seen

    def known_tests(self):
        """The test cases that passed on this very driver before, with their times, and the others."""
        seconds = json.loads(self.times.read_text()) if self.times.exists() else {}
        tests = [(test, seconds.get(self.fingerprint(test))) for test in self.tests()]
        return ([Test(test.command, test.name, time) for test, time in tests if time is not None],
                [test for test, time in tests if time is None])

    def remember(self, tests):
        self.times.write_text(json.dumps({self.fingerprint(test): test.seconds for test in tests}))

    def fingerprint(self, test):
        content = [Path(path).read_bytes() for path in (test.command[0], self.build / LIBRARY)]
        return hashlib.sha1(b"".join(content) + test.name.encode()).hexdigest()

    def tests(self):
        """All test cases, and a sample of the sweep as the last."""
        found = []
        for program in self.programs:
            path = str(self.build / "tests" / program)
            listed = subprocess.run([path, "--gtest_list_tests"], check=True, text=True,
                                    stdout=subprocess.PIPE).stdout
            suite = ""
            for line in listed.splitlines():
                name = line.split("#")[0].rstrip()
                if not line.startswith(" "):
                    suite = name
                elif suite:
                    found.append(Test((path, f"--gtest_filter={suite}{name.strip()}"),
                                      suite + name.strip()))
        sweep = str(self.build / "tests" / "sweep" / "sweep")
        return [*found, Test((sweep, "--sample", "--jobs", "1"), "sweep")]


class Worker:
    """Builds and tries one mutant at a time, in folders of its own."""

    def __init__(self, bench, number):
        self.bench = bench
        self.folder = bench.folder / f"worker-{number}"
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        self.environment = {**os.environ, "LC_ALL": "C", "LD_LIBRARY_PATH": str(self.folder)}

    def make(self, mutant):
        """Builds the changed driver. Nothing, or "static_assert", or "error"."""
        bench = self.bench
        changed = self.folder / mutant.file
        changed.parent.mkdir(exist_ok=True)
        changed.write_text(mutant.text)
        link = bench.link.copy()
        link[link.index("-o") + 1] = str(self.folder / LIBRARY)
        try:
            sources = [mutant.file] if mutant.file in bench.objects else bench.includers.get(mutant.file, [])
            for number, source in enumerate(sources):
                output, command = bench.objects[source]
                words = command.copy()
                if source == mutant.file:
                    words[words.index(str(bench.tree / source))] = str(changed)
                made = str(self.folder / f"{number}.o")
                words[words.index("-o") + 1] = made
                # The changed header is found first. That a change leaves something unused is no catch.
                words += ["-w"]
                words.insert(2 if "ccache" in words[0] else 1, f"-I{self.folder}")
                done = subprocess.run(words, cwd=bench.build, env=self.environment, text=True,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
                if done.returncode != 0:
                    return "static_assert" if "static assertion failed" in done.stdout else "error"
                link[link.index(output)] = made
            done = subprocess.run(link, cwd=bench.build, env=self.environment,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            return None if done.returncode == 0 else "error"
        finally:
            changed.unlink()

    def run(self, test):
        """Runs a test in a process and a folder of its own. ("passed", "failed" or "timed out", and
        the seconds of processor time that it took.)"""
        with tempfile.TemporaryDirectory(prefix="wrx-mutate-") as scratch:
            process = subprocess.Popen(test.command, cwd=scratch, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                       env={**self.environment, "TMPDIR": scratch},
                                       start_new_session=True)
            resource.prlimit(process.pid, resource.RLIMIT_CPU, (test.limit, test.limit + 1))
            end = threading.Timer(4 * test.limit, kill_group, (process.pid,))
            end.start()
            _, status, used = os.wait4(process.pid, 0)
            end.cancel()
            kill_group(process.pid)  # what it may have left behind
            process.returncode = os.waitstatus_to_exitcode(status)
            if process.returncode in (-signal.SIGXCPU, -signal.SIGKILL):
                verdict = "timed out"
            else:
                verdict = "failed" if process.returncode else "passed"
            return verdict, used.ru_utime + used.ru_stime


def kill_group(leader):
    try:
        os.killpg(leader, signal.SIGKILL)
    except ProcessLookupError:
        pass


def limit_resources():
    """So that a mutant that never ends eats no memory. For all children."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (4 << 30, 4 << 30))


def timed(worker, test):
    """The test with the seconds it takes on the unchanged driver, and how that ended."""
    verdict, seconds = worker.run(Test(test.command, test.name, 30))
    return Test(test.command, test.name, seconds), verdict
