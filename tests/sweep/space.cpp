// SPDX-License-Identifier: LGPL-2.1-or-later
// Listing the cells.
#include "sweep/space.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>

namespace sweep {
namespace {

using wrx_module::EmptyRead;

// The faults that fit the transfers of `cell` behind number `after`; before the first one, those of
// the USB library's calls.
std::vector<Strike> strikes_of(const Cell& cell, int after = -1) {
  std::vector<Transfer> transfers = transfers_of(cell);
  transfers.insert(transfers.begin(), Transfer{Role::call});
  std::vector<Strike> strikes;
  for (int i = after + 1; i < static_cast<int>(transfers.size()); ++i) {
    const Transfer& transfer = transfers[static_cast<size_t>(i)];
    for (const FaultRow& fault : faults()) {
      const bool taken = fits(fault, transfer.role) && !(after > 0 && transfer.waiting);
      if (taken) strikes.push_back({i, transfer.role, &fault});
    }
  }
  return strikes;
}

Cell with(Cell cell, const Strike& strike) {
  cell.add(strike);
  return cell;
}

// Whether the operation makes the call of the USB library at all that is to be refused.
bool happens(const Cell& cell) {
  return std::ranges::none_of(run(cell).failures,
                              [](const Failure& f) { return f.check == Check::strike; });
}

}  // namespace

std::string coordinates(const Cell& cell) {
  std::string transfers, kinds;
  for (const Strike& strike : cell.strikes()) {
    const char* plus = transfers.empty() ? "" : "+";
    transfers += plus + std::to_string(strike.transfer);
    kinds += plus + std::string(strike.fault->name);
  }
  const Setting& setting = cell.setting;
  return fmt::format("{}:{}:{}:{},{}{}", cell.operation->name, transfers, kinds,
                     setting.empty == EmptyRead::times_out ? "wait" : "once", setting.packet,
                     setting.stop ? ",stop" : "");
}

std::optional<Cell> cell_named(const std::string& text) {
  std::istringstream in(text);
  std::string name, transfers, kinds, settings;
  for (std::string* part : {&name, &transfers, &kinds, &settings})
    std::getline(in, *part, ':');
  Cell cell;
  cell.operation = operation_named(name);
  if (cell.operation == nullptr) return std::nullopt;
  const auto set = [&](const char* word) { return settings.find(word) != std::string::npos; };
  if (set("wait")) cell.setting.empty = EmptyRead::times_out;
  if (set("512")) cell.setting.packet = 512;
  cell.setting.stop = set("stop");
  std::istringstream numbers(transfers), names(kinds);
  for (std::string number, kind; std::getline(numbers, number, '+');) {
    std::getline(names, kind, '+');
    const std::vector<Strike> known = strikes_of(cell);
    const auto strike = std::ranges::find_if(known, [&](const Strike& s) {
      return std::to_string(s.transfer) == number && s.fault->name == kind;
    });
    if (strike == known.end() || cell.faults == Cell::kMostFaults) return std::nullopt;
    cell.add(*strike);
  }
  return cell.faults != 0 ? std::optional(cell) : std::nullopt;
}

Cells single_faults() {
  Cells cells;
  for (const EmptyRead empty : {EmptyRead::answers_empty, EmptyRead::times_out}) {
    for (const uint16_t packet : {uint16_t{64}, uint16_t{512}}) {
      for (const Operation& operation : operations()) {
        Cell clean = {&operation, {empty, packet, false}};
        for (const Strike& strike : strikes_of(clean)) {
          const bool call = strike.role == Role::call;
          if (call && !happens(with(clean, strike))) continue;
          cells.push_back(with(clean, strike));
          if (call) continue;
          cells.push_back(with(clean, strike));
          cells.back().setting.stop = true;
        }
      }
    }
  }
  return cells;
}

Cells pairs_of(const Operation& operation, size_t first_step, size_t pair_step) {
  Cells cells;
  size_t firsts = 0, pairs = 0;
  const Cell clean = {&operation, {}};
  for (const Strike& first : strikes_of(clean, 0)) {
    if (first.fault->stood_for || firsts++ % first_step != 0) continue;
    const Cell one = with(clean, first);
    for (const Strike& second : strikes_of(one, first.transfer)) {
      if (!second.fault->stood_for && pairs++ % pair_step == 0) cells.push_back(with(one, second));
    }
  }
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
