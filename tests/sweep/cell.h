// SPDX-License-Identifier: LGPL-2.1-or-later
// One cell of the sweep: an operation, the transfers of it that go wrong, and how; run in a world
// of its own, in virtual time, and judged.
#pragma once

#include <array>
#include <span>
#include <string>
#include <vector>

#include "sweep/faults.h"
#include "sweep/operations.h"

namespace sweep {

/// The kind of module, and whether the user asks for a stop in the moment of the fault.
struct Setting {
  wrx_module::EmptyRead empty = wrx_module::EmptyRead::answers_empty;
  uint16_t packet = 64;
  bool stop = false;
};

/// A fault at a transfer; 0 is before the first one.
struct Strike {
  int transfer = 0;
  Role role = Role::call;
  const FaultRow* fault = nullptr;
};

/// Small and flat: there are millions.
struct Cell {
  static constexpr size_t kMostFaults = 2;
  const Operation* operation = nullptr;
  Setting setting;
  std::array<Strike, kMostFaults> plan = {};  ///< in order of their transfers
  size_t faults = 0;

  void add(const Strike& strike) { plan[faults++] = strike; }
  std::span<const Strike> strikes() const { return {plan.data(), faults}; }
};

/// What is asserted of every cell.
enum class Check {
  strike,  ///< the faults strike where they were meant to
  bound,   ///< the operation ends within its waits
  status,  ///< the status word is idle again
  words,   ///< result and notification are a pair of its own
  stop,    ///< a stop is acknowledged, and none where nobody asked
  slots,   ///< every record has its slot to itself, with the right finger in it
  after    ///< opening anew and a verify work
};
std::string_view check_name(Check check);

struct Failure {
  Check check;
  std::string what;
};

struct Outcome {
  std::vector<Failure> failures;
  int64_t ms = 0;  ///< that the operation took
  int returned = 0;
  Words words;
  std::string state;  ///< of handshake word, records, slots and the verify after it
  std::vector<std::string> trace;
};

/// A transfer that the operation makes.
struct Transfer {
  Role role = Role::call;
  /// In a long wait that asks the same thing in vain over and over: neither among the first five
  /// times nor among the last. Driver and module are then as they were the time before, but for
  /// the time that has passed.
  bool waiting = false;
};

/// All transfers that the operation makes under the faults of the cell.
std::vector<Transfer> transfers_of(const Cell& cell);
/// Runs a cell. Traced, it takes longer and the outcome has its trace.
Outcome run(const Cell& cell, bool traced = false);

}  // namespace sweep
