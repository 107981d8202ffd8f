// SPDX-License-Identifier: LGPL-2.1-or-later
// The one engine behind every command procedure. Lines are written under the call site of the
// procedure that a reader knows.
#pragma once

#include <cstdint>
#include <span>

#include "base/log.h"
#include "protocol/command_set.h"

namespace wrx::protocol {

/// How a command ended.
enum class Outcome : uint8_t {
  unanswered,  ///< no matching response arrived
  refused,     ///< the module answered with a code other than 0
  done,
};

using Parameters = std::span<const uint8_t>;

/// Writes a line of a row.
void say(const Said& said, CallSite site);

/// Announces and sends a command and awaits its response. True when it was answered; a failure is
/// logged where the row says so.
[[nodiscard]] bool exchange(const Command& row, Parameters parameters, CallSite site);

/// Judges the answer of an exchange and tells of it.
[[nodiscard]] Outcome judge(const Command& row, CallSite site);

/// exchange() and judge().
[[nodiscard]] Outcome run(const Command& row, Parameters parameters, CallSite site);

/// What a procedure returns: -1 for a refusal, and for an unanswered command unless its row
/// forgives that; else 0.
[[nodiscard]] int32_t result_of(const Command& row, Outcome outcome);

}  // namespace wrx::protocol
