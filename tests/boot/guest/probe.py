# SPDX-License-Identifier: LGPL-2.1-or-later
"""Does once each what the service has no business with: probe.py PID. A line each, "done" or
"refused"; anywhere but in the service's sandbox, root gets all of it done."""

import ctypes
import mmap
import os
import pathlib
import socket
import sys
import time

libc = ctypes.CDLL(None, use_errno=True)
STATE = pathlib.Path("/var/lib/wrxd/probe")
NEW_NETWORK, SEIZE = 0x40000000, 0x4206


def call(name, *words):
    if getattr(libc, name)(*words) < 0:
        raise OSError(ctypes.get_errno(), name)


def write(path):
    """What the file holds already, or a new file that goes again."""
    file = pathlib.Path(path)
    if file.exists():
        return file.write_bytes(file.read_bytes())
    file.write_bytes(b"")
    return file.unlink()


def there(holds):
    if not holds:
        raise OSError(0, "not there")


def mount():
    call("mount", b"none", b"/mnt", b"tmpfs", 0, None)
    call("umount", b"/mnt")


STATE.write_bytes(b"")
other = int(sys.argv[1])
PROBES = {
    "write to /usr": lambda: write("/usr/probe"),
    "write to /etc": lambda: write("/etc/probe"),
    "write to /var": lambda: write("/var/lib/probe"),
    "look into /home": lambda: there(os.listdir("/home")),
    "see other processes": lambda: there(os.path.exists(f"/proc/{other}")),
    "trace another process": lambda: call("ptrace", SEIZE, other, None, None),
    "an internet socket": lambda: socket.socket(socket.AF_INET, socket.SOCK_STREAM),
    "a raw socket": lambda: socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP),
    "read the disk": lambda: open("/dev/vda", "rb").close(),
    "open a terminal": lambda: os.open("/dev/tty1", os.O_RDWR | os.O_NOCTTY),
    "read the kernel's log": lambda: open("/dev/kmsg", "rb").close(),
    "change a kernel setting": lambda: write("/proc/sys/kernel/printk"),
    "write to control groups": lambda: write("/sys/fs/cgroup/cgroup.max.depth"),
    "set the clock": lambda: time.clock_settime(time.CLOCK_REALTIME, time.time()),
    "set the host name": lambda: socket.sethostname(socket.gethostname()),
    "mount": mount,
    "a network namespace": lambda: call("unshare", NEW_NETWORK),
    "give a file away": lambda: os.chown(STATE, 1000, 1000),
    "a set-user-id file": lambda: os.chmod(STATE, 0o4755),
    "real-time scheduling": lambda: os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1)),
    "memory to write and run": lambda: mmap.mmap(-1, 4096, prot=7).close(),
}
for name, probe in PROBES.items():
    try:
        probe()
        print("done:", name)
    except OSError as error:
        print("refused:", name, error.strerror)
STATE.unlink()
