# SPDX-License-Identifier: LGPL-2.1-or-later
"""What must survive."""

from bench import Bench
from cases import registry

CASES, case = registry()


@case("a damaged database begins nothing and costs no template")
def damaged():
    with Bench() as bench:
        bench.enrol("thumb", "left-thumb")
        slots = bench.report()["slots"]
        path = bench.state + "/simulated.db"
        good = open(path, "rb").read()
        with open(path, "wb") as file:
            file.write(b"no database" * 500)
        client = bench.client()
        client.call("Claim", "")
        for call in (("EnrollStart", "right-thumb"), ("VerifyStart", "any"), ("DeleteEnrolledFingers2",)):
            assert client.refused(*call) == "Internal", call
        client.call("Release")
        with open(path, "wb") as file:
            file.write(good)
        assert bench.report()["slots"] == slots
        bench.agree()


@case("a deletion that the module refuses keeps the records that go with its templates")
def refused_deletion():
    with Bench() as bench:
        for number, name in enumerate(("left-thumb", "left-index-finger")):
            bench.enrol(f"finger{number}", name)
        client = bench.client()
        client.call("Claim", "")
        bench.play("refuse 12 1")  # the command that erases templates
        error = client.refused("DeleteEnrolledFinger", "left-thumb")
        assert error == "PrintsNotDeletedFromDevice", error
        assert len(bench.records()) == 2
        bench.agree()
        bench.play("unplug")
        assert client.refused("DeleteEnrolledFingers2") is not None
        bench.play("plug")
        bench.agree()
