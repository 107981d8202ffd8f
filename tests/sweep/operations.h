// SPDX-License-Identifier: LGPL-2.1-or-later
// What is swept: every operation of the driver, with the world it starts from, the words it may
// end with, and the longest time that its waits add up to.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

#include "support/rig.h"

namespace sweep {

/// How a user's stop ends the operation.
enum class Stop {
  none,     ///< nobody looks for it
  ends,     ///< acknowledged, unless the operation had come to its end before
  only_end  ///< and nothing else ends a wait for a module that says nothing
};

/// What an operation leaves that the next ones must know.
struct Leaves {
  bool needs_start = false;  ///< the module may be in its bootloader until the next start
  bool needs_power = false;  ///< the same, and power alone brings it back
  bool erases = false;       ///< the library is empty afterwards
};

/// A pair of result and notification.
using Words = std::pair<int, int>;

/// One operation. A user with three stored fingers asks for it; the module holds them in 20 to 22.
struct Operation {
  std::string_view name;
  /// Changes the settings of the module before it is powered; may be null.
  void (*settings)(wrx_module::Settings&);
  /// Brings the driver to where the operation begins.
  void (*before)(wrx_test::Rig&);
  int (*run)(wrx_test::Rig&);
  std::span<const Words> words;
  Stop stop;
  /// Milliseconds that its waits add up to when a read without an answer takes `read_ms`.
  int64_t (*bound_ms)(int64_t read_ms);
  Leaves leaves;
};

/// Stores the user's three fingers on both sides.
void stock(wrx_test::Rig& rig);

std::span<const Operation> operations();
/// The row of a name; null when there is none.
const Operation* operation_named(std::string_view name);

}  // namespace sweep
