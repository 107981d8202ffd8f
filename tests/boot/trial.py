# SPDX-License-Identifier: LGPL-2.1-or-later
"""Boots the machine and goes through the scenarios: trial.py ARCHITECTURE FOLDER [WORD...]"""

import os
import pathlib
import signal
import sys
import time

import machine
import scenarios


def try_out(guest, needed, name, scenario):
    """Whether it passed, and whether the next one can be tried."""
    since = time.monotonic()
    try:
        scenario(guest)
        print(f"PASS {name} ({time.monotonic() - since:.1f} s)", flush=True)
        return True, True
    except machine.Failed as failure:
        print(f"FAIL {name} ({time.monotonic() - since:.1f} s)\n     {failure}", flush=True)
    try:
        journal = guest.run("journalctl -b --no-pager -o short-monotonic")
        pathlib.Path(f"journal-{scenario.__name__}.log").write_text(journal, encoding="utf-8")
        lines = [line for line in journal.splitlines() if "vhci_hcd" not in line]
        print("     | " + "\n     | ".join(lines[-25:]), flush=True)
        if not needed:
            scenarios.start_over(guest)
        return False, not needed
    except machine.Failed as failure:
        print(f"     the others cannot go on: {failure}")
        return False, False


def main():
    arch, folder, *words = sys.argv[1:]
    if words and not any(word in name for word in words for _, name, _ in scenarios.SCENARIOS):
        sys.exit("no scenario has such a word in its name")
    os.chdir(folder + "/run")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # not without the emulator
    begun, passed, failed = time.monotonic(), 0, 0
    with machine.Machine(arch) as guest:
        guest.booted()
        print(f"     booted after {time.monotonic() - begun:.0f} s", flush=True)
        for needed, name, scenario in scenarios.SCENARIOS:
            if not needed and words and not any(word in name for word in words):
                continue
            good, go_on = try_out(guest, needed, name, scenario)
            passed, failed = passed + good, failed + (not good)
            if not go_on:
                break
    print(f"     {time.monotonic() - begun:.0f} s in all\n{passed} passed, {failed} failed")
    sys.exit(failed > 0)


if __name__ == "__main__":
    main()
