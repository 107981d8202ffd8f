# SPDX-License-Identifier: LGPL-2.1-or-later
"""The bench of the service's tests: a private system bus, wrxd on the simulated module, clients."""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time

import dbus
import dbus.bus
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

BUILD = os.environ["WRX_BUILD"]
SOURCE = os.environ["WRX_SOURCE"]
NAME = "net.reactivated.Fprint"
MANAGER = "/net/reactivated/Fprint/Manager"
DEVICE = "/net/reactivated/Fprint/Device/0"
ERROR = NAME + ".Error."

# A module that loses no time, so that tests are about the service.
QUICK = "; ".join(
    [f"set {name}-time 1ms" for name in ("capture", "feature", "step", "merge", "search")]
    + ["set press-gap 1ms", "set empty-read at-once"]
)

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><listen>unix:path={0}/bus</listen><auth>EXTERNAL</auth><servicedir>{0}</servicedir>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>
<allow receive_sender="*"/></policy></busconfig>"""

DBusGMainLoop(set_as_default=True)


def until(true, seconds=5.0, what="condition"):
    """Waits for `true()` while signals are delivered; its value."""
    end = time.monotonic() + seconds
    context = GLib.MainContext.default()
    while True:
        while context.iteration(False):
            pass
        if value := true():
            return value
        if time.monotonic() > end:
            raise AssertionError(f"{what} did not come within {seconds} s")
        time.sleep(0.002)


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
        return plain(
            self.bus.call_blocking(
                NAME, path, interface, method, "s" * len(words), words, timeout=20
            )
        )

    def refused(self, method, *words):
        """The name of the error that answers the call."""
        try:
            self.call(method, *words)
        except dbus.DBusException as error:
            return error.get_dbus_name().removeprefix(ERROR)
        return None

    def answer(self, seconds=5.0):
        """The word of the next final status; what was heard before it is forgotten."""

        def found():
            return next((n for n, heard in enumerate(self.heard) if heard[-1] is True), None)

        until(lambda: found() is not None, seconds, "an answer")
        position = found()
        word = self.heard[position][1]
        del self.heard[: position + 1]
        return word

    def property(self, name):
        return self.call("Get", NAME + ".Device", name, interface=dbus.PROPERTIES_IFACE)

    def leave(self):
        self.bus.close()


def plain(value):
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (list, tuple)):
        return [plain(each) for each in value]
    return str(value) if isinstance(value, str) else value


class Bench:
    """One bus with one service; ends with its `with`."""

    def __init__(self, script=QUICK, options=(), activated=False, mocks=(), more=(), leaves=0):
        """`more`: of the service's environment. `leaves`: differences between slots and records
        that the case is known to leave behind."""
        self.folder = tempfile.mkdtemp(prefix="wrxd-test-")
        os.chmod(self.folder, 0o755)
        self.address = f"unix:path={self.folder}/bus"
        self.env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.address, LC_ALL="C")
        self.sleep_file = self.folder + "/sleeps"
        self.service_env = dict(self.env, WRX_SLEEPS=self.sleep_file, **dict(more))
        self.state = self.folder + "/state"
        self.command = [BUILD + "/bin/wrxd", "--plugin", BUILD + "/lib/wrx5300-scratch.so"]
        self.command += ["--state", self.state, "--simulate", script]
        self.command += ["--simulate-control", self.folder + "/control"]
        self.command += options or ("--idle-exit", "0")
        self.leaves = leaves
        self.started = []
        self.clients = []
        self.service = None
        try:
            self._bus()
            for mock in mocks:
                self._mock(mock)
            if not activated:
                self.start()
        except BaseException:
            self._end()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for client in self.clients:
            with contextlib.suppress(Exception):
                client.leave()
        try:
            if self.service is not None:
                self.stop()
        finally:
            self._end()

    def _end(self):
        for process in filter(None, (self.service, *reversed(self.started))):
            process.kill()
            process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    # ---- processes

    def _run(self, command, **more):
        process = subprocess.Popen(command, env=self.env, **more)
        self.started.append(process)
        return process

    def _bus(self):
        with open(self.folder + "/bus.conf", "w", encoding="utf-8") as file:
            file.write(BUS_CONFIG.format(self.folder))
        with open(self.folder + "/wrxd.service", "w", encoding="utf-8") as file:
            words = " ".join(f'"{word}"' for word in self.command)
            file.write(f"[D-BUS Service]\nName={NAME}\nExec={words}\n")
        self.daemon = self._run(
            ["dbus-daemon", f"--config-file={self.folder}/bus.conf", "--nofork", "--nopidfile"]
            + ["--print-address"],
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
        )
        assert self.daemon.stdout.readline(), "the bus did not come up"
        self.watcher = dbus.bus.BusConnection(self.address)

    def _mock(self, template):
        self._run(
            [sys.executable, "-m", "dbusmock", "--system", "--template", template],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        name = {"polkitd": "org.freedesktop.PolicyKit1", "logind": "org.freedesktop.login1"}
        until(lambda: self.watcher.name_has_owner(name[template]), 10, template)

    def start(self):
        self.out = open(self.folder + "/out", "ab")
        self.err = open(self.folder + "/err", "ab")
        self.service = subprocess.Popen(
            self.command, env=self.service_env, stdout=self.out, stderr=self.err
        )
        until(lambda: self.watcher.name_has_owner(NAME), 20, "the service")
        self.client().call("GetDevices", path=MANAGER, interface=NAME + ".Manager")

    def stop(self):
        """Ends the service and looks that it ended well and said nothing."""
        service, self.service = self.service, None
        service.terminate()
        code = service.wait(20)
        noise = open(self.folder + "/out", "rb").read()
        errors = open(self.folder + "/err", "rb").read().decode()
        assert code == 0, f"the service ended with {code}: {errors}"
        assert noise == b"", f"the service wrote on its standard output: {noise[:200]}"
        assert "Sanitizer" not in errors, errors
        if os.path.exists(self.state + "/simulated.db"):
            self._check()

    def _check(self):
        """Lets wrxctl compare slots and records, and repair what is known to differ."""
        state = self.state + "/"
        command = [BUILD + "/bin/wrxctl", "fsck", "--simulate", QUICK, "--json"]
        command += ["--db", state + "simulated.db", "--templates", state + "simulated-module"]
        command += ["--plugin", BUILD + "/lib/wrx5300-scratch.so", "--trace", state + "fsck.log"]
        code, text = self.tool(*command)
        assert code == (1 if self.leaves else 0), text
        if self.leaves:
            assert self.tool(*command, "--repair")[0] == 0
            code, text = self.tool(*command)
            assert code == 0, text

    def client(self):
        self.clients.append(Client(self.address))
        return self.clients[-1]

    def tool(self, *command, seconds=30, user=None):
        """Runs a program; its exit code and output. `user`: a numeric id."""
        if user is not None:
            command = ("setpriv", f"--reuid={user}", "--clear-groups", *command)
        done = subprocess.run(
            command,
            env=self.env,
            timeout=seconds,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            check=False,
        )
        return done.returncode, done.stdout.decode()

    # ---- the module and what is stored

    def ask(self, request):
        with socket.socket(socket.AF_UNIX) as peer:
            peer.connect(self.folder + "/control")
            peer.sendall(request.encode())
            peer.shutdown(socket.SHUT_WR)
            return b"".join(iter(lambda: peer.recv(4096), b"")).decode()

    def play(self, script):
        answer = self.ask("play\n" + script)
        assert answer == "ok\n", answer

    def report(self):
        return json.loads(self.ask("report\n"))

    def records(self):
        """Stored fingers: {(uid, index): slot}."""
        with contextlib.closing(sqlite3.connect(self.state + "/simulated.db", 5)) as db:
            return {(uid, index): no for uid, index, no in db.execute(RECORDS)}

    def forget(self, uid, index):
        """Deletes a record behind the service's back."""
        with contextlib.closing(sqlite3.connect(self.state + "/simulated.db", 5)) as db:
            db.execute("pragma foreign_keys = on")
            db.execute("delete from features where uid = ? and idx = ?", (uid, index))
            db.commit()

    def agree(self, orphans=()):
        """Slots and records agree, but for slots that the case is known to leave."""
        slots = {each["slot"] for each in self.report()["slots"]}
        stored = set(self.records().values())
        assert slots == stored | set(orphans), f"slots {slots}, records {stored}"

    def enrol(self, finger, name, client=None, user=""):
        """Enrols `finger` (the simulated one) under `name`."""
        own = client or self.client()
        own.call("Claim", user)
        self.play(f"press {finger} x13")
        own.call("EnrollStart", name)
        assert (word := own.answer(10)) == "enroll-completed", word
        own.call("EnrollStop")
        own.call("Release")

    def begin(self, client, *call):
        """Makes a call that starts a wait, and sees the wait begin on the wire: a finger that comes
        now is this wait's."""
        begun = self.waits()
        client.call(*call)
        until(lambda: self.waits() > begun, what="the wait")

    def waits(self):
        """How many waits for a finger have begun."""
        return len(re.findall("bio_drv_demo_ops_(?:verify|search|enroll) start", self.trace()))

    def usage(self):
        """Threads and descriptors of the service."""
        process = f"/proc/{self.service.pid}"
        return len(os.listdir(process + "/task")), len(os.listdir(process + "/fd"))

    def sleeps(self):
        """Every sleep of the service so far: (whose, microseconds)."""
        with open(self.sleep_file, encoding="utf-8") as file:
            return [(line.split()[0], int(line.split()[1])) for line in file]

    def trace(self):
        with open(self.state + "/trace.log", encoding="utf-8", errors="replace") as file:
            return file.read()


RECORDS = (
    "select uid, idx, no from features join samples on feature = features.id order by uid, idx"
)
