// SPDX-License-Identifier: LGPL-2.1-or-later
// The two stop flags are the only words that two threads share: the operation's, and the one on
// which the framework delivers a user's stop. Both stay plain 32-bit fields of their records and
// are only ever touched through these functions.
#pragma once

#include <atomic>
#include <cstdint>

namespace wrx {

inline int32_t load_flag(int32_t& flag) {
  return std::atomic_ref<int32_t>(flag).load(std::memory_order_acquire);
}

inline void store_flag(int32_t& flag, int32_t value) {
  std::atomic_ref<int32_t>(flag).store(value, std::memory_order_release);
}

/// Turns `from` into `to` and leaves every other value alone.
inline void turn_flag(int32_t& flag, int32_t from, int32_t to) {
  std::atomic_ref<int32_t>(flag).compare_exchange_strong(from, to, std::memory_order_acq_rel);
}

}  // namespace wrx
