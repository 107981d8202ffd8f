// SPDX-License-Identifier: LGPL-2.1-or-later
// Where the driver's own rules make a promise impossible, the table says so: a check that fails
// there is expected, and counted apart.
#pragma once

#include <span>
#include <string_view>

#include "sweep/cell.h"

namespace sweep {

/// A failure that is expected. The patterns are a shell's.
struct Expectation {
  const char* operation;
  const char* fault;
  const char* role;
  Check check;
  const char* what;  ///< what the failure says
  std::string_view reason;
  size_t faults = 1;  ///< so many, or more
};

std::span<const Expectation> expectations();
/// The row that a failure of the cell is expected by; null when it is none.
const Expectation* expected(const Cell& cell, const Failure& failure);

}  // namespace sweep
