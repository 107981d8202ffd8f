// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Carries a script out on a device as time goes by.
#pragma once

#include <cstdint>

#include "module/device/device.h"
#include "module/play/faults.h"
#include "module/play/script.h"

namespace wrx_module {

class Player {
 public:
  /// Starts `script` at `start_us`; what has no moment of its own runs at once.
  Player(Device& device, FaultPlan& faults, Script script, int64_t start_us);

  /// When the next step is due; kNever at the end.
  int64_t next_event_us() const;
  /// Runs everything due at `now_us`, each step at its own moment.
  void advance(int64_t now_us);
  Device& device() const { return *device_; }

 private:
  void run(const Step& step, std::optional<int64_t> at_us);

  Device* device_;
  FaultPlan* faults_;
  Script script_;
  int64_t start_us_;
  size_t next_ = 0;
};

}  // namespace wrx_module
