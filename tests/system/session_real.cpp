// SPDX-License-Identifier: LGPL-2.1-or-later
// The session on the machine's own bus.
#include "session.h"

namespace wrx::system_test {

bool place_module(const std::string& script, const std::string& wire) {
  return script.empty() && wire.empty();
}

}  // namespace wrx::system_test
