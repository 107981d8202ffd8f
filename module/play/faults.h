// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Faults of the cable, the controller and the host, put between a front end and the device. The
// device knows nothing of them. A plan is a list of faults by transfer number; it counts every bulk
// transfer, so that a failing test names its coordinates and can be repeated.
//
//      transfer    1        2        3        4     …
//                block   payload    ack     block
//                           ▲
//                 at 2: the first transfer from number 2 on that the kind fits
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wrx_module {

enum class FaultKind {
  timeout,     ///< never completes; the host gives up (after 1 s where it has no limit)
  stall,       ///< the endpoint is halted
  io_error,    ///< the transfer is spoilt on the wire
  no_device,   ///< the controller says the device is gone, the device stays
  short_read,  ///< only `value` bytes move, either way
  overflow,    ///< in: more came than was asked for
  corrupt,     ///< byte `value` (modulo the length) is changed
  stale,       ///< in, not an acknowledgement: an old report comes first
  garbage,     ///< in, not an acknowledgement: bytes that are no packet come first
  twice,       ///< in, not an acknowledgement: everything comes twice
  foreign,     ///< in, not an acknowledgement: a good answer to another command comes instead
  wrong_ack,   ///< acknowledgement: four bytes none of which is in its place
  empty_ack,   ///< acknowledgement: zero bytes
  delay,       ///< completes `value` microseconds late
  unplug,      ///< the device is pulled out first
  reset,       ///< the bus enumerates the device anew first: it keeps its power, the handle is dead
  power_cut,   ///< the module loses its power first and gets it back at once
  death,       ///< the plan's on_death runs first, then as no_device
};

struct Fault {
  int at = 1;  ///< number of the transfer, counted from 1
  FaultKind kind = FaultKind::timeout;
  int64_t value = 0;
};

/// What the script calls a kind ("timeout", "wrongack", …), and back; none for an unknown word.
std::string_view fault_name(FaultKind kind);
std::optional<FaultKind> fault_named(std::string_view name);
/// Whether the kind takes a value, and of which sort.
enum class FaultValue { none, count, time };
FaultValue fault_value(FaultKind kind);
/// The words of all kinds with the value each wants, for help texts.
std::vector<std::string> fault_words();

/// What a plan must know of a transfer to see which faults fit it.
struct TransferShape {
  bool in = false;
  bool acknowledgement = false;
};

/// Whether a fault of the kind can strike such a transfer.
bool fault_fits(FaultKind kind, const TransferShape& shape);

/// The faults still to come, and the count of transfers so far. May be used from any thread.
class FaultPlan {
 public:
  /// Plans a fault; several at one transfer strike one after another.
  void add(Fault fault);
  /// Forgets all faults and starts counting again.
  void clear();
  /// Transfers begun since the start.
  int count() const;
  /// Counts one transfer and takes the fault that strikes it, if any.
  std::optional<Fault> next(const TransferShape& shape);
  /// The faults that have struck, with the numbers of the transfers they struck.
  std::vector<Fault> struck() const;
  /// Run by a fault of the kind death, on the thread of the transfer, without the bench's lock.
  std::function<void()> on_death;
  /// Run whenever a fault strikes, on the thread of the transfer, under the bench's lock: it may
  /// note the moment or start a thread, but not touch the bench.
  std::function<void()> on_strike;

 private:
  mutable std::mutex mutex_;
  int count_ = 0;
  std::vector<Fault> plan_;
  std::vector<Fault> struck_;
};

}  // namespace wrx_module
