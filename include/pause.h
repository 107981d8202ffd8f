// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver's only way to wait.
#pragma once

#include <unistd.h>

#include <cstdint>

namespace wrx {

/// Sleeps `ms` milliseconds; 0 does not sleep at all.
inline void pause_ms(uint32_t ms) {
  if (ms != 0) usleep(ms * 1000U);
}

}  // namespace wrx
