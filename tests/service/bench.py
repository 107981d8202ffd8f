# SPDX-License-Identifier: LGPL-2.1-or-later
"""The bench of the service's tests: the stage of the demonstration, clients, and looks behind it."""

import contextlib
import json
import os
import sqlite3
import subprocess
import sys

import dbus
import dbus.bus
import pytest
from stage import BUILD, NAME, Stage, until

DEVICE = "/net/reactivated/Fprint/Device/0"
ERROR = NAME + ".Error."

# A module that loses no time, so that tests are about the service.
QUICK = "; ".join(
    [f"set {name}-time 1ms" for name in ("capture", "feature", "step", "merge", "search")]
    + ["set press-gap 1ms", "set empty-read at-once"]
)


def sanitized():
    """Sanitizers have sleeps of their own, and want to be loaded first."""
    with open(BUILD + "/CMakeCache.txt", encoding="utf-8") as cache:
        return any(l.startswith("WRX_SANITIZE:") and l.strip()[-1] != "=" for l in cache)


def with_options(**options):
    """Marks a case whose bench is made with these."""
    return pytest.mark.parametrize("bench", [options], indirect=True, ids=[""])


def plain(value):
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (list, tuple)):
        return [plain(each) for each in value]
    return str(value) if isinstance(value, str) else value


class Client:
    """A client of the service with a connection of its own."""

    def __init__(self, address):
        self.bus = dbus.bus.BusConnection(address)
        self.heard = []
        self.bus.add_signal_receiver(
            lambda *words, member: self.heard.append((member, *map(plain, words))),
            dbus_interface=NAME + ".Device",
            member_keyword="member",
        )

    def call(self, method, *words, path=DEVICE, interface=NAME + ".Device"):
        call = (NAME, path, interface, method, "s" * len(words), words)
        return plain(self.bus.call_blocking(*call, timeout=20))

    def refused(self, method, *words):
        """The name of the error that answers the call."""
        try:
            self.call(method, *words)
        except dbus.DBusException as error:
            return error.get_dbus_name().removeprefix(ERROR)
        return None

    def answer(self, seconds=5.0):
        """The word of the next final status; `selected` then has the fingers that were named before
        it, and it is forgotten."""
        final = until(lambda: next((h for h in self.heard if h[-1] is True), None), seconds, "an answer")
        before = self.heard.index(final)
        self.selected = [h[1] for h in self.heard[:before] if h[0] == "VerifyFingerSelected"]
        del self.heard[: before + 1]
        return final[1]

    def property(self, name):
        return self.call("Get", NAME + ".Device", name, interface=dbus.PROPERTIES_IFACE)


class Bench(Stage):
    """A stage that must end well, with slots and records that agree but for the slots in `orphans`."""

    def __init__(self, script=QUICK, options=("--idle-exit", "0"), mocks=(), preload="", more=()):
        if not sanitized():
            preload += f" {BUILD}/lib/libwrx-quick-time.so"
        super().__init__(script, options, dict(more, LD_PRELOAD=preload))
        self.env.pop("LD_PRELOAD", None)  # the mock of udev is the runner's alone
        self.service_env["WRX_SLEEPS"] = self.folder + "/sleeps"
        self.mocks = mocks
        self.clients = []
        self.orphans = set()

    def start(self):
        for mock in self.mocks:
            self.run(
                [sys.executable, "-m", "dbusmock", "--system", "--template", mock],
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
            )
            name = {"polkitd": "org.freedesktop.PolicyKit1", "logind": "org.freedesktop.login1"}[mock]
            until(lambda: self.watcher.name_has_owner(name), 10, mock)
        super().start()

    def __exit__(self, kind, *_):
        for client in self.clients:
            with contextlib.suppress(Exception):
                client.bus.close()
        try:
            if self.service is not None and kind is None:
                if "--simulate" in self.command:
                    self.agree()
                self.stop()
        finally:
            self._end()

    def stop(self):
        """Ends the service and looks that it ended well and said nothing."""
        service, self.service = self.service, None
        service.terminate()
        code = service.wait(20)
        with open(self.folder + "/out", "rb") as out, open(self.folder + "/err", "rb") as err:
            said, errors = out.read(), err.read()
        assert (code, said) == (0, b"") and b"Sanitizer" not in errors, errors.decode()

    def client(self, claimed=None):
        """A client; one that has claimed the reader for a user ("": its own)."""
        self.clients.append(Client(self.address))
        if claimed is not None:
            self.clients[-1].call("Claim", claimed)
        return self.clients[-1]

    def tool(self, *command, user=None):
        """Runs a program; its exit code and output. `user`: a numeric id."""
        groups = None if user is None else []
        done = subprocess.run(
            command, env=self.env, user=user, extra_groups=groups, timeout=30, text=True,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
        )
        return done.returncode, done.stdout

    def sleeps(self):
        """Every sleep of the service so far: (whose, microseconds)."""
        with open(self.folder + "/sleeps", encoding="utf-8") as file:
            return [(line.split()[0], int(line.split()[1])) for line in file]

    # ---- the module and what is stored

    def slots(self):
        return {each["slot"] for each in json.loads(self.ask("report\n"))["slots"]}

    def _database(self, *statements):
        with contextlib.closing(sqlite3.connect(self.state + "/simulated.db", 5)) as db, db:
            return [list(db.execute(statement)) for statement in statements]

    def records(self):
        """Stored fingers: {(uid, index): slot}."""
        if not os.path.exists(self.state + "/simulated.db"):
            return {}
        join = "select uid, idx, no from features join samples on feature = features.id"
        return {(uid, index): no for uid, index, no in self._database(join)[0]}

    def forget(self, uid, index):
        """Deletes a record behind the service's back."""
        where = f"where uid = {uid} and idx = {index}"
        self._database("pragma foreign_keys = on", "delete from features " + where)

    def agree(self):
        assert self.slots() == set(self.records().values()) | self.orphans

    # ---- what users do

    def enrol(self, finger, name, user=""):
        """Enrols `finger` (the simulated one) under `name`."""
        client = self.client(claimed=user)
        self.play(f"press {finger} x13")
        client.call("EnrollStart", name)
        assert client.answer(10) == "enroll-completed"
        client.call("EnrollStop")
        client.call("Release")

    def verify(self, client, asked, pressed):
        """What a verify says of the finger that is pressed."""
        self.play("press " + pressed)
        client.call("VerifyStart", asked)
        verdict = client.answer()
        client.call("VerifyStop")
        return verdict
