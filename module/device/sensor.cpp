// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Fingers coming and going.
#include "module/device/sensor.h"

#include <algorithm>
#include <utility>

#include "module/device/clock.h"

namespace wrx_module {

void Sensor::press(Press press, int64_t at_us) {
  down_ = std::move(press);
  down_since_us_ = at_us;
  taken_ = false;
}

void Sensor::lift() {
  down_.reset();
}

void Sensor::queue(Press press) {
  queue_.push_back(std::move(press));
}

void Sensor::clear_queue() {
  queue_.clear();
}

void Sensor::renew() {
  taken_ = false;
}

int64_t Sensor::ready_us(int64_t since_us, int64_t queued_gap_us) const {
  if (down_ && !taken_) return std::max(since_us, down_since_us_);
  // A finger that stays down keeps queued ones from reaching the surface.
  if (!down_ && !queue_.empty()) return since_us + queued_gap_us;
  return kNever;
}

Press Sensor::take() {
  if (down_) {
    taken_ = true;
    return *down_;
  }
  Press press = std::move(queue_.front());
  queue_.pop_front();
  return press;
}

std::optional<std::string> Sensor::finger_seen() const {
  if (!down_) return std::nullopt;
  return down_->finger;
}

}  // namespace wrx_module
