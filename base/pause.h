// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver's only way to wait.
#pragma once

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace wrx {

inline int64_t monotonic_us() {
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

/// Sleeps `ms` milliseconds, at most an hour; 0 does not sleep at all. A signal that the host
/// handles does not shorten the sleep: the module's pauses are counted in it.
inline void pause_ms(uint32_t ms) {
  constexpr uint32_t kLongestMs = 3'600'000;
  int64_t left_us = int64_t{std::min(ms, kLongestMs)} * 1000;
  const int64_t end_us = monotonic_us() + left_us;
  while (left_us > 0 && usleep(static_cast<useconds_t>(left_us)) != 0)
    left_us = end_us - monotonic_us();
}

}  // namespace wrx
