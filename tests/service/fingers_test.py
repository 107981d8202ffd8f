# SPDX-License-Identifier: LGPL-2.1-or-later
"""Fingers enrolled, verified and deleted, by Debian's own clients and by one of ours; what is stored."""

import time

import pytest
from bench import QUICK, sanitized, until, with_options

STAGE = "enroll-stage-passed"
NAMES = [
    f"{side}-{finger}"
    for side in ("left", "right")
    for finger in ("thumb", "index-finger", "middle-finger", "ring-finger", "little-finger")
]


def run(bench, verb, *words):
    """Runs one of Debian's clients: exit code, verdicts, text."""
    code, text = bench.tool("fprintd-" + verb, *words)
    kind = f"{verb.capitalize()} result:"
    return code, [l.split()[2] for l in text.splitlines() if l.startswith(kind)], text


def test_debians_clients_do_their_work(bench):
    bench.play("press thumb x13")
    code, told, _ = run(bench, "enroll", "-f", "right-thumb", "root")
    assert (code, told) == (0, [STAGE] * 12 + ["enroll-completed"])
    bench.agree()
    code, _, text = run(bench, "list", "root")
    assert code == 0 and "#0: right-thumb" in text and "(press)" in text
    for finger, verdict, right in (("thumb", "verify-match", 0), ("toe", "verify-no-match", 1)):
        bench.play(f"press {finger}")
        assert run(bench, "verify", "-f", "right-thumb")[:2] == (right, [verdict])
    # A name or a finger that is enrolled is a duplicate.
    assert run(bench, "enroll", "-f", "right-thumb", "root")[:2] == (1, ["enroll-duplicate"])
    bench.play("press thumb")
    assert run(bench, "enroll", "-f", "left-thumb", "root")[:2] == (1, ["enroll-duplicate"])
    assert bench.records() == {(0, 5): 20}
    assert run(bench, "delete", "root", "-f", "right-thumb")[0] == 0 and not bench.records()


def test_a_bad_press_becomes_its_retry_word_and_twelve_good_ones_still_count(bench):
    rows = {
        "smudged": "enroll-retry-scan",
        "small": "enroll-finger-not-centered",
        "repeated": "enroll-remove-and-retry",
    }
    presses = "; ".join(f"press thumb x2; press thumb {row}" for row in rows)
    bench.play(presses + "; press thumb x7")
    code, told, _ = run(bench, "enroll", "-f", "left-thumb", "root")
    assert code == 0 and [word for word in told if word in rows.values()] == [*rows.values()]
    assert told.count(STAGE) == 12 and told[-1] == "enroll-completed"
    # Good presses that the module reports together are told one by one.
    bench.play("set batch all; press index x13")
    code, told, _ = run(bench, "enroll", "-f", "left-index-finger", "root")
    assert code == 0 and told.count(STAGE) == 12 and told[-1] == "enroll-completed"


def test_a_verify_tells_which_finger_it_was_and_others_fingers_are_none(bench):
    for finger, name, user in (("thumb", "left-thumb", ""), ("index", "right-index-finger", ""),
                               ("gone", "left-ring-finger", ""), ("other", "left-thumb", "daemon")):
        bench.enrol(finger, name, user)
    bench.forget(0, 3)
    bench.orphans = {22}
    client = bench.client(claimed="")
    rows = (
        ("any", "index", ["right-index-finger"], "verify-match"),
        ("any", "other", [], "verify-no-match"),
        ("any", "toe", [], "verify-no-match"),
        ("any", "gone", [], "verify-no-match"),
        ("left-thumb", "index", [], "verify-no-match"),
        ("left-thumb", "other", [], "verify-no-match"),
        ("left-thumb", "gone", [], "verify-no-match"),
        ("left-thumb", "thumb", [], "verify-match"),
    )
    for asked, pressed, found, verdict in rows:
        assert bench.verify(client, asked, pressed) == verdict, (asked, pressed)
        assert client.selected == [asked] + found, (asked, pressed)
    assert client.refused("VerifyStart", "left-ring-finger") == "NoEnrolledPrints"
    client.call("Release")
    bench.enrol("ring", "left-ring-finger")  # which frees the forgotten slot
    bench.orphans = set()


@with_options(options=("--idle-exit", "0", "--wait", "150"))
def test_a_time_out_of_the_driver_is_no_answer_and_a_stop_ends_the_wait_without_one(bench):
    bench.enrol("thumb", "left-thumb")
    client = bench.client(claimed="")
    client.call("VerifyStart", "left-thumb")
    until(lambda: bench.trace().count("identify timeout.") >= 3, 10, "three time-outs")
    assert client.heard == [("VerifyFingerSelected", "left-thumb")]
    bench.play("press thumb")
    assert client.answer() == "verify-match"
    client.call("VerifyStop")
    client.call("VerifyStart", "any")
    client.call("VerifyStop")
    client.call("EnrollStart", "right-thumb")
    until(lambda: bench.trace().count("enroll timeout") >= 2, 10, "two time-outs")
    client.call("Release")
    assert {each[0] for each in client.heard} <= {"VerifyFingerSelected"}


def test_a_twenty_first_finger_finds_no_room_and_nothing_is_lost(bench):
    for user in ("root", "daemon"):
        for index, name in enumerate(NAMES):
            bench.enrol(f"{user}-{index}", name, user)
    bench.forget(0, 0)
    bench.enrol("root-0", "left-thumb")
    before = bench.records()
    assert len(before) == 20
    client = bench.client(claimed="nobody")
    bench.play("press toe")
    client.call("EnrollStart", "left-thumb")
    assert client.answer(10) == "enroll-data-full"
    assert bench.records() == before


def test_a_damaged_database_or_a_refused_deletion_costs_no_template_and_no_record(bench):
    for name in ("left-thumb", "left-index-finger"):
        bench.enrol(name, name)
    before = bench.slots(), bench.records()
    path = bench.state + "/simulated.db"
    with open(path, "rb") as file:
        good = file.read()
    client = bench.client(claimed="")
    for content, error in ((b"no database" * 500, "Internal"), (good, None)):
        with open(path, "wb") as file:
            file.write(content)
        calls = (("EnrollStart", "right-thumb"), ("VerifyStart", "any"), ("DeleteEnrolledFingers2",))
        for call in calls if error else ():
            assert client.refused(*call) == error, call
    bench.play("refuse 12 1")  # the command that erases templates
    assert client.refused("DeleteEnrolledFinger", "left-thumb") == "PrintsNotDeletedFromDevice"
    bench.play("unplug")
    assert client.refused("DeleteEnrolledFingers2") is not None
    bench.play("plug")
    assert (bench.slots(), bench.records()) == before


# Nothing but the driver takes time here.
INSTANT = QUICK.replace("1ms", "0ms") + "; set response-delay 0ms; set in-cost 0ms; set out-cost 0ms"


@pytest.mark.skipif(sanitized(), reason="a sanitizer has its own sleeps")
@with_options(script=INSTANT + "; set capture-report off")
def test_from_touch_to_match_the_service_waits_for_nothing_but_the_drivers_40_ms(bench):
    bench.enrol("thumb", "left-thumb")
    client = bench.client(claimed="")
    costs = []
    while len(costs) < 4 or min(costs) > 0.03:  # on a busy machine it takes some until one is quick
        assert len(costs) < 100, costs
        before, begun = len(bench.sleeps()), time.monotonic()
        asked = ("left-thumb", "any")[len(costs) % 2]
        assert bench.verify(client, asked, "thumb") == "verify-match"
        costs.append(time.monotonic() - begun)
        sleeps = bench.sleeps()[before:]
        assert {who for who, _ in sleeps} == {"wrx5300-scratch.so"}
        assert sum(us for _, us in sleeps) == 40_000
