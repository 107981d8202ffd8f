# SPDX-License-Identifier: LGPL-2.1-or-later
"""A finger is enrolled and then logs its user in, through PAM; a strange one does not."""

import re
import subprocess
import sys

from stage import LogIn, Stage, pam_service

LIFELIKE = "set press-gap 200ms"
SENT = re.compile(r"send (PROT_CMD_\w+) command")
BYTES = re.compile(r"^((?:[0-9a-f]{2} )+)$")
MEANING = re.compile(r"(?:validity_check|capture|search)_result = .*\.$")
FOUND = re.compile(r"\] sample->no = (\d+)")


def title(text):
    print(f"\n== {text}")


def show(stage, *command):
    print("$", " ".join(command))
    subprocess.run(command, env=stage.env, check=True, timeout=60)


def log_in(stage, service, finger, touches, expected):
    log = stage.begin(LogIn, stage, service)
    print(f"$ pamtester {service} root authenticate\n   ({finger} touches the sensor)")
    stage.play(f"press {finger} x{touches}")
    let_in, text = log.end(20)
    print("   " + text.strip().replace("\n", "\n   "))
    if let_in is not expected:
        sys.exit("the demonstration went wrong")


def picture(trace):
    """The last search, as a ladder between driver and module."""
    lines = trace[trace.rindex("ops_search start") :].splitlines()
    left = 26
    print("driver".ljust(left), "module".rjust(24))
    for line in lines:
        if sent := SENT.search(line):
            word = sent[1].removeprefix("PROT_CMD_").lower()
            print(f"{word:<{left}} ────────────────▶")
        elif received := BYTES.match(line):
            print(" " * left, "◀────────────────", received[1].strip())
        elif meaning := MEANING.search(line):
            print(" " * left, " " * 16, "  " + meaning[0])
        elif found := FOUND.search(line):
            print(f"slot {found[1]} is the user's: a match")


def main():
    with Stage(LIFELIKE) as stage, pam_service() as service:
        title("Root enrols a thumb: one touch to see that it is new, and twelve more")
        stage.play("press thumb x13")
        show(stage, "fprintd-enroll", "-f", "right-thumb", "root")
        show(stage, "fprintd-list", "root")
        title("A stranger tries three times")
        log_in(stage, service, "stranger", 3, False)
        title("Root logs in with the thumb")
        log_in(stage, service, "thumb", 1, True)
        title("That log-in on the wire")
        picture(stage.trace())


main()
