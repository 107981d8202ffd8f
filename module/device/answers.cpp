// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The queue of packets waiting to be read.
#include "module/device/answers.h"

#include <algorithm>
#include <utility>

#include "module/device/clock.h"

namespace wrx_module {

void Answers::push(int64_t ready_us, uint32_t step, std::vector<uint8_t> packet) {
  // Never before a packet of which the host has read a part already.
  auto place = queue_.end();
  while (place != queue_.begin()) {
    const auto before = std::prev(place);
    if (before->ready_us <= ready_us || before->taken > 0) break;
    place = before;
  }
  queue_.insert(place, Entry{ready_us, step, std::move(packet), 0});
}

void Answers::clear() {
  queue_.clear();
}

bool Answers::ready(int64_t now_us) const {
  return !queue_.empty() && queue_.front().ready_us <= now_us;
}

int64_t Answers::next_us(int64_t now_us) const {
  for (const Entry& entry : queue_) {
    if (entry.ready_us > now_us) return entry.ready_us;
  }
  return kNever;
}

std::vector<uint8_t> Answers::take(int64_t now_us, size_t max, Batch batch) {
  std::vector<uint8_t> out;
  while (ready(now_us) && out.size() < max) {
    Entry& first = queue_.front();
    const size_t count = std::min(first.bytes.size() - first.taken, max - out.size());
    const auto from = first.bytes.begin() + static_cast<std::ptrdiff_t>(first.taken);
    out.insert(out.end(), from, from + static_cast<std::ptrdiff_t>(count));
    first.taken += count;
    if (first.taken < first.bytes.size()) break;
    const uint32_t step = first.step;
    queue_.pop_front();
    if (batch == Batch::one_report) break;
    if (batch == Batch::one_step && !queue_.empty() && queue_.front().step != step) break;
  }
  return out;
}

}  // namespace wrx_module
