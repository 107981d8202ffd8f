// SPDX-License-Identifier: LGPL-2.1-or-later
// The cells that there are, and their names. All of them are known before the first one runs.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sweep/cell.h"

namespace sweep {

using Cells = std::vector<Cell>;

/// "enroll:17:stale:once,64,stop", or "enroll:17+18:stale+io:…" for two faults.
std::string coordinates(const Cell& cell);
/// The cell of such a text, settings optional; nothing when there is none.
std::optional<Cell> cell_named(const std::string& text);

/// One fault each: every operation at every kind of module, every transfer that it makes, every
/// kind of fault that fits, with and without a stop in that moment.
Cells single_faults();

/// Two faults each, the second at any later transfer of those that the operation makes under the
/// first: every pair of (transfer, fault), but that a fault stands for those like it, and that of a
/// long wait in vain the first five reads and the last five stand for those between.
/// Of the first faults every `first_step`-th is taken, of the pairs every `pair_step`-th.
Cells pairs_of(const Operation& operation, size_t first_step, size_t pair_step);

/// `count` of the cells, spread evenly, always the same; all when `count` is 0.
Cells sample_of(const Cells& cells, size_t count);

}  // namespace sweep
