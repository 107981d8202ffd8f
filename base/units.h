// SPDX-License-Identifier: LGPL-2.1-or-later
// The names that log lines carry, one a room. `here()` is the calling function as a line names it.
// What the ground floor says of itself carries the frame's name: readers of a log look for it
// there.
#pragma once

#include "base/log.h"

namespace wrx {

/// Makes call sites of one unit.
struct Unit {
  const char* name;

  constexpr CallSite operator()(int line = __builtin_LINE(),
                                const char* function = __builtin_FUNCTION()) const {
    return {name, line, function};
  }
};

namespace frame {
inline constexpr Unit here{"wrx7700"};
}
namespace operations {
inline constexpr Unit here{"operations"};
}
namespace protocol {
inline constexpr Unit here{"app_fp256_360"};
}
namespace transport {
inline constexpr Unit here{"usb_device"};
}
namespace upgrade {
inline constexpr Unit here{"upgrade"};
}

}  // namespace wrx
