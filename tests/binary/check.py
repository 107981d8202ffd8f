#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""The shipped files from outside, of any machine: hardening, exported names, needed libraries.

    check.py FILE...    says what is wrong with each file; exit code 1 if anything is
"""

import pathlib
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).parent
PLUGIN = "wrx5300.so"
# Guards of branches and returns that the plug-in's own note asks the processor for.
GUARDS = {"AArch64": {"BTI", "PAC"}, "X86-64": {"IBT", "SHSTK"}}


class Elf:
    """What readelf tells about one file."""

    def __init__(self, path):
        self.name = re.sub(r"\.so\.[\d.]*$", ".so", path.name)
        text = subprocess.run(
            ["readelf", "-W", "--file-header", "--program-headers", "--dynamic", "--notes", path],
            check=True, capture_output=True, text=True, env={"LC_ALL": "C", "PATH": "/usr/bin:/bin"}).stdout
        symbols = subprocess.run(["readelf", "-W", "--dyn-syms", path], check=True, capture_output=True,
                                 text=True).stdout
        self.machine = re.search(r"Machine:.*?(AArch64|X86-64|\w+)$", text, re.M)[1]
        self.segments = {kind: flags.replace(" ", "") for kind, flags in re.findall(
            r"^  (\w+) +(?:0x\w+ ){5}([R W E]{3})", text, re.M)}
        self.tags = re.findall(r"^ 0x\w+ +\((\w+)\) +(.*)$", text, re.M)
        self.guards = set(re.findall(r"\w+", "".join(
            re.findall(r"(?:x86|AArch64) feature: ([\w, ]+)", text))))
        self.imported, self.exported = set(), set()
        for section, name in re.findall(r"(?:GLOBAL|WEAK) +DEFAULT +(\w+) ([^@\s]+)", symbols):
            (self.imported if section == "UND" else self.exported).add(name)

    def tag(self, name):
        return " ".join(value for tag, value in self.tags if tag == name)


def hardening(elf):
    """Every file's."""
    if "GNU_RELRO" not in elf.segments:
        yield "relocated data stays writable (no RELRO)"
    if "NOW" not in elf.tag("FLAGS_1"):
        yield "names are bound late, in a writable table (no BIND_NOW)"
    if elf.segments.get("GNU_STACK") != "RW":
        yield "the stack is executable"
    if any(set("WE") <= set(flags) for flags in elf.segments.values()):
        yield "memory is both writable and executable"
    if "TEXTREL" in elf.tag("FLAGS") or elf.tag("TEXTREL"):
        yield "code is relocated (TEXTREL)"
    if "INTERP" in elf.segments and "PIE" not in elf.tag("FLAGS_1"):
        yield "the program has a fixed address (no PIE)"
    if "__stack_chk_fail" not in elf.imported:
        yield "no stack protector"
    if not any(re.fullmatch(r"__(?!stack)\w+_chk", name) for name in elf.imported):
        yield "no call is fortified"
    for place in re.findall(r"\[([^]]*)\]", elf.tag("RUNPATH") + elf.tag("RPATH")):
        if not all(part.startswith("$ORIGIN") for part in place.split(":") if part):
            yield f"libraries are looked for in {place}"


def lists(elf):
    """Those of the files that the committed lists speak of."""
    for line in (HERE / "needed_libraries.txt").read_text().splitlines():
        name, *listed = line.split()
        # The loader is there in any case; on some machines it also holds the stack protector.
        needed = {library for library in re.findall(r"\[(.*?)\]", elf.tag("NEEDED"))
                  if not library.startswith("ld-linux")}
        if name == elf.name and needed != set(listed):
            yield f"needs {sorted(needed)}, listed are {sorted(listed)}"
    if elf.name != PLUGIN:
        return
    listed = set((HERE / "exported_names.txt").read_text().split())
    if listed != elf.exported:
        yield f"exports {sorted(elf.exported - listed)} too many, lacks {sorted(listed - elf.exported)}"
    missing = GUARDS.get(elf.machine, set()) - elf.guards
    if missing:
        yield f"does not ask for {sorted(missing)}"


def main(paths):
    wrong = 0
    for path in map(pathlib.Path, paths):
        elf = Elf(path)
        for complaint in [*hardening(elf), *lists(elf)]:
            print(f"{path}: {complaint}")
            wrong += 1
    return 1 if wrong or not paths else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
