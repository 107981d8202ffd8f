// SPDX-License-Identifier: LGPL-2.1-or-later
// What the driver says while it works: its messages go to whoever listens, its log lines to the
// trace.
#pragma once

#include <functional>
#include <string>

#include "libbiometric.h"

namespace wrx::service {

/// Stands between the framework's hook and the running operation. One of these at a time.
class DriverEvents {
 public:
  struct Listener {
    std::function<void(const std::string& text)> message;  ///< the driver's own words to the user
    std::function<void(int percent)> progress;
  };

  DriverEvents();
  ~DriverEvents();
  DriverEvents(const DriverEvents&) = delete;
  DriverEvents& operator=(const DriverEvents&) = delete;

  /// Calls `operation`, and meanwhile `listener`, on the calling thread.
  void during(const Listener& listener, const std::function<void()>& operation);

 private:
  static void hear(void* self, bio_dev* dev, bio_event event, int number, const char* text);

  const Listener* listener_ = nullptr;  // touched by the thread of the running operation alone
};

}  // namespace wrx::service
