# SPDX-License-Identifier: LGPL-2.1-or-later
"""Run inside a mocked udev: starts the service, plugs and unplugs a module and a mouse."""

import subprocess
import sys
import time

import gi

gi.require_version("UMockdev", "1.0")
from gi.repository import UMockdev  # noqa: E402

state, *command = sys.argv[1:]


def trace():
    try:
        with open(state + "/trace.log", encoding="utf-8", errors="replace") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def await_line(line):
    end = time.monotonic() + 5
    while line not in trace():
        assert time.monotonic() < end, f"{line} did not come: {trace()[-500:]}"
        time.sleep(0.01)


def events():
    await_line("bio_drv_demo_ops_discover ret = 0")
    for name, product in (("mouse", "46d/c077/7200"), ("module", "4d2e/5300/100")):
        properties = ["DEVTYPE", "usb_device", "PRODUCT", product]
        # This announces the device, too.
        path = bed.add_device("usb", name, None, ["idVendor", "0000"], properties)
        if name == "module":
            await_line("usb dev attach.")
        bed.uevent(path, "remove")
    await_line("usb dev detach end.")


bed = UMockdev.Testbed.new()
service = subprocess.Popen(command)
try:
    events()
finally:
    service.terminate()
    code = service.wait(10)
sys.exit(code)
