// SPDX-License-Identifier: LGPL-2.1-or-later
// The USB bus through the same library that the driver uses, be it the machine's or the simulated
// module's, so that both look at one bus.
#pragma once

#include <string>
#include <vector>

#include "host/common/plugin_host.h"

namespace wrx::client {

/// A module on the bus, in either of its identities.
struct SeenModule {
  int vendor = 0, product = 0;
  int bus = 0, address = 0;
  std::string description;  ///< as the driver's table has it
  bool bootloader = false;
  int opened = 0;   ///< 0, or libusb's error
  int claimed = 0;  ///< interface 0: 0, or libusb's error; tried only when it could be opened

  std::string id() const;
  /// The device node: "/dev/bus/usb/001/005".
  std::string node() const;
};

struct SeenBus {
  int devices = 0;  ///< of any kind; negative: libusb's error
  std::vector<SeenModule> modules;
};

/// Lists the bus, and tries each module's door without asking it anything. On the worker thread,
/// while the driver has it closed. Throws host::Failure when the library cannot be reached.
SeenBus look_at_bus(const host::PluginHost& plugin);

/// Programs that hold a device node open, "wrxd (pid 812)"; of other users' only root sees all.
std::vector<std::string> holders(const std::string& node);

}  // namespace wrx::client
