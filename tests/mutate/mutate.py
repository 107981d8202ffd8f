# SPDX-License-Identifier: LGPL-2.1-or-later
"""Do the tests bite? Makes small changes in the driver, one at a time, and has the unit tests find
them. A change is caught when a test fails or does not end, or a static_assert does not hold; one
that does not compile for another reason counts for nothing. Of the survivors, harmless.txt says
why nobody could see them.

Fails when less than 90 of 100 are caught, or a survivor is not in that list.
"""

import argparse
import difflib
import hashlib
import os
import re
import sys
import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import changes
import trial

ROOMS = ("protocol", "transport", "operations", "upgrade")
BOUND = 0.9
HARMLESS = Path(__file__).with_name("harmless.txt")


def read_harmless(path):
    """{key of the mutant: reason}. An entry is a block: "file place number", "- line before",
    "+ line after", and the reason in the lines that follow."""
    reasons = {}
    for block in path.read_text().split("\n\n"):
        lines = [line for line in block.splitlines() if not line.startswith("#")]
        if not lines:
            continue
        file, place, number = (lines[0].split() + ["1"])[:3]
        assert lines[1].startswith("- ") and lines[2].startswith("+ ") and len(lines) > 3, block
        reasons[file, place, int(number), lines[1][2:], lines[2][2:]] = " ".join(lines[3:])
    return reasons


def ranked(mutants, seed):
    """An order that depends on each mutant alone: a change of one file leaves the others' sample."""
    return sorted(mutants, key=lambda m: hashlib.sha1(f"{seed} {m.id}".encode()).digest())


class Campaign:
    def __init__(self, bench, workers, harmless):
        self.harmless = harmless
        self.lock = threading.Lock()
        self.workers = [trial.Worker(bench, number) for number in range(workers)]
        self.free = list(self.workers)
        self.kills = []  # (file, line, test)
        self.done = 0
        self.quick, self.slow = self.measure(bench)

    def with_worker(self, work, *args):
        with self.lock:
            worker = self.free.pop()
        try:
            return work(worker, *args)
        finally:
            with self.lock:
                self.free.append(worker)

    def each(self, work, items):
        with ThreadPoolExecutor(len(self.workers)) as pool:
            return list(pool.map(lambda item: self.with_worker(work, item), items))

    def measure(self, bench):
        """Runs every test on the unchanged driver, and tells the quick from the slow."""
        known, new = bench.known_tests()
        measured = self.each(trial.timed, new)
        broken = [test.name for test, verdict in measured if verdict != "passed"]
        if broken:
            raise SystemExit("these tests fail without any change: " + ", ".join(broken))
        known = sorted([*known, *(test for test, _ in measured)], key=lambda test: test.seconds)
        bench.remember(known)
        return ([test for test in known if test.seconds < trial.QUICK],
                [test for test in known if trial.QUICK <= test.seconds < trial.SLOWEST])

    def likely_first(self, mutant):
        """The quick tests, those first that caught a neighbour, then those of the room."""
        room = re.compile(trial.ROOM_TESTS[mutant.file.split("/")[0]])
        with self.lock:
            near = Counter()
            for file, line, test in self.kills:
                near[test] += 1 / (1 + abs(line - mutant.line)) if file == mutant.file else 0.001
        return sorted(self.quick, key=lambda test: (
            -near[test.name], not room.search(test.command[0].rsplit("/", 1)[1])))

    def judge(self, worker, mutant):
        """(mutant, verdict, test) by the quick tests: "caught", "static_assert", "error" or
        "survived"."""
        return self.tried(worker, mutant, self.likely_first(mutant))

    def judge_again(self, worker, mutant):
        """The same by the slow ones."""
        return self.tried(worker, mutant, self.slow)

    def tried(self, worker, mutant, tests):
        verdict, by = worker.make(mutant), None
        if verdict is None:
            verdict = "survived"
            for test in tests:
                outcome, _ = worker.run(test)
                if outcome != "passed":
                    verdict, by = "caught", f"{test.name} {outcome}"
                    break
        with self.lock:
            if verdict == "caught":
                self.kills.append((mutant.file, mutant.line, test.name))
            self.done += 1
            print(f"{self.done:5} {mutant.id} {mutant.file}:{mutant.line} {verdict} {by or ''}",
                  file=sys.stderr, flush=True)
        return mutant, verdict, by

    def run(self, mutants):
        """Tries all; then again, with the slow tests, what survived and is not known as harmless."""
        results = self.each(self.judge, mutants)
        again = [m for m, verdict, _ in results if verdict == "survived" and m.key not in self.harmless]
        results = [r for r in results if r[0] not in again] + self.each(self.judge_again, again)
        return [(m, "harmless" if verdict == "survived" and m.key in self.harmless else verdict, by)
                for m, verdict, by in results]


def show(mutant, tree):
    original = (tree / mutant.file).read_text()
    print(f"{mutant.id}  {mutant.file}:{mutant.line}  {mutant.place} {mutant.number}")
    print(f"- {mutant.old}\n+ {mutant.new}")
    for line in list(difflib.unified_diff(original.splitlines(), mutant.text.splitlines(),
                                          mutant.file, "changed", n=2, lineterm=""))[2:]:
        print("    " + line)


def table(results):
    print(f"{'file':34}{'mutants':>8}{'caught':>8}{'compiler':>9}{'harmless':>9}{'open':>6}")
    total = Counter()
    for file in sorted({mutant.file for mutant, _, _ in results}) + ["all"]:
        count = Counter(v for m, v, _ in results if m.file == file) if file != "all" else total
        if file != "all":
            total += count
        all_of = sum(count.values()) - count["error"]
        print(f"{file:34}{all_of:8}{count['caught']:8}{count['static_assert']:9}"
              f"{count['harmless']:9}{count['survived']:6}")
    caught = total["caught"] + total["static_assert"]
    all_of = sum(total.values()) - total["error"]
    print(f"\n{caught} of {all_of} caught ({100 * caught / max(all_of, 1):.1f} %), "
          f"{total['static_assert']} of them by the compiler; {total['harmless']} harmless, "
          f"{total['survived']} open. {total['error']} more did not compile.")
    return caught >= BOUND * all_of and not total["survived"]


def options():
    parser = argparse.ArgumentParser(prog="./dev mutate", description=__doc__.split("\n\n")[0])
    parser.add_argument("--sample", type=int, default=300, metavar="N", help="mutants to try (300)")
    parser.add_argument("--all", action="store_true", help="try all, which takes hours")
    parser.add_argument("--seed", type=int, default=1, help="which sample (1)")
    parser.add_argument("--only", metavar="FILE", help="mutants of files whose name contains FILE")
    parser.add_argument("--show", metavar="ID", help="show the change of that name, and try it alone")
    parser.add_argument("--list", action="store_true", help="list the chosen mutants only")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="mutants at a time")
    return parser.parse_args()


def main():
    chosen = options()
    source = Path(__file__).resolve().parents[2]
    folder = source / "build" / "mutate"
    tree = folder / "tree"
    trial.update_copy(source, tree)
    known = [m for room in ROOMS for path in sorted((tree / room).glob("*.[ch]*"))
             for m in changes.mutants(f"{room}/{path.name}", path.read_text())]
    reasons = read_harmless(HARMLESS)
    for key in reasons.keys() - {m.key for m in known}:
        print("harmless.txt: no such change any more: " + " | ".join(map(str, key)))
    mutants = [m for m in known if (not chosen.only or chosen.only in m.file)
               and (not chosen.show or m.id == chosen.show)]
    if not chosen.all:
        mutants = ranked(mutants, chosen.seed)[:chosen.sample]
    if chosen.list:
        for m in mutants:
            print(m.id, *m.key, sep=" | ")
        return 0

    began = time.monotonic()
    trial.limit_resources()
    campaign = Campaign(trial.Bench(source, folder), chosen.jobs, reasons)
    results = campaign.run(mutants)
    for mutant, verdict, by in sorted(results, key=lambda r: (r[0].file, r[0].line)):
        if verdict == "survived" or chosen.show:
            print()
            show(mutant, tree)
            print(f"    {verdict} {by or ''}")
        elif verdict != "harmless" and mutant.key in reasons:
            print(f"harmless.txt: {mutant.id} {mutant.file}:{mutant.line} is {verdict} by {by}")
        elif verdict == "harmless":
            print(f"{mutant.id} {mutant.file}:{mutant.line} is harmless: {reasons[mutant.key]}")
    print()
    good = table(results)
    print(f"{time.monotonic() - began:.0f} s")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
