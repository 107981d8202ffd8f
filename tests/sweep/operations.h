// SPDX-License-Identifier: LGPL-2.1-or-later
// What is swept: every operation of the driver, with the world it starts from, the words it may
// end with, and the longest time that its waits add up to.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "support/rig.h"

namespace sweep {

/// How a user's stop ends the operation.
enum class Stop {
  unheard,  ///< nobody looks for it
  ends,     ///< acknowledged, unless a report overtakes it
  only_end  ///< and nothing else ends a wait for a module that says nothing
};

/// A pair of result and notification.
using Words = std::pair<int, int>;

/// What waits add up to: milliseconds, reads without an answer, and waits for a finger.
struct Waits {
  int64_t ms = 0, reads = 0, fingers = 0;
};

/// What operations of a kind have in common.
struct Family {
  std::span<const Words> words;  ///< that it may end with
  Stop stop;
  Waits bound;
  /// Transfers that may still follow a stop which a report overtakes.
  int transfers_to_end = 0;
};

/// What an operation leaves that the next ones must know.
struct Leaves {
  bool needs_start = false;  ///< the module may be in its bootloader until the next start
  bool needs_power = false;  ///< the same, and power alone brings it back
  bool erases = false;       ///< the library is empty afterwards
};

/// One operation. A user with three stored fingers asks for it; the module holds them from 20 on.
struct Operation {
  std::string_view name;
  /// Changes the settings of the module before it is powered; may be null.
  void (*settings)(wrx_module::Settings&);
  /// Brings the driver to where the operation begins.
  void (*before)(wrx_test::Rig&);
  int (*run)(wrx_test::Rig&);
  const Family& family;
  Leaves leaves;
};

constexpr int kFirstSlot = 20;
constexpr int64_t kFingerMs = 5000;  ///< for so long the driver waits for a finger

/// What the module calls the user's finger of an index.
std::string finger_of(int index);
/// Stores the user's fingers on both sides.
void stock(wrx_test::Rig& rig, int fingers = 3);

std::span<const Operation> operations();
/// The row of a name; null when there is none.
const Operation* operation_named(std::string_view name);

}  // namespace sweep
