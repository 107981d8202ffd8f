// SPDX-License-Identifier: LGPL-2.1-or-later
// Follows one enrolment by what the driver says: the presses that count, the ones that do not, and
// why it cannot go on.
#pragma once

#include <functional>

#include "host/common/outcome.h"
#include "host/service/reader/driver_events.h"
#include "host/service/reader/words.h"

namespace wrx::service {

/// Lives on the thread of the enrolment.
class EnrolWatch {
 public:
  /// `stop` ends the driver's endless check for duplicates. `unanswered` tells whether the module
  /// left the driver's last command without an answer.
  EnrolWatch(std::function<void(Press)> pressed, std::function<void()> stop,
             std::function<bool()> unanswered);
  EnrolWatch(const EnrolWatch&) = delete;
  EnrolWatch& operator=(const EnrolWatch&) = delete;

  const DriverEvents::Listener& listener() const { return listener_; }

  /// Presses that counted.
  int taken() const { return taken_; }

  /// What the driver's outcome means here. The driver does not look whether its record was stored,
  /// so `stored` is asked before an enrolment counts as one.
  Ending ending(host::Outcome outcome, const std::function<bool()>& stored) const;

  /// Tells the presses that the module reported together with the last one.
  void complete();

 private:
  void hear(const std::string& text);
  void count(int stages);

  std::function<void(Press)> pressed_;
  std::function<void()> stop_;
  std::function<bool()> unanswered_;
  DriverEvents::Listener listener_;
  int taken_ = 0;
  bool started_ = false;
  bool duplicate_ = false;
  bool full_ = false;
  bool silent_ = false;
};

}  // namespace wrx::service
