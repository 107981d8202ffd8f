// SPDX-License-Identifier: LGPL-2.1-or-later
//
// What serves one module to a real USB bus: the module with its faults and scripts, and a loop that
// gives time to it and to everything that talks to the outside. One thread, no locks; nothing here
// ever blocks but the loop, which sleeps until a descriptor or a moment wakes it.
//
//      loop ──┬─ control socket      statements, reports
//             ├─ list of connections (serve) or the port of vhci (attach)
//             └─ stand: device, faults, players
#pragma once

#include <poll.h>

#include <list>
#include <string>
#include <vector>

#include "module/device/clock.h"
#include "module/device/device.h"
#include "module/play/faults.h"
#include "module/play/player.h"
#include "module/play/script.h"

namespace wrx_module {

class Stand {
 public:
  Stand(Clock& clock, Settings settings, Memory memory);

  Clock& clock() { return clock_; }
  Device& device() { return device_; }
  FaultPlan& faults() { return faults_; }
  /// Runs a script on the module from now on.
  void play(Script script);
  /// Lets everything due happen.
  void advance();
  /// When the module or a script will do something by itself; kNever if none will.
  int64_t next_event_us();
  /// The module's state as JSON text: presence, version, slots, flash, what it is doing, and
  /// "commands", the codes of all commands taken.
  std::string report();

 private:
  Clock& clock_;
  Device device_;
  FaultPlan faults_;
  std::list<Player> players_;
};

/// Something that the loop serves. All descriptors are non-blocking.
class Served {
 public:
  virtual ~Served();
  /// Adds the descriptors to sleep on.
  virtual void watch(std::vector<pollfd>& set) = 0;
  /// Does all that can be done now.
  virtual void serve() = 0;
  /// When to serve although no descriptor is ready; kNever if not.
  virtual int64_t next_event_us() = 0;
};

/// Serves until a descriptor `stop` (a signalfd) is readable. False when the system refuses to
/// wait, with errno.
bool run_loop(Stand& stand, const std::vector<Served*>& parts, int stop);

}  // namespace wrx_module
