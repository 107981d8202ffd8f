# SPDX-License-Identifier: LGPL-2.1-or-later
"""Do the tests bite? Makes small changes in the driver, one at a time, and has the tests find them.
A change is caught when a test fails or does not end, or a static_assert does not hold; one that does
not compile for another reason, or to the same machine code, counts for nothing. Of the survivors,
harmless.txt says why nobody could see them. Fails when less than 90 of 100 are caught, or a survivor
is not in that list.

Every worker builds changed drivers, as a shared library, in a copy of the tree of its own. The tests
were built once, with the driver unchanged: no change of a header reaches them.
"""

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
from collections import Counter, namedtuple
from concurrent.futures import ThreadPoolExecutor
from itertools import groupby
from pathlib import Path

import changes

SOURCE = Path(__file__).resolve().parents[2]
BUILD = Path("build", "mutate")
ROOMS = ("base", "records", "transport", "protocol", "operations", "upgrade", "frame")
DRIVER = "wrx_driver_for_tests"
OTHERS = re.compile("(module|host|service)_")  # programs that tell nothing of the driver
QUICK = 0.4  # seconds; what takes longer is for survivors only
BOUND = 0.9


Test = namedtuple("Test", "program name seconds")  # of processor time on the unchanged driver


def output_of(*command, folder=None):
    done = subprocess.run(command, cwd=folder, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        raise SystemExit(done.stdout)
    return done.stdout


def failed(outcome):
    return [test.name for test, (verdict, _) in outcome.items() if verdict != "passed"]


class Worker:
    """Builds a changed driver, and runs tests on it."""

    def __init__(self, number):
        self.tree = SOURCE / BUILD / f"worker-{number}"
        self.build = self.tree / BUILD
        self.library = self.build / f"lib{DRIVER}.so"
        shutil.rmtree(self.tree, ignore_errors=True)
        shutil.copytree(SOURCE, self.tree, ignore=shutil.ignore_patterns("build", ".git"))
        output_of("cmake", "--preset", "mutate", "-DBUILD_TESTING=OFF", folder=self.tree)
        output_of("ninja", DRIVER, folder=self.build)
        self.unchanged = self.library.read_bytes()

    def make(self, mutant):
        """Nothing, or why there is nothing to try."""
        (self.tree / mutant.path).write_text(mutant.text)
        done = subprocess.run(["ninja", DRIVER], cwd=self.build, text=True, stdout=subprocess.PIPE)
        if done.returncode != 0:
            return "static_assert" if "static assertion failed" in done.stdout else "error"
        return "same" if self.library.read_bytes() == self.unchanged else None

    def run(self, tests, stop=False):
        """{test: (verdict, seconds)}; with `stop` up to the first that does not pass."""
        outcome = {}
        for program, cases in groupby(tests, lambda test: test.program):
            if not (stop and failed(outcome)):
                outcome |= self.run_program(program, list(cases), ["--gtest_fail_fast"] * stop)
        return outcome

    def run_program(self, program, cases, options):
        limits = [word for test in cases for word in (test.name, str(max(0.3, 10 * test.seconds)))]
        with tempfile.TemporaryDirectory(prefix="wrx-mutate-", dir="/dev/shm") as scratch:
            done = subprocess.run(
                [program, *options, *limits], cwd=scratch, text=True, stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                env={**os.environ, "LC_ALL": "C", "TMPDIR": scratch, "LD_LIBRARY_PATH": str(self.build)})
        lines = map(str.split, done.stdout.splitlines())
        outcome = {test: (verdict, float(seconds)) for test, (verdict, seconds) in zip(cases, lines)}
        if done.returncode != 0 and not failed(outcome):
            outcome[cases[len(outcome)]] = ("failed", 0.0)  # it did not even begin
        return outcome


def all_tests():
    """The cases of each program that looks at the driver, and the sweep's sample."""
    folder = SOURCE / BUILD / "tests"
    os.environ["PATH"] += f":{folder / 'sweep'}"
    for program in sorted(str(path).split("[")[0] for path in folder.glob("*_include.cmake")):
        cases, suite = [], ""
        for line in output_of(program, "--gtest_list_tests").splitlines():
            name = line.split("#")[0].strip()
            if line[0] != " ":
                suite = name
            elif suite and not OTHERS.match(Path(program).name):
                cases.append(Test(program, suite + name, 3.0))
        yield cases
    yield [Test(program, "sweep", 3.0)]


class Campaign:
    """Tries mutants. Of those that at most `fewest` quick tests catch, the slow ones are asked too, up
    to one more; with 0, no quick one is asked either once another has caught it."""

    def __init__(self, jobs, harmless, fewest):
        self.harmless, self.fewest = harmless, fewest
        self.hits = Counter()  # of a test, and of a test in a file
        programs = list(all_tests())
        self.workers = [Worker(number) for number in range(jobs)]
        measured = dict(item for outcome in self.each(Worker.run, programs) for item in outcome.items())
        if failed(measured):
            raise SystemExit("these tests fail without any change: " + ", ".join(failed(measured)))
        self.tests = [test._replace(seconds=seconds) for test, (_, seconds) in measured.items()]

    def each(self, work, items):
        """What `work(worker, item)` says of each; a worker that is free takes the next."""
        items = iter(items)
        with ThreadPoolExecutor(len(self.workers)) as pool:
            parts = pool.map(lambda worker: [work(worker, item) for item in items], self.workers)
            return [result for part in parts for result in part]

    def run(self, mutants):
        """[(mutant, verdict, names of the tests that catch it)]"""
        mutants = sorted(mutants, key=lambda mutant: (mutant.path, mutant.line))
        files = [list(of_one) for _, of_one in groupby(mutants, lambda mutant: mutant.path)]
        parts = self.each(self.judge_all, sorted(files, key=len, reverse=True))
        return [result for part in parts for result in part]

    def judge_all(self, worker, mutants):
        """One file's mutants in turn: each is compiled over the one before."""
        results = [self.judge(worker, mutant) for mutant in mutants]
        shutil.copy(SOURCE / mutants[0].path, worker.tree / mutants[0].path)
        return results

    def judge(self, worker, mutant):
        verdict, by, known = worker.make(mutant), [], mutant.key in self.harmless
        if verdict is None:
            by = failed(worker.run(self.likely_first(mutant, slow=False), stop=self.fewest == 0))
            if len(by) <= self.fewest and (by or not known):
                by += failed(worker.run(self.likely_first(mutant, slow=True), stop=self.fewest == len(by)))
            verdict = "caught" if by else "harmless" if known else "open"
        self.hits.update(by + [(mutant.path, name) for name in by])
        print(mutant.id, f"{mutant.path}:{mutant.line}", verdict, *by[:1], file=sys.stderr, flush=True)
        return mutant, verdict, by

    def likely_first(self, mutant, slow):
        """Those first that caught others of the file, then those that caught any."""
        return sorted((test for test in self.tests if (test.seconds >= QUICK) == slow),
                      key=lambda test: (-self.hits[mutant.path, test.name], -self.hits[test.name], test))


def read_harmless():
    """{key of a mutant: reason}"""
    reasons = {}
    for block in Path(__file__).with_name("harmless.txt").read_text().split("\n\n")[1:]:
        head, old, new, reason = block.split("\n", 3)
        file, place, number = head.split()
        reasons[file, place, int(number), old.removeprefix("- "), new.removeprefix("+ ")] = reason
    return reasons


def table(results):
    """Says how many of each room were caught. Whether they are enough."""
    rows = ("caught", "static_assert", "harmless", "open")
    print(f"\n{'room':12}{'mutants':>8}" + "".join(f"{row:>14}" for row in rows))
    for room in [*ROOMS, ""]:
        count = Counter(verdict for mutant, verdict, _ in results if mutant.path.startswith(room))
        total = sum(count[row] for row in rows)
        print(f"{room or 'all':12}{total:8}" + "".join(f"{count[row]:14}" for row in rows))
    caught = count["caught"] + count["static_assert"]
    print(f"\n{caught} of {total} caught ({100 * caught / max(total, 1):.1f} %). {count['error']} more did "
          f"not compile, {count['same']} changed no machine code.")
    return caught >= BOUND * total and not count["open"]


def write_kill_list(path, results, tests):
    """Which tests catch which mutants, and what each alone catches."""
    rows = sorted(({"test": test.name, "program": Path(test.program).name, "seconds": test.seconds,
                    "catches": [mutant.id for mutant, _, by in results if test.name in by],
                    "alone": [mutant.id for mutant, _, by in results if by == [test.name]]}
                   for test in tests), key=lambda row: (len(row["alone"]), len(row["catches"])))
    print("\nalone catches seconds test")
    for row in rows:
        print(f"{len(row['alone']):5}{len(row['catches']):8}{row['seconds']:8.2f} {row['test']}")
    mutants = [{"id": mutant.id, "path": mutant.path, "line": mutant.line, "change": mutant.key,
                "verdict": verdict, "by": by} for mutant, verdict, by in results]
    Path(path).write_text(json.dumps({"tests": rows, "mutants": mutants}, indent=1) + "\n")


def options():
    parser = argparse.ArgumentParser(prog="./dev mutate", description=__doc__.split("\n\n")[0])
    parser.add_argument("--sample", type=int, default=300, metavar="N", help="mutants to try (300); 0: all")
    parser.add_argument("--seed", type=int, default=1, help="which sample (1)")
    parser.add_argument("--only", default="", metavar="WHAT", help="of files whose path has WHAT in it, or by id")
    parser.add_argument("--kills", metavar="FILE", help="write which tests catch which; the slow ones "
                        "are asked about what at most one other catches")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="mutants at a time")
    return parser.parse_args()


def main():
    chosen, harmless = options(), read_harmless()
    known = [mutant for room in ROOMS for path in sorted((SOURCE / room).glob("*.[ch]*"))
             for mutant in changes.mutants(f"{room}/{path.name}", path.read_text())]
    for key in harmless.keys() - {mutant.key for mutant in known}:
        print("harmless.txt: no such change any more:", *key)
    # The order depends on each mutant alone: a change of one file leaves the sample of the others.
    mutants = sorted((mutant for mutant in known if chosen.only in mutant.path or chosen.only == mutant.id),
                     key=lambda mutant: changes.digest(f"{chosen.seed} {mutant.id}"))[:chosen.sample or None]
    campaign = Campaign(chosen.jobs, harmless, fewest=1 if chosen.kills else 0)
    results = campaign.run(mutants)
    for mutant, verdict, by in results:
        if verdict == "open" or chosen.only == mutant.id:
            print(f"\n{mutant.path}:{mutant.line} {verdict} ({mutant.id})", *by)
            print("{} {} {}\n- {}\n+ {}".format(*mutant.key))
        elif verdict != "harmless" and mutant.key in harmless:
            print(f"harmless.txt: {mutant.path}:{mutant.line} is {verdict}", *by)
    if chosen.kills:
        write_kill_list(chosen.kills, results, campaign.tests)
    return table(results)


if __name__ == "__main__":
    sys.exit(0 if main() else 1)
