# SPDX-License-Identifier: LGPL-2.1-or-later
"""Runs the cases, a line each: verdict, time, bound, name."""

import signal
import sys
import time
import traceback
import unittest

import cases_clients
import cases_interface
import cases_lives
import cases_pam
import cases_store
import cases_time


def main(words):
    signal.signal(signal.SIGALRM, overrun)
    passed = failed = 0
    for module in (cases_interface, cases_clients, cases_store, cases_lives, cases_time, cases_pam):
        for name, (bound, test) in module.CASES.items():
            if words and not any(word in name for word in words):
                continue
            begun = time.monotonic()
            signal.alarm(bound)
            try:
                test()
                verdict, passed = "ok    ", passed + 1
            except unittest.SkipTest as why:
                verdict = f"skip   ({why})"
            except Exception:  # a case may fail in any way
                traceback.print_exc(file=sys.stdout)
                verdict, failed = "FAILED", failed + 1
            finally:
                signal.alarm(0)
            print(f"{verdict} {time.monotonic() - begun:6.2f} s of {bound:3} s  {name}")
    print(f"{passed} passed, {failed} failed")
    return 1 if failed or not passed else 0


def overrun(*_):
    raise TimeoutError("longer than its bound")


sys.exit(main(sys.argv[1:]))
