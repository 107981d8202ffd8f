# SPDX-License-Identifier: LGPL-2.1-or-later
"""wrxctl as users and programs meet it: every command's exit code and JSON, good endings and bad,
against the schema that programs rely on."""

import json
import sqlite3
import struct
import subprocess
import unittest
import zlib

import jsonschema

import support

DONE, NO_MATCH, USAGE, STOPPED, TIMED_OUT, REFUSED, ABSENT, FAILED = range(8)
THUMB = "press thumb x16"  # a busy machine may lose the first to the driver's start
# Command, what happens at the sensor, exit code; in order, each life on a home of its own.
LIVES = {
    "AFinger": [
        ("enroll --uid 7 --index 3 --name thumb", "press thumb x3; press thumb smudged; " + THUMB, 0),
        ("verify --uid 7", "press thumb x9", DONE),
        ("verify --uid 7", "press other x9", NO_MATCH),
        ("verify --uid 7 --index 4", "press thumb x9", NO_MATCH),
        ("verify --uid 7 --timeout 300ms", "wait 9s", TIMED_OUT),
        ("verify --uid 8", "press thumb x9", REFUSED),
        ("identify", "press thumb x9", DONE), ("identify", "press other x9", NO_MATCH),
        ("identify --uid 8", "press thumb x9", NO_MATCH),
        ("identify --timeout 300ms", "wait 9s", TIMED_OUT),
        ("search", "press thumb x9", DONE), ("search --range 0..2", "press thumb x9", NO_MATCH),
        ("search --range 3..", "press thumb x9", DONE),
        ("search --timeout 200ms", "wait 9s", TIMED_OUT), ("list --uid all", "lift", DONE),
        ("fsck", "lift", DONE), ("fsck --templates {home}/exchanged", "lift", NO_MATCH),
        ("fsck --db {home}/lost.db", "lift", NO_MATCH), ("fsck", "refuse 31 1", FAILED),
        ("clean --uid 7 --all", "lift", DONE), ("identify", "press thumb x9", NO_MATCH),
    ],
    "AFingerThatIsThereAlready": [
        ("enroll --uid 7 --index 3", THUMB, DONE), ("enroll --uid 7", THUMB, REFUSED),
        ("enroll --uid 7 --index 3", "press other x9", REFUSED),
        ("enroll --uid 7", "refuse 31 0; press other x9", FAILED),
        ("enroll --uid 7", "press other x9; unplug after 100 transfers", ABSENT),
    ],
    "TheModule": [
        ("info", "lift", DONE), ("discover", "lift", DONE), ("init", "lift", DONE),
        ("firmware", "lift", DONE), ("doctor", "lift", DONE), ("doctor", "unplug", ABSENT),
        ("doctor", "refuse 31 1", FAILED), ("module handshake", "lift", DONE),
        ("module handshake", "unplug", ABSENT), ("module handshake", "refuse 53 19", FAILED),
        ("module serial", "lift", DONE), ("module parameters", "lift", DONE),
        ("module info-page", "lift", DONE), ("module count", "lift", DONE),
        ("module slots", "lift", DONE), ("module image -o {home}/f.png", "press thumb x9", DONE),
        ("module image -o {home}/surface.pgm --now", "lift", DONE),
        ("module image -o {home}/no.pgm --timeout 200ms", "lift", TIMED_OUT),
        ("module image -o {home}/no/where.pgm --now", "lift", USAGE),
    ],
    "NoModuleOrADisabledDriver": [
        ("discover", "unplug", ABSENT), ("init", "unplug", ABSENT), ("enroll", "unplug", ABSENT),
        ("identify", "unplug", ABSENT), ("firmware", "unplug", ABSENT),
        ("verify --index 0 --timeout 500ms", "wait 600ms; unplug", ABSENT),
        ("identify --timeout 900ms", "wait 600ms; unplug", ABSENT),
        *((command + " --config {home}/off.conf", "press x9", REFUSED)
          for command in ("enroll", "search", "clean --all", "list")),
        ("info --config {home}/off.conf", "lift", DONE),
    ],
    "ADamagedDatabase": [
        (command + " --db {home}/damaged.db", "press x9", FAILED)
        for command in ("enroll", "verify", "identify", "search", "list", "clean --all")
    ],
    "ABadCommandLine": [
        (line, "", USAGE) for line in (
            "", "frob", "module frob", "enroll --index -3", "enroll --index 1..2",
            "enroll --uid all", "enroll --uid nobody-of-this-name", "verify --timeout 0",
            "verify --timeout 2h", "search --range 5..2", "search --range x",
            "search --index 1 --range 1..2", "clean", "clean --all --index 1", "list --name x",
            "enroll --name a\x1b[31m",
            "info --config /nonexistent", "info --trace /nonexistent/x/trace")
    ],
}


class EveryCommand(unittest.TestCase):
    schema = jsonschema.Draft202012Validator(
        json.loads((support.SOURCE / "docs/wrxctl.schema.json").read_text()))

    def live(self, steps):
        client = support.Client(self)
        client.at("off.conf").write_text("[wrx5300]\nEnable=false\n")
        client.at("damaged.db").write_text("x" * 9000)
        for step, script, code in steps:
            ended, lines = client.ask(step.format(home=client.home), script)
            self.assertEqual(ended, code, (step, script, lines))
            for line in lines:
                self.schema.validate(line)
            self.assertTrue(all("event" in line for line in lines[:-1]), lines)
            self.assertNotIn("event", lines[-1])
            self.assertEqual(lines[-1]["exit_code"], code)
            if "damaged" in step:
                self.assertIn("damaged.db", lines[-1]["message"])
        self.assertEqual(client.at("damaged.db").read_text(), "x" * 9000)

    def test_IsTried(self):
        tried = [step for steps in LIVES.values() for step, _, code in steps if code == DONE]
        for command in support.command_shapes():
            self.assertTrue(any(step.startswith(command) for step in tried), command)

    def test_AWrongWordIsNotTakenForARightOne(self):
        good = {"command": "module count", "outcome": "success", "exit_code": 0, "message": "",
                "count": 1}
        self.schema.validate(good)
        for change in ({"count": "1"}, {"outcome": "no-match"}, {"extra": 1}, {"command": "frob"},
                       {"message": None}, {"event": "note"}):
            self.assertFalse(self.schema.is_valid({**good, **change}), change)
        del good["count"]
        self.assertFalse(self.schema.is_valid(good))

    def test_HasAVoiceForPeople(self):
        client = support.Client(self)
        self.assertEqual(client.run(["enroll", "--index", "-3"], "")[0], USAGE)
        code, text = client.run(["verify", "--help"], "")
        self.assertEqual(code, DONE)
        self.assertIn("no finger came in time", text)

    def test_WritesTheDriversWordsToItsTraceOnly(self):
        client = support.Client(self)
        trace = client.at("trace.log")
        trace.touch(0o644)
        code, lines = client.ask(f"discover --trace {trace}")
        self.assertEqual((code, len(lines)), (DONE, 1))
        self.assertIn("wrx7700_ops_discover", trace.read_text())
        self.assertEqual(trace.stat().st_mode & 0o777, 0o600)

    def test_EndsInOrderWhereItsWordsCannotBeWritten(self):
        for command, streams, code in (("info", ">/dev/full", FAILED), ("info", ">&-", DONE),
                                       ("frob", "2>/dev/full", USAGE), ("frob", "2>&-", USAGE)):
            line = f'"$0" {command} --trace /dev/null {streams}'
            ended = subprocess.run(["sh", "-c", line, support.BUILD / "bin/wrxctl"],
                                   capture_output=True, check=False)
            self.assertEqual(ended.returncode, code, line)

    def test_TellsOfEveryPress(self):
        _, lines = support.Client(self).ask("enroll", "press x5; press smudged; press x11")
        self.assertEqual(lines[-1]["slots"], [20])
        events = [line["event"] for line in lines[:-1]]
        self.assertEqual(events.count("progress"), 12)
        self.assertEqual(events.count("notify"), 1 + 12 + 1)  # begin, a line a press, the bad one

    def test_SearchNamesTheFingerAloneThatIsOnTheSensor(self):
        client = support.Client(self)
        for user, finger in ((7, "thumb"), (8, "index")):
            self.assertEqual(client.ask(f"enroll --uid {user} --index 0", f"press {finger} x16")[0], 0)
        _, lines = client.ask("search", "press index x9")
        self.assertEqual([(each["uid"], each["slots"]) for each in lines[-1]["fingers"]], [(8, [21])])

    def test_EndsWithCtrlC(self):
        for command in ("verify --uid 1000 --index 0", "identify", "search", "enroll"):
            code, lines = support.Client(self).interrupt(command, "lift", ["touch the sensor"])
            self.assertEqual((code, lines[-1]["outcome"]), (STOPPED, "stopped"), lines)
            self.assertNotEqual(lines[-1]["message"], "left at once")
        # The driver's start cannot be stopped, and a module that lets reads run out of time makes
        # it take seconds. On a busy machine the first request may come before it has begun.
        code, lines = support.Client(self).interrupt("init", "set empty-read times-out",
                                                     ["Starting", "Stopping"])
        self.assertEqual(code, STOPPED)
        self.assertIn(lines[-1]["message"], ("left at once", "stopped before the operation began"))


for life, life_steps in LIVES.items():
    setattr(EveryCommand, "test_" + life, lambda self, steps=life_steps: self.live(steps))


class Repair(unittest.TestCase):
    """Slots and records after what a crash, a copied-back database or an exchange leaves."""

    def setUp(self):
        self.client = support.Client(self)
        for index, finger in enumerate(("thumb", "index", "middle")):
            code, lines = self.client.ask(f"enroll --uid 7 --index {index}", f"press {finger} x16")
            self.assertEqual((code, lines[-1]["slots"]), (DONE, [20 + index]))

    def move_sample(self, slot, to):
        with sqlite3.connect(self.client.at("DATA/wrx5300/simulated.db")) as database:
            database.execute("UPDATE samples SET no = ? WHERE no = ?", (to, slot))

    def fsck(self, more=""):
        return self.client.ask(f"fsck {more}")[1][-1]

    def test_LooksWithoutTouchingAndThenRemovesOnlyWhatHasNoOtherSide(self):
        self.move_sample(21, 30)
        for more, left in (("", 2), ("", 2), ("--repair", 0), ("", 0)):
            found = self.fsck(more)
            self.assertEqual(found["left"], left, found)
            if more:
                self.assertEqual(found["orphan_slots"], [21])
                self.assertEqual([each["index"] for each in found["lost_records"]], [1])
        self.assertEqual(self.client.ask("module slots")[1][-1]["taken"], [20, 22])
        for index, finger in ((0, "thumb"), (2, "middle")):
            self.assertEqual(
                self.client.ask(f"verify --uid 7 --index {index}", f"press {finger} x9")[0], DONE)

    def test_LeavesToTheUserWhatHasTwoSidesAndASilentModuleAlone(self):
        self.assertEqual(self.client.ask("fsck --repair", "refuse 31 1")[0], FAILED)
        self.assertEqual(len(self.client.ask("list --uid 7")[1][-1]["fingers"]), 3)
        self.move_sample(22, 20)
        found = self.fsck("--repair")
        self.assertEqual([each["index"] for each in found["shared_records"]], [0, 2])
        self.assertEqual((found["orphan_slots"], found["left"]), ([22], 2))


def unfiltered(png):
    """The grey bytes of a PNG of 256 by 360."""
    assert struct.unpack(">II", png[16:24]) == (256, 360)
    at, packed = 8, b""
    while at < len(png):
        size, kind = struct.unpack(">I4s", png[at:at + 8])
        packed += png[at + 8:at + 8 + size] if kind == b"IDAT" else b""
        at += size + 12
    raw, above, grey = zlib.decompress(packed), bytes(257), b""
    for y in range(360):
        method, row = raw[y * 257], bytearray(raw[y * 257:(y + 1) * 257])
        row[0] = 0
        for x in range(1, 257):
            left, up, corner = row[x - 1] * (x > 1), above[x], above[x - 1] * (x > 1)
            paeth = min((left, up, corner), key=lambda one: abs(left + up - corner - one))
            row[x] = row[x] + (0, left, up, (left + up) // 2, paeth)[method] & 255
        above, grey = row, grey + row[1:]
    return grey


class Picture(unittest.TestCase):
    def test_ShowsRidgesOnABareSurfaceAndIsItsOwnersAlone(self):
        client = support.Client(self)
        picture, plain = client.at("finger.png"), client.at("finger.pgm")
        plain.touch(0o644)
        for path in (picture, plain):
            self.assertEqual(client.ask(f"module image -o {path}", "press thumb x9")[0], DONE)
            self.assertEqual(path.stat().st_mode & 0o777, 0o600)
        pixels = plain.read_bytes()[-256 * 360:]
        self.assertEqual(unfiltered(picture.read_bytes()), pixels)
        middle = pixels[180 * 256 + 64:180 * 256 + 192]
        self.assertGreater(sum((a < 128) != (b < 128) for a, b in zip(middle, middle[1:])), 10)
        self.assertEqual(set(pixels[:16]), {pixels[0]})


if __name__ == "__main__":
    support.main()
