// SPDX-License-Identifier: LGPL-2.1-or-later
// Listing the cells.
#include "sweep/space.h"

#include <algorithm>

namespace sweep {
namespace {

using wrx_module::EmptyRead;

// The faults that fit the transfers of `cell` behind number `after`.
template <typename Take>
void each_strike(const Cell& cell, size_t after, const Take& take) {
  const std::vector<Transfer> transfers = transfers_of(cell);
  for (size_t i = after; i < transfers.size(); ++i) {
    for (const FaultRow& fault : faults()) {
      const Transfer& transfer = transfers[i];
      if (!fits(fault, transfer.role) || (after != 0 && transfer.waiting)) continue;
      take(Strike{static_cast<int>(i) + 1, transfer.role, &fault});
    }
  }
}

Cell with(Cell cell, const Strike& strike) {
  cell.add(strike);
  return cell;
}

// The calls of the USB library that the operation makes at all.
void add_calls(const Cell& clean, Cells& cells) {
  for (const FaultRow& fault : faults()) {
    if (!fault.call) continue;
    const Cell cell = with(clean, {0, Role::call, &fault});
    const std::vector<Failure> failures = run(cell).failures;
    const bool struck = std::none_of(failures.begin(), failures.end(),
                                     [](const Failure& f) { return f.check == Check::strike; });
    if (struck) cells.push_back(cell);
  }
}

}  // namespace

Cells single_faults() {
  Cells cells;
  for (const EmptyRead empty : {EmptyRead::answers_empty, EmptyRead::times_out}) {
    for (const uint16_t packet : {uint16_t{64}, uint16_t{512}}) {
      for (const Operation& operation : operations()) {
        Cell clean = {&operation, {empty, packet, false}};
        add_calls(clean, cells);
        each_strike(clean, 0, [&](const Strike& strike) {
          for (const bool stop : {false, true}) {
            clean.setting.stop = stop;
            cells.push_back(with(clean, strike));
          }
        });
      }
    }
  }
  return cells;
}

Cells pairs_of(const Operation& operation, size_t first_step, size_t pair_step) {
  Cells cells;
  size_t firsts = 0, pairs = 0;
  const Cell clean = {&operation, {}};
  each_strike(clean, 0, [&](const Strike& first) {
    if (first.fault->stood_for || firsts++ % first_step != 0) return;
    const Cell one = with(clean, first);
    each_strike(one, static_cast<size_t>(first.transfer), [&](const Strike& second) {
      if (!second.fault->stood_for && pairs++ % pair_step == 0) cells.push_back(with(one, second));
    });
  });
  return cells;
}

Cells sample_of(const Cells& cells, size_t count) {
  if (count == 0 || count >= cells.size()) return cells;
  Cells sample;
  for (size_t i = 0; i < count; ++i)
    sample.push_back(cells[i * cells.size() / count]);
  return sample;
}

}  // namespace sweep
