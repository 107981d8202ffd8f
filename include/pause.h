// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver's only way to wait.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace wrx {

/// Sleeps `ms` milliseconds, at most an hour; 0 does not sleep at all.
inline void pause_ms(uint32_t ms) {
  constexpr uint32_t kLongest = 3'600'000;
  if (ms != 0) usleep(std::min(ms, kLongest) * 1000U);
}

}  // namespace wrx
