// SPDX-License-Identifier: LGPL-2.1-or-later
// Modules that come and go.
#pragma once

#include <functional>
#include <memory>

#include "host/common/simulation.h"
#include "host/service/outside/event_loop.h"
#include "libbiometric.h"

namespace wrx::service {

/// Called on the loop's thread; true: a module of the driver's has appeared, false: one has left.
using Plugged = std::function<void(bool present)>;

class HotPlug {
 public:
  virtual ~HotPlug() = default;
};

/// From udev's events about USB devices that are in the driver's id table (ended by a row of zeros,
/// must outlive this). Null when the machine has no udev; modules then stay as they were found.
std::unique_ptr<HotPlug> watch_udev(EventLoop& loop, const usb_id* ids, Plugged plugged);

/// From the simulated module, which nobody announces: it is looked at again and again.
std::unique_ptr<HotPlug> watch_simulation(EventLoop& loop, const host::Simulation& simulation,
                                          Plugged plugged);

}  // namespace wrx::service
