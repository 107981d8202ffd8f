# SPDX-License-Identifier: LGPL-2.1-or-later
"""Every command's JSON, good endings and bad, against the schema that programs rely on."""

import json
import sqlite3
import struct
import unittest
import zlib

import jsonschema

import support

THUMB = "press thumb x14"
# Command, what happens at the sensor, exit code; in order, on one home.
STEPS = [
    ("info", "lift", 0), ("discover", "lift", 0), ("init", "lift", 0), ("firmware", "lift", 0),
    ("doctor", "lift", 0), ("doctor", "unplug", 6), ("doctor", "refuse 31 1", 7),
    ("enroll --uid 7 --index 3 --name thumb", "press thumb x3; press thumb smudged; " + THUMB, 0),
    ("enroll --uid 7", THUMB, 5), ("verify --uid 7", "press thumb x9", 0),
    ("verify --uid 7", "press other x9", 1), ("verify --uid 8", "press thumb", 5),
    ("identify", "press thumb x9", 0), ("identify", "press other x9", 1), ("search", "press thumb x9", 0),
    ("search --timeout 200ms", "wait 9s", 4), ("list --uid all", "lift", 0),
    ("module handshake", "lift", 0), ("module handshake", "unplug", 6),
    ("module handshake", "refuse 53 19", 7), ("module serial", "lift", 0),
    ("module parameters", "lift", 0), ("module info-page", "lift", 0), ("module count", "lift", 0),
    ("module slots", "lift", 0), ("module image -o {home}/finger.png", "press thumb x9", 0),
    ("module image -o {home}/surface.pgm --now", "lift", 0),
    ("module image -o {home}/no.pgm --timeout 200ms", "lift", 4),
    ("module image -o {home}/no/where.pgm --now", "lift", 2),
    ("fsck", "lift", 0), ("fsck --templates {home}/exchanged", "lift", 1),
    ("fsck --db {home}/lost.db", "lift", 1), ("fsck", "refuse 31 1", 7),
    ("clean --uid 7 --all", "lift", 0), ("frob", "lift", 2), ("module frob", "lift", 2),
]


class EveryCommand(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        schema = json.loads((support.SOURCE / "docs/wrxctl.schema.json").read_text())
        jsonschema.Draft202012Validator.check_schema(schema)
        cls.schema = jsonschema.Draft202012Validator(schema)

    def test_SpeaksAsTheSchemaSays(self):
        client, heard = support.Client(), set()
        for step, script, code in STEPS:
            with self.subTest(step=step, script=script):
                ended, lines = client.ask(step.format(home=client.home.name), script)
                self.assertEqual(ended, code, lines)
                for line in lines:
                    self.schema.validate(line)
                self.assertNotIn("event", lines[-1])
                self.assertTrue(all("event" in line for line in lines[:-1]), lines)
                self.assertEqual(lines[-1]["exit_code"], code)
                heard.add(lines[-1]["command"])
        self.assertEqual(heard - {""}, set(support.command_shapes()))

    def test_AWrongWordIsNotTakenForARightOne(self):
        good = {"command": "module count", "outcome": "success", "exit_code": 0, "message": "",
                "count": 1}
        self.schema.validate(good)
        for change in ({"count": "1"}, {"outcome": "no-match"}, {"extra": 1}, {"command": "frob"},
                       {"message": None}, {"event": "note"}):
            self.assertFalse(self.schema.is_valid({**good, **change}), change)
        del good["count"]
        self.assertFalse(self.schema.is_valid(good))


class Repair(unittest.TestCase):
    """Slots and records after what a crash, a copied-back database or an exchange leaves."""

    def setUp(self):
        self.client = support.Client()
        for index, finger in enumerate(("thumb", "index", "middle")):
            code, lines = self.client.ask(f"enroll --uid 7 --index {index}",
                                          f"press {finger} x14")
            self.assertEqual((code, lines[-1]["slots"]), (0, [20 + index]))

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
                self.client.ask(f"verify --uid 7 --index {index}", f"press {finger} x9")[0], 0)

    def test_LeavesTwoRecordsOfOneSlotToTheUser(self):
        self.move_sample(22, 20)
        found = self.fsck("--repair")
        self.assertEqual([each["index"] for each in found["shared_records"]], [0, 2])
        self.assertEqual((found["orphan_slots"], found["left"]), ([22], 2))

    def test_DoesNothingToAModuleThatDoesNotTellItsSlots(self):
        self.assertEqual(self.client.ask("fsck --repair", "refuse 31 1")[0], 7)
        self.assertEqual(len(self.client.ask("list --uid 7")[1][-1]["fingers"]), 3)


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
        client = support.Client()
        picture, plain = client.at("finger.png"), client.at("finger.pgm")
        for path in (picture, plain):
            self.assertEqual(client.ask(f"module image -o {path}", "press thumb x9")[0], 0)
            self.assertEqual(path.stat().st_mode & 0o777, 0o600)
        pixels = plain.read_bytes()[-256 * 360:]
        rows = unfiltered(picture.read_bytes())
        self.assertEqual(rows, pixels)
        middle = pixels[180 * 256 + 64:180 * 256 + 192]
        self.assertGreater(sum((a < 128) != (b < 128) for a, b in zip(middle, middle[1:])), 10)
        self.assertEqual(set(pixels[:16]), {pixels[0]})


if __name__ == "__main__":
    unittest.main()
