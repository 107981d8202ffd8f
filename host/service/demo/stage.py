# SPDX-License-Identifier: LGPL-2.1-or-later
"""A stage to log in on: a system bus of its own, wrxd there on a simulated module, a PAM service."""

import contextlib
import os
import re
import shutil
import socket
import subprocess
import tempfile
import time

import dbus.bus
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

BUILD = os.environ["WRX_BUILD"]
NAME = "net.reactivated.Fprint"
MANAGER = "/net/reactivated/Fprint/Manager"
BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><listen>unix:path={0}/bus</listen><auth>EXTERNAL</auth><servicedir>{0}</servicedir>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>
<allow receive_sender="*"/></policy></busconfig>"""

DBusGMainLoop(set_as_default=True)


def until(true, seconds=5.0, what="condition"):
    """Waits for `true()` while signals are delivered; its value."""
    end = time.monotonic() + seconds
    while True:
        while GLib.MainContext.default().iteration(False):
            pass
        if value := true():
            return value
        assert time.monotonic() < end, f"{what} did not come within {seconds} s"
        time.sleep(0.002)


class Stage:
    """One bus with one service; begins and ends with its `with`."""

    def __init__(self, script, options=("--idle-exit", "0"), more=()):
        """`script`: of the simulated module; None: the module is the machine's. `more`: of the
        service's environment."""
        self.folder = tempfile.mkdtemp(prefix="wrxd-stage-")
        os.chmod(self.folder, 0o755)
        self.address = f"unix:path={self.folder}/bus"
        self.env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.address, LC_ALL="C")
        self.service_env = dict(self.env, **dict(more))
        self.state = self.folder + "/state"
        self.command = [BUILD + "/bin/wrxd", "--plugin", BUILD + "/lib/wrx5300-scratch.so"]
        self.command += ["--state", self.state, *options]
        if script is not None:
            self.command += ["--simulate", script, "--simulate-control", self.folder + "/control"]
        self.started = []
        self.service = None

    def __enter__(self):
        try:
            self._bus()
            self.start()
        except BaseException:
            self._end()
            raise
        return self

    def __exit__(self, *_):
        self._end()

    def _end(self):
        for process in filter(None, (self.service, *reversed(self.started))):
            process.kill()
            process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def run(self, command, **more):
        """Starts a program that ends with the stage."""
        self.started.append(subprocess.Popen(command, env=self.env, **more))
        return self.started[-1]

    def _bus(self):
        with open(self.folder + "/bus.conf", "w", encoding="utf-8") as file:
            file.write(BUS_CONFIG.format(self.folder))
        with open(self.folder + "/wrxd.service", "w", encoding="utf-8") as file:
            words = " ".join(f'"{word}"' for word in self.command)
            file.write(f"[D-BUS Service]\nName={NAME}\nExec={words}\n")
        command = ["dbus-daemon", f"--config-file={self.folder}/bus.conf", "--nofork", "--nopidfile"]
        daemon = self.run(
            command + ["--print-address"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL
        )
        assert daemon.stdout.readline(), "the bus did not come up"
        self.watcher = dbus.bus.BusConnection(self.address)

    def start(self):
        with open(self.folder + "/out", "ab") as out, open(self.folder + "/err", "ab") as err:
            self.service = subprocess.Popen(
                self.command, env=self.service_env, stdout=out, stderr=err
            )
        until(self.is_there, 20, "the service")
        self.devices()

    def is_there(self):
        return self.watcher.name_has_owner(NAME)

    def devices(self):
        """The objects of the modules, asked for by a client of no account."""
        call = (NAME, MANAGER, NAME + ".Manager", "GetDevices", "", ())
        return [str(each) for each in self.watcher.call_blocking(*call, timeout=20)]

    def ask(self, request):
        """The simulated module's answer."""
        with socket.socket(socket.AF_UNIX) as peer:
            peer.connect(self.folder + "/control")
            peer.sendall(request.encode())
            peer.shutdown(socket.SHUT_WR)
            return b"".join(iter(lambda: peer.recv(4096), b"")).decode()

    def play(self, script):
        answer = self.ask("play\n" + script)
        assert answer == "ok\n", answer

    def trace(self):
        with open(self.state + "/trace.log", encoding="utf-8", errors="replace") as file:
            return file.read()

    def begin(self, call, *words):
        """Makes a call that starts a wait, and sees the wait begin on the wire: a finger that comes
        now is this wait's. What the call returns."""

        def waits():
            return len(re.findall("bio_drv_demo_ops_(?:verify|search|enroll) start", self.trace()))

        begun = waits()
        value = call(*words)
        until(lambda: waits() > begun, what="the wait")
        return value


@contextlib.contextmanager
def pam_service():
    """A PAM service that takes a finger and nothing else; its name."""
    name = f"wrxd-demo-{os.getpid()}"
    path = "/etc/pam.d/" + name
    with open(path, "w", encoding="utf-8") as file:
        file.write("auth required pam_fprintd.so max-tries=3 timeout=30\n")
    try:
        yield name
    finally:
        os.unlink(path)


class LogIn:
    """pamtester in the background."""

    def __init__(self, stage, service, user="root"):
        self.process = subprocess.Popen(
            ["pamtester", service, user, "authenticate"],
            env=stage.env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True,
        )

    def end(self, seconds=10):
        """Whether it let in; and what it said."""
        text, _ = self.process.communicate(timeout=seconds)
        return self.process.returncode == 0, text
