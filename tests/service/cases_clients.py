# SPDX-License-Identifier: LGPL-2.1-or-later
"""Enrolment and verification, by Debian's own clients and by one of ours."""

from bench import Bench, until
from cases import registry

CASES, case = registry()
STAGE = "enroll-stage-passed"


def words(text, kind):
    """The verdicts that a client printed."""
    return [line.split()[2] for line in text.splitlines() if line.startswith(f"{kind} result:")]


@case("fprintd-enroll, -list, -verify and -delete do their work")
def whole_life():
    with Bench() as bench:
        bench.play("press thumb x13")
        code, text = bench.tool("fprintd-enroll", "-f", "right-thumb", "root")
        assert code == 0 and words(text, "Enroll") == [STAGE] * 12 + ["enroll-completed"], text
        bench.agree()
        code, text = bench.tool("fprintd-list", "root")
        assert code == 0 and "#0: right-thumb" in text and "(press)" in text, text
        for finger, verdict, right in (("thumb", "verify-match", 0), ("toe", "verify-no-match", 1)):
            bench.play(f"press {finger}")
            code, text = bench.tool("fprintd-verify", "-f", "right-thumb")
            assert (code, words(text, "Verify")) == (right, [verdict]), text
        code, text = bench.tool("fprintd-delete", "root", "-f", "right-thumb")
        assert code == 0 and not bench.records(), text
        bench.agree()


@case("a bad press becomes its retry word, and twelve good ones still count")
def bad_presses():
    rows = {
        "smudged": "enroll-retry-scan",
        "small": "enroll-finger-not-centered",
        "repeated": "enroll-remove-and-retry",
    }
    with Bench() as bench:
        presses = "; ".join(f"press thumb x2; press thumb {row}" for row in rows)
        bench.play(presses + "; press thumb x7")
        code, text = bench.tool("fprintd-enroll", "-f", "left-thumb", "root")
        heard = words(text, "Enroll")
        assert code == 0 and [w for w in heard if w in rows.values()] == list(rows.values()), text
        assert heard.count(STAGE) == 12 and heard[-1] == "enroll-completed", text
        # Good presses that the module reports together are told one by one.
        bench.play("set batch all; press index x13")
        code, text = bench.tool("fprintd-enroll", "-f", "left-index-finger", "root")
        heard = words(text, "Enroll")
        assert code == 0 and heard.count(STAGE) == 12 and heard[-1] == "enroll-completed", text
        bench.agree()


@case("a finger or a name that is enrolled is a duplicate, and nothing stored is lost")
def duplicates():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        before = bench.records()
        code, text = bench.tool("fprintd-enroll", "-f", "left-thumb", "root")
        assert words(text, "Enroll") == ["enroll-duplicate"] and code != 0, text
        bench.play("press thumb")
        code, text = bench.tool("fprintd-enroll", "-f", "right-thumb", "root")
        assert words(text, "Enroll") == ["enroll-duplicate"] and code != 0, text
        assert bench.records() == before
        bench.agree()


@case("\"any\" tells which finger it was, and another user's finger is none of them")
def any_finger():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        bench.enrol("index", "right-index-finger")
        bench.enrol("other", "left-thumb", user="daemon")
        client = bench.client()
        client.call("Claim", "")
        rows = (
            ("any", "index", "right-index-finger", "verify-match"),
            ("any", "other", None, "verify-no-match"),
            ("any", "toe", None, "verify-no-match"),
            ("left-thumb", "index", None, "verify-no-match"),
            ("left-thumb", "other", None, "verify-no-match"),
            ("left-thumb", "thumb", None, "verify-match"),
        )
        for asked, pressed, told, verdict in rows:
            client.heard.clear()
            bench.play("press " + pressed)
            client.call("VerifyStart", asked)
            until(lambda: any(each[-1] is True for each in client.heard))
            selected = [each[1] for each in client.heard if each[0] == "VerifyFingerSelected"]
            assert selected == [asked] + ([told] if told else []), (asked, pressed, selected)
            assert client.answer() == verdict, (asked, pressed)
            client.call("VerifyStop")


@case("a finger whose record was deleted keeps out, and the next enrolment frees its slot")
def record_deleted():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        bench.enrol("index", "left-index-finger")
        bench.forget(0, 0)
        client = bench.client()
        client.call("Claim", "")
        for asked in ("any", "left-index-finger"):
            bench.play("press thumb")
            client.call("VerifyStart", asked)
            assert client.answer() == "verify-no-match"
            client.call("VerifyStop")
        assert client.refused("VerifyStart", "left-thumb") == "NoEnrolledPrints"
        bench.agree(orphans=[20])
        client.call("Release")
        bench.enrol("ring", "left-ring-finger")
        bench.agree()


@case("a time-out of the driver is no answer; a stop ends the wait without one")
def timeouts():
    with Bench(options=("--idle-exit", "0", "--wait", "400")) as bench:
        bench.enrol("thumb", "left-thumb")
        client = bench.client()
        client.call("Claim", "")
        client.call("VerifyStart", "left-thumb")
        until(lambda: bench.trace().count("identify timeout.") >= 3, 10, "three time-outs")
        assert client.heard == [("VerifyFingerSelected", "left-thumb")], client.heard
        begun = bench.waits()
        until(lambda: bench.waits() > begun, what="the next wait")
        bench.play("press thumb")
        assert client.answer() == "verify-match"
        client.call("VerifyStop")
        client.call("VerifyStart", "any")
        client.call("VerifyStop")
        client.call("EnrollStart", "right-thumb")
        until(lambda: bench.trace().count("enroll timeout") >= 2, 10, "two time-outs")
        client.call("Release")
        assert not [each for each in client.heard if each[0] != "VerifyFingerSelected"]
        bench.agree()


@case("a twenty-first finger finds no room on the module, and nothing is lost", 60)
def full():
    with Bench() as bench:
        for user in ("root", "daemon"):
            for index, name in enumerate(NAMES):
                bench.enrol(f"{user}-{index}", name, user=user)
        bench.forget(0, 0)
        bench.enrol("root-0", "left-thumb")
        bench.agree()
        before = bench.records()
        assert len(before) == 20
        client = bench.client()
        client.call("Claim", "nobody")
        bench.play("press toe")
        client.call("EnrollStart", "left-thumb")
        assert client.answer(10) == "enroll-data-full"
        client.call("Release")
        assert bench.records() == before
        bench.agree()


NAMES = [
    f"{side}-{finger}"
    for side in ("left", "right")
    for finger in ("thumb", "index-finger", "middle-finger", "ring-finger", "little-finger")
]
