# SPDX-License-Identifier: LGPL-2.1-or-later
"""The guest: an emulator, its serial console, its first screen and a root shell."""

import pathlib
import re
import shlex
import socket
import subprocess
import time

EMULATORS = {
    # TCG always: a machine that offers KVM to guests inside of it may hang them.
    "amd64": ("qemu-system-x86_64", "-machine", "q35", "-cpu", "max", "-accel", "tcg,thread=multi"),
    "arm64": ("qemu-system-aarch64", "-machine", "virt", "-cpu", "cortex-a57", "-accel", "tcg,thread=multi"),
}
CONSOLES = {"amd64": "ttyS0", "arm64": "ttyAMA0"}


class Failed(Exception):
    """What a scenario expected has not come."""


def until(seconds, what, holds):
    """What `holds` returns, as soon as that is true of it."""
    end = time.monotonic() + seconds
    while True:
        found = holds()
        if found:
            return found
        if time.monotonic() > end:
            raise Failed(f"waited {seconds} s in vain for {what() if callable(what) else what}")
        time.sleep(0.1)


class Line:
    """A serial line of the guest; all that came is kept in a file."""

    def __init__(self, path, log):
        self.socket = socket.socket(socket.AF_UNIX)
        until(10, f"the emulator's {path.name}", lambda: self.socket.connect_ex(str(path)) == 0)
        self.log = open(log, "wb", buffering=0)
        self.text = ""

    def send(self, text):
        self.socket.sendall(text.encode())

    def expect(self, pattern, seconds=30):
        """Waits for the pattern, and drops what came up to its end."""
        end = time.monotonic() + seconds
        while not (match := re.search(pattern, self.text, re.S)):
            self.socket.settimeout(max(0.01, end - time.monotonic()))
            try:
                data = self.socket.recv(65536)
            except TimeoutError:
                data = b""
            if not data:
                raise Failed(f"no {pattern!r} within {seconds} s, but: {self.text[-600:]!r}")
            self.log.write(data)
            self.text += data.decode(errors="replace").replace("\r", "")
        self.text = self.text[match.end():]
        return match


class Screen:
    """The guest's first virtual terminal, which belongs to the seat."""

    def __init__(self, machine):
        self.machine = machine

    def send(self, text):
        """Puts the text into the terminal as if it had been typed."""
        self.machine.run("perl -e 'open T, \"+<\", \"/dev/tty1\" or die; "
                         "ioctl(T, 0x5412, $_) or die $! for split //, $ARGV[0]' " + shlex.quote(text))

    def read(self):
        return self.machine.run("fold -w 80 /dev/vcs1")

    def expect(self, pattern, seconds=30):
        """Waits until the screen shows the pattern, and wipes it."""
        match = until(seconds, lambda: f"{pattern!r} on the screen: {self.read().strip()!r}",
                      lambda: re.search(pattern, self.read(), re.S))
        self.machine.run("printf '\\033[2J\\033[H' >/dev/tty1")
        return match


class Machine:
    """A guest from its image; what happens in it is forgotten with it."""

    def __init__(self, arch, image, disk, folder):
        self.folder = pathlib.Path(folder)
        self.marks = 0
        self.console_name = CONSOLES[arch]
        emulator = [*EMULATORS[arch], "-smp", "2", "-m", "1024", "-nodefaults", "-display", "none",
                    "-kernel", image / "kernel", "-initrd", image / "initramfs",
                    "-append", f"root=/dev/vda rw console={CONSOLES[arch]} quiet panic=-1 oops=panic",
                    "-drive", f"file={image / 'disk'},format=raw,if=virtio,snapshot=on,cache=unsafe",
                    "-drive", f"file={disk},format=raw,if=virtio,readonly=on",
                    "-chardev", f"socket,id=console,path={self.folder / 'console'},server=on,wait=off",
                    "-serial", "chardev:console", "-device", "virtio-serial",
                    "-chardev", f"socket,id=shell,path={self.folder / 'shell'},server=on,wait=off",
                    "-device", "virtconsole,chardev=shell"]
        self.process = subprocess.Popen(emulator, stdin=subprocess.DEVNULL)
        self.console = Line(self.folder / "console", self.folder / "console.log")
        self.shell = Line(self.folder / "shell", self.folder / "shell.log")
        self.screen = Screen(self)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def booted(self, seconds):
        """Waits for the log-in prompt and the root shell."""
        self.console.expect("machine login: ", seconds)
        end = time.monotonic() + seconds
        while True:  # the line is there before the one who reads it
            self.shell.send("echo ready-$((40 + 2))\n")
            try:
                self.shell.expect("ready-42\n", 2)
                break
            except Failed:
                if time.monotonic() > end:
                    raise
        self.shell.text = ""
        self.run("stty -F /dev/tty1 sane; export TERM=dumb DEBIAN_FRONTEND=noninteractive")

    def run(self, command, *, code=0, seconds=60):
        """Runs the command as root: what it wrote. Another exit code is a failure; None takes any."""
        self.marks += 1
        self.shell.send(f"eval {shlex.quote(command)} </dev/null 2>&1; echo \"<{self.marks}:$?>\"\n")
        end = self.shell.expect(rf"^(.*?)<{self.marks}:(\d+)>\n", seconds)
        if code is not None and int(end[2]) != code:
            raise Failed(f"{command}: exit code {end[2]}, not {code}: {end[1].strip()[-1500:]}")
        return end[1].strip()

    def holds(self, command):
        """Whether the command ends with 0."""
        return self.run(command + "\necho \":$?\"").endswith(":0")
