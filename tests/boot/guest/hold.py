# SPDX-License-Identifier: LGPL-2.1-or-later
"""A client that claims the reader and keeps it: hold.py USER [METHOD FINGER], as long as it lives."""

import signal
import sys

import dbus

NAME = "net.reactivated.Fprint"
bus = dbus.SystemBus()
manager = bus.get_object(NAME, "/net/reactivated/Fprint/Manager", introspect=False)
path = manager.GetDefaultDevice(dbus_interface=NAME + ".Manager")
device = dbus.Interface(bus.get_object(NAME, path, introspect=False), NAME + ".Device")
device.Claim(sys.argv[1])
if len(sys.argv) > 2:
    getattr(device, sys.argv[2])(sys.argv[3])
print("held", flush=True)
signal.pause()
