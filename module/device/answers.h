// SPDX-License-Identifier: LGPL-2.1-or-later
//
// What the application has to say: packets, each with the moment from which it can be read and the
// step it belongs to. A read takes as many as the batching allows and as fit.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "module/device/settings.h"

namespace wrx_module {

class Answers {
 public:
  /// A new step: packets pushed under different steps never share a read of Batch::one_step.
  uint32_t next_step() { return ++step_; }
  /// Queues a packet behind everything that is ready no later than it.
  void push(int64_t ready_us, uint32_t step, std::vector<uint8_t> packet);
  /// Forgets everything not yet read.
  void clear();

  /// Whether a read would get something now.
  bool ready(int64_t now_us) const;
  /// When the next packet that is not ready yet will be; kNever without one.
  int64_t next_us(int64_t now_us) const;
  /// Takes at most `max` bytes; the rest of a packet that did not fit stays first.
  std::vector<uint8_t> take(int64_t now_us, size_t max, Batch batch);

 private:
  struct Entry {
    int64_t ready_us;
    uint32_t step;
    std::vector<uint8_t> bytes;
    size_t taken;
  };
  std::deque<Entry> queue_;
  uint32_t step_ = 0;
};

}  // namespace wrx_module
