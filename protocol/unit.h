// SPDX-License-Identifier: LGPL-2.1-or-later
// The name this room's log lines carry.
#pragma once

#include "log.h"

namespace wrx::protocol {

/// The calling function as a log line names it.
constexpr CallSite here(int line = __builtin_LINE(), const char* function = __builtin_FUNCTION()) {
  return {"app_fp256_360", line, function};
}

}  // namespace wrx::protocol
