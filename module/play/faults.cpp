// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The plan: which fault strikes which transfer.
#include "module/play/faults.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace wrx_module {
namespace {

enum class Fits { any, in, answer, acknowledgement };

struct Row {
  FaultKind kind;
  std::string_view name;
  FaultValue value;
  Fits fits;
};

// In the order of the enumeration.
constexpr Row kKinds[] = {
    {FaultKind::timeout, "timeout", FaultValue::none, Fits::any},
    {FaultKind::stall, "stall", FaultValue::none, Fits::any},
    {FaultKind::io_error, "io", FaultValue::none, Fits::any},
    {FaultKind::no_device, "nodev", FaultValue::none, Fits::any},
    {FaultKind::short_read, "short", FaultValue::count, Fits::any},
    {FaultKind::overflow, "overflow", FaultValue::none, Fits::in},
    {FaultKind::corrupt, "corrupt", FaultValue::count, Fits::any},
    {FaultKind::stale, "stale", FaultValue::none, Fits::answer},
    {FaultKind::garbage, "garbage", FaultValue::none, Fits::answer},
    {FaultKind::twice, "twice", FaultValue::none, Fits::answer},
    {FaultKind::foreign, "foreign", FaultValue::none, Fits::answer},
    {FaultKind::wrong_ack, "wrongack", FaultValue::none, Fits::acknowledgement},
    {FaultKind::empty_ack, "emptyack", FaultValue::none, Fits::acknowledgement},
    {FaultKind::delay, "delay", FaultValue::time, Fits::any},
    {FaultKind::unplug, "unplug", FaultValue::none, Fits::any},
    {FaultKind::reset, "reset", FaultValue::none, Fits::any},
    {FaultKind::power_cut, "powercut", FaultValue::none, Fits::any},
    {FaultKind::death, "death", FaultValue::none, Fits::any},
};

constexpr bool in_order() {
  for (size_t i = 0; i < std::size(kKinds); ++i) {
    if (static_cast<size_t>(kKinds[i].kind) != i) return false;
  }
  return std::size(kKinds) == static_cast<size_t>(FaultKind::death) + 1;
}
static_assert(in_order());

const Row& row(FaultKind kind) {
  return kKinds[static_cast<size_t>(kind)];
}

bool fits(FaultKind kind, const TransferShape& shape) {
  switch (row(kind).fits) {
    case Fits::any:
      return true;
    case Fits::in:
      return shape.in;
    case Fits::answer:
      return shape.in && !shape.acknowledgement;
    case Fits::acknowledgement:
      return shape.acknowledgement;
  }
  return false;
}

}  // namespace

std::string_view fault_name(FaultKind kind) {
  return row(kind).name;
}

std::optional<FaultKind> fault_named(std::string_view name) {
  for (const Row& candidate : kKinds) {
    if (candidate.name == name) return candidate.kind;
  }
  return std::nullopt;
}

FaultValue fault_value(FaultKind kind) {
  return row(kind).value;
}

std::vector<std::string> fault_words() {
  std::vector<std::string> words;
  for (const Row& row : kKinds) {
    std::string word(row.name);
    if (row.value == FaultValue::count) word += " N";
    if (row.value == FaultValue::time) word += " TIME";
    words.push_back(std::move(word));
  }
  return words;
}

bool fault_fits(FaultKind kind, const TransferShape& shape) {
  return fits(kind, shape);
}

void FaultPlan::add(Fault fault) {
  const std::lock_guard lock(mutex_);
  plan_.push_back(fault);
}

void FaultPlan::clear() {
  const std::lock_guard lock(mutex_);
  plan_.clear();
  struck_.clear();
  count_ = 0;
}

int FaultPlan::count() const {
  const std::lock_guard lock(mutex_);
  return count_;
}

std::optional<Fault> FaultPlan::next(const TransferShape& shape) {
  const std::lock_guard lock(mutex_);
  ++count_;
  const auto due = std::find_if(plan_.begin(), plan_.end(), [&](const Fault& fault) {
    return fault.at <= count_ && fits(fault.kind, shape);
  });
  if (due == plan_.end()) return std::nullopt;
  Fault fault = *due;
  plan_.erase(due);
  fault.at = count_;
  struck_.push_back(fault);
  if (on_strike) on_strike();
  return fault;
}

std::vector<Fault> FaultPlan::struck() const {
  const std::lock_guard lock(mutex_);
  return struck_;
}

}  // namespace wrx_module
