# SPDX-License-Identifier: LGPL-2.1-or-later
"""wrxctl as users and programs meet it: every command's exit code and JSON, good endings and bad,
against the schema that programs rely on."""

import gettext
import json
import re
import sqlite3
import subprocess

import jsonschema
import PIL.Image
import pytest
from conftest import BUILD, SOURCE

SCHEMA = jsonschema.Draft202012Validator(
    json.loads((SOURCE / "docs/wrxctl.schema.json").read_text()))
DONE, NO_MATCH, USAGE, STOPPED, TIMED_OUT, REFUSED, ABSENT, FAILED = range(8)
THUMB = "press thumb x16"  # a busy machine may lose the first to the driver's start
# Command, what happens at the sensor, exit code; in order, each life on a home of its own.
LIVES = {
    "AFinger": [
        ("enroll --uid 7 --index 3 --name thumb", "press thumb x3; press thumb smudged; " + THUMB, 0),
        ("enroll --uid 7", THUMB, REFUSED), ("enroll --uid 7 --index 3", "press other x9", REFUSED),
        ("enroll --uid 7", "refuse 31 0; press other x9", FAILED),
        ("enroll --uid 7", "press other x9; unplug after 100 transfers", ABSENT),
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
        ("verify --index 0 --timeout 500ms", "wait 200ms; unplug", ABSENT),
        ("identify --timeout 900ms", "wait 200ms; unplug", ABSENT),
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


@pytest.mark.parametrize("life", LIVES)
def test_every_command_ends_as_the_schema_says_in_the_life_of(client, life):
    (client.home / "off.conf").write_text("[wrx5300]\nEnable=false\n")
    damaged = client.home / "damaged.db"
    damaged.write_text("x" * 9000)
    for step, script, code in LIVES[life]:
        ended, lines = client.ask(step.format(home=client.home), script)
        for line in lines:
            SCHEMA.validate(line)
        assert (ended, lines[-1].get("exit_code")) == (code, code), (step, script, lines)
        assert ["event" in line for line in lines] == [True] * (len(lines) - 1) + [False]
        assert "damaged" not in step or "damaged.db" in lines[-1]["message"]
    assert damaged.read_text() == "x" * 9000


def test_every_command_has_its_good_ending_among_the_lives():
    tried = " ".join(step for steps in LIVES.values() for step, _, code in steps if code == DONE)
    completion = (SOURCE / "packaging/completion/wrxctl.bash").read_text()
    for command in re.findall(r'^    \["(.+?)"', completion, re.M):
        assert command in tried


def test_the_schema_takes_no_wrong_word_for_a_right_one():
    good = {"command": "module count", "outcome": "success", "exit_code": 0, "message": "", "count": 1}
    SCHEMA.validate(good)
    for change in ({"count": "1"}, {"outcome": "no-match"}, {"extra": 1}, {"command": "frob"},
                   {"message": None}, {"event": "note"}):
        assert not SCHEMA.is_valid({**good, **change}), change
    del good["count"]
    assert not SCHEMA.is_valid(good)


def test_people_are_told_in_words(client):
    assert client.run(["enroll", "--index", "-3"], "")[0] == USAGE
    assert "no finger came in time" in client.run(["verify", "--help"], "")[1]


@pytest.mark.skipif(not (BUILD / "share/locale").exists(), reason="no catalogues were built")
def test_people_are_told_in_their_language_with_every_placeholder_in_its_place(client):
    for language, found in (("zh_CN", "找到 TRV WRX5300。\n"), ("", "Found TRV WRX5300.\n")):
        assert client.run(["discover"], language=language) == (DONE, found)
    text = client.run(["enroll"], "press thumb x16", "en")[1]
    assert "Enrolment begins; touch the sensor." in text
    for language in ("zh_CN", "en"):
        catalogue = gettext.translation("wrx5300", BUILD / "share/locale", [language])._catalog
        for original, words in list(catalogue.items())[1:]:  # the first is the head
            original = original if isinstance(original, str) else original[0]
            marks = [sorted(re.findall(r"{.*?}|%[%ds]", re.sub(r"{\d(?=[:}])", "{", text)))
                     for text in (original, words)]
            assert marks[0] == marks[1], original


def test_the_drivers_words_go_to_the_trace_only_which_is_its_owners(client):
    trace = client.home / "trace.log"
    trace.touch(0o644)
    code, lines = client.ask(f"discover --trace {trace}")
    assert (code, len(lines)) == (DONE, 1)
    assert "wrx7700_ops_discover" in trace.read_text()
    assert trace.stat().st_mode & 0o777 == 0o600


@pytest.mark.parametrize("command, streams, code", [
    ("info", ">/dev/full", FAILED), ("info", ">&-", DONE), ("frob", "2>/dev/full", USAGE),
    ("frob", "2>&-", USAGE)])
def test_it_ends_in_order_where_its_words_cannot_be_written(command, streams, code):
    line = f'"$0" {command} --trace /dev/null {streams}'
    assert subprocess.run(["sh", "-c", line, BUILD / "bin/wrxctl"], check=False).returncode == code


def test_every_press_is_told_and_a_search_names_the_one_finger_on_the_sensor(client):
    _, lines = client.ask("enroll --uid 7 --index 0", "press x5; press smudged; press x11")
    assert lines[-1]["slots"] == [20]
    events = [line["event"] for line in lines[:-1]]
    # Begin, a line a press, the bad one.
    assert (events.count("progress"), events.count("notify")) == (12, 1 + 12 + 1)
    assert client.ask("enroll --uid 8 --index 0", "press index x16")[0] == DONE
    _, lines = client.ask("search", "press index x9")
    assert [(each["uid"], each["slots"]) for each in lines[-1]["fingers"]] == [(8, [21])]


def test_ctrl_c_ends_it(client):
    for command in ("verify --uid 1000 --index 0", "identify", "search", "enroll"):
        code, lines = client.interrupt(command, "lift", ["touch the sensor"])
        assert (code, lines[-1]["outcome"]) == (STOPPED, "stopped"), lines
        assert lines[-1]["message"] != "left at once"
    # The driver's start cannot be stopped, and a module that lets reads run out of time makes
    # it take seconds. On a busy machine the first request may come before it has begun.
    code, lines = client.interrupt("init", "set empty-read times-out", ["Starting", "Stopping"])
    assert code == STOPPED
    assert lines[-1]["message"] in ("left at once", "stopped before the operation began")


@pytest.fixture
def three(client):
    """A client whose user 7 has three fingers, in slots 20 to 22."""
    for index, finger in enumerate(("thumb", "index", "middle")):
        code, lines = client.ask(f"enroll --uid 7 --index {index}", f"press {finger} x16")
        assert (code, lines[-1]["slots"]) == (DONE, [20 + index])
    return client


def move_sample(client, slot, to):
    with sqlite3.connect(client.home / "DATA/wrx5300/simulated.db") as database:
        database.execute("UPDATE samples SET no = ? WHERE no = ?", (to, slot))


def test_fsck_looks_without_touching_and_then_removes_only_what_has_no_other_side(three):
    move_sample(three, 21, 30)
    for more, left in (("", 2), ("", 2), ("--repair", 0), ("", 0)):
        found = three.ask(f"fsck {more}")[1][-1]
        assert found["left"] == left, found
        if more:
            assert found["orphan_slots"] == [21]
            assert [each["index"] for each in found["lost_records"]] == [1]
    assert three.ask("module slots")[1][-1]["taken"] == [20, 22]
    for index, finger in ((0, "thumb"), (2, "middle")):
        assert three.ask(f"verify --uid 7 --index {index}", f"press {finger} x9")[0] == DONE


def test_fsck_leaves_to_the_user_what_has_two_sides_and_a_silent_module_alone(three):
    assert three.ask("fsck --repair", "refuse 31 1")[0] == FAILED
    assert len(three.ask("list --uid 7")[1][-1]["fingers"]) == 3
    move_sample(three, 22, 20)
    found = three.ask("fsck --repair")[1][-1]
    assert [each["index"] for each in found["shared_records"]] == [0, 2]
    assert (found["orphan_slots"], found["left"]) == ([22], 2)


def test_a_picture_shows_ridges_on_a_bare_surface_and_is_its_owners_alone(client):
    pictures = []
    for name in ("finger.png", "finger.pgm"):
        path = client.home / name
        path.touch(0o644)
        assert client.ask(f"module image -o {path}", "press thumb x9")[0] == DONE
        assert path.stat().st_mode & 0o777 == 0o600
        pictures.append(PIL.Image.open(path))
    png, pgm = pictures
    assert (png.size, png.tobytes()) == ((256, 360), pgm.tobytes())
    middle = pgm.tobytes()[180 * 256 + 64:180 * 256 + 192]
    assert sum((a < 128) != (b < 128) for a, b in zip(middle, middle[1:])) > 10
    assert len(set(pgm.tobytes()[:16])) == 1
