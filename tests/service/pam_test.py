# SPDX-License-Identifier: LGPL-2.1-or-later
"""Logging in through PAM."""

from bench import until
from stage import LogIn


def test_the_right_finger_lets_in_though_a_log_in_is_killed_or_the_module_unplugged(bench, pam):
    bench.enrol("thumb", "right-thumb")
    killed = bench.begin(LogIn, bench, pam)
    killed.process.kill()
    killed.end()
    for presses in ("press thumb", "press toe; press thumb"):
        log_in = bench.begin(LogIn, bench, pam)
        bench.play(presses)
        assert log_in.end()[0]
    log_in = bench.begin(LogIn, bench, pam)
    bench.play("unplug")
    assert not log_in.end(3)[0]
    assert not LogIn(bench, pam).end()[0]
    bench.play("plug; press thumb")
    until(lambda: "right-thumb" in bench.tool("fprintd-list", "root")[1])
    assert LogIn(bench, pam).end()[0]


def test_a_wrong_finger_three_times_another_users_and_a_deleted_one_keep_out(bench, pam):
    bench.enrol("thumb", "right-thumb")
    bench.enrol("gone", "left-thumb")
    bench.enrol("other", "right-thumb", user="daemon")
    bench.forget(0, 0)
    bench.orphans = {21}
    for finger in ("toe", "other", "gone"):
        bench.play(f"press {finger} x3")
        let_in, text = LogIn(bench, pam).end()
        assert not let_in and text.count("Failed to match fingerprint") >= 2
    bench.play("press other")
    assert LogIn(bench, pam, "daemon").end()[0]
