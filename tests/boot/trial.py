# SPDX-License-Identifier: LGPL-2.1-or-later
"""Boots the machine and goes through the scenarios: trial.py ARCHITECTURE IMAGE PACKAGES [WORD...]"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
import time

import machine
import scenarios

HERE = pathlib.Path(__file__).parent


def newer(package, folder, work):
    """The same package as a later version."""
    tree = work / package.stem
    subprocess.run(["dpkg-deb", "-R", package, tree], check=True)
    control = tree / "DEBIAN" / "control"
    text = control.read_text()
    version = re.search(r"^Version: (.*)$", text, re.M)[1]
    text = text.replace(f"Version: {version}\n", f"Version: {version}+next\n")
    control.write_text(text.replace(f"(= {version})", f"(= {version}+next)"))
    subprocess.run(["dpkg-deb", "--root-owner-group", "-Znone", "-b", tree, folder / package.name],
                   check=True, stdout=subprocess.DEVNULL)


def make_disk(arch, packages, path):
    """A disk that is a tar file: our packages, a later version of them, and the guest's programs."""
    found = [deb for kind in (arch, "all") for deb in packages.glob(f"*_{kind}.deb") if "-dbgsym_" not in deb.name]
    with tempfile.TemporaryDirectory() as folder:
        work = pathlib.Path(folder)
        (work / "newer").mkdir()
        with tarfile.open(path, "w") as disk:
            for deb in found:
                newer(deb, work / "newer", work)
                disk.add(deb, f"packages/{deb.name}")
            disk.add(work / "newer", "newer")
            for program in HERE.glob("guest/*.py"):
                disk.add(program, program.name)


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
    arch, image, packages, *words = sys.argv[1:]
    image, begun = pathlib.Path(image), time.monotonic()
    folder = image / "run"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    os.chdir(folder)
    make_disk(arch, pathlib.Path(packages), folder / "packages.tar")
    passed = failed = 0
    with machine.Machine(arch, image, folder / "packages.tar") as guest:
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
