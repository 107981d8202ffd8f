# SPDX-License-Identifier: LGPL-2.1-or-later
"""The guest: an emulator, its serial console, its first screen and a root shell."""

import re
import shlex
import socket
import subprocess
import time

EMULATORS = {
    "amd64": ("qemu-system-x86_64", "-machine", "q35", "-cpu", "max"),
    "arm64": ("qemu-system-aarch64", "-machine", "virt", "-cpu", "cortex-a57"),
}
BOOT_LIMIT = 240  # seconds; a free machine needs a twelfth of it
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

    def __init__(self, name):
        self.socket = socket.socket(socket.AF_UNIX)
        until(10, f"the emulator's {name}", lambda: self.socket.connect_ex(name) == 0)
        self.log = open(name + ".log", "wb", buffering=0)
        self.text = ""

    def send(self, text):
        self.socket.sendall(text.encode())

    def forget(self):
        """Drops what came so far."""
        self.text = ""

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

    def forget(self):
        self.machine.run("printf '\\033[2J\\033[H' >/dev/tty1")

    def expect(self, pattern, seconds=30):
        """Waits until the screen shows the pattern, and wipes it."""
        until(seconds, lambda: f"{pattern!r} on the screen: {self.read()!r}",
              lambda: re.search(pattern, self.read(), re.S))
        self.forget()


class Machine:
    """A guest whose image lies in the folder above; what happens in it is forgotten with it. Its
    lines are sockets in the current folder, whose own path may be longer than a socket's."""

    def __init__(self, arch):
        self.marks = 0
        self.boot = ""
        self.console_name = CONSOLES[arch]
        # TCG always: a machine that offers KVM to guests inside of it may hang them.
        emulator = [*EMULATORS[arch], "-accel", "tcg,thread=multi", "-smp", "2", "-m", "1024",
                    "-nodefaults", "-display", "none", "-kernel", "../kernel", "-initrd", "../initramfs",
                    "-append", f"root=/dev/vda rw console={CONSOLES[arch]} quiet loglevel=1",
                    "-drive", "file=../disk,format=raw,if=virtio,snapshot=on,cache=unsafe",
                    "-drive", "file=disk.tar,format=raw,if=virtio,readonly=on",
                    "-chardev", "socket,id=console,path=console,server=on,wait=off",
                    "-serial", "chardev:console", "-device", "virtio-serial",
                    "-chardev", "socket,id=shell,path=shell,server=on,wait=off",
                    "-device", "virtconsole,chardev=shell"]
        self.process = subprocess.Popen(emulator, stdin=subprocess.DEVNULL)
        self.console, self.shell, self.screen = Line("console"), Line("shell"), Screen(self)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def booted(self):
        """Waits for the root shell of another boot than the last one, and for all that boots."""
        def anew():
            self.shell.forget()
            self.shell.send("echo boot=$(cat /proc/sys/kernel/random/boot_id)=\n")
            try:
                boot = self.shell.expect(r"boot=(\S{36})=\n", 3)[1]
            except Failed:
                return False
            changed, self.boot = boot != self.boot, boot
            return changed

        until(BOOT_LIMIT, "a root shell", anew)
        self.run("systemctl is-system-running --wait; stty -F /dev/tty1 sane; "
                 "mkdir /run/trial && tar -C /run/trial -xf /dev/vdb", seconds=BOOT_LIMIT)

    def _run(self, command, seconds=90):
        self.marks += 1
        self.shell.send(f"echo '<{self.marks}'; eval {shlex.quote(command)} </dev/null 2>&1; "
                        f"echo \":{self.marks}:$?>\"\n")
        end = self.shell.expect(rf"<{self.marks}\n(.*?):{self.marks}:(\d+)>\n", seconds)
        return end[1].strip(), int(end[2])

    def run(self, command, *, code=0, seconds=90):
        """Runs the command as root: what it wrote. Another exit code is a failure; None takes any."""
        text, got = self._run(command, seconds)
        if code not in (None, got):
            raise Failed(f"{command}: exit code {got}, not {code}: {text[-1500:]}")
        return text

    def holds(self, command):
        """Whether the command ends with 0."""
        return self._run(command)[1] == 0
