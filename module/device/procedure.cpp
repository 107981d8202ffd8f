// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Enrolment and identification as the module runs them.
#include "module/device/procedure.h"

#include <algorithm>
#include <utility>

#include "module/device/clock.h"
#include "module/device/packet.h"

namespace wrx_module {
namespace {

// Stage bytes of the reports.
constexpr uint8_t kCapture = 1, kFeature = 2, kStep = 3, kMerge = 4, kConflict = 5, kStore = 6;
constexpr uint8_t kSingleResult = 5, kListResult = 0xF5;

constexpr uint8_t kMismatch = 8, kNotFound = 9, kExists = 39;
constexpr uint16_t kWholeLibrary = 0xFFFF;
constexpr uint16_t kScore = 100;

uint8_t high(uint16_t value) {
  return static_cast<uint8_t>(value >> 8);
}
uint8_t low(uint16_t value) {
  return static_cast<uint8_t>(value);
}

}  // namespace

std::vector<uint8_t> search_report(ResultForm form, const std::vector<uint16_t>& slots) {
  const uint8_t code = slots.empty() ? kNotFound : uint8_t{0};
  if (form == ResultForm::single) {
    const uint16_t slot = slots.empty() ? kWholeLibrary : slots.front();
    const uint16_t score = slots.empty() ? uint16_t{0} : kScore;
    return {code, kSingleResult, high(slot), low(slot), high(score), low(score)};
  }
  const size_t count = std::min<size_t>(slots.size(), 255);  // what the count byte can say
  std::vector<uint8_t> payload = {code, kListResult, static_cast<uint8_t>(count)};
  for (size_t i = 0; i < count; ++i)
    payload.push_back(low(slots[i]));
  return payload;
}

void Procedure::start(int64_t now_us, bool enrol, uint16_t slot) {
  enrol_ = enrol;
  slot_ = slot;
  done_ = 0;
  finger_.clear();
  sensor_.renew();
  at_ = At::finger;
  due_us_ = now_us;
}

void Procedure::start_enrol(int64_t now_us, uint16_t slot, uint8_t presses) {
  start(now_us, true, slot);
  presses_ = presses;
}

void Procedure::start_identify(int64_t now_us, uint16_t slot) {
  start(now_us, false, slot);
}

int64_t Procedure::next_event_us() const {
  if (at_ == At::idle) return kNever;
  if (at_ == At::finger) return sensor_.ready_us(due_us_, settings_.procedure.press_gap_us);
  return due_us_;
}

void Procedure::advance(int64_t now_us) {
  while (next_event_us() <= now_us)
    run_step();
}

void Procedure::run_step() {
  switch (at_) {
    case At::idle:
      return;
    case At::finger:
      return take_finger();
    case At::capture:
      return finish_capture();
    case At::feature:
      report({std::max(press_.capture, press_.feature), kFeature, static_cast<uint8_t>(done_ + 1)});
      return go(At::step, settings_.procedure.step_us);
    case At::step:
      return finish_press();
    case At::merge:
      step_ = answers_.next_step();
      report({0, kMerge});
      return go(At::conflict, settings_.procedure.merge_us);
    case At::conflict:
      return finish_conflict();
    case At::store:
      return finish_store();
    case At::search:
      return finish_search();
  }
}

void Procedure::take_finger() {
  due_us_ = next_event_us();
  press_ = sensor_.take();
  step_ = answers_.next_step();
  go(At::capture, settings_.procedure.capture_us);
}

void Procedure::finish_capture() {
  if (enrol_) {
    report({press_.capture, kCapture, static_cast<uint8_t>(done_ + 1)});
    return go(At::feature, settings_.procedure.feature_us);
  }
  if (settings_.procedure.report_capture) report({press_.capture, kCapture});
  go(At::search, settings_.procedure.search_us);
}

void Procedure::finish_press() {
  uint8_t verdict = std::max({press_.capture, press_.feature, press_.step});
  // Every press must be of the finger that was pressed first.
  if (verdict == 0 && done_ > 0 && press_.finger != finger_) verdict = kMismatch;
  report({verdict, kStep, static_cast<uint8_t>(done_ + 1)});
  if (verdict == 0) {
    finger_ = press_.finger;
    ++done_;
  }
  if (done_ == presses_) return go(At::merge, settings_.procedure.merge_us);
  go(At::finger, 0);
}

void Procedure::finish_conflict() {
  const bool known = std::any_of(memory_.templates.begin(), memory_.templates.end(),
                                 [this](const auto& entry) { return entry.second == finger_; });
  conflict_ = known && settings_.procedure.refuse_duplicates ? kExists : uint8_t{0};
  report({conflict_, kConflict});
  go(At::store, settings_.procedure.merge_us);
}

void Procedure::finish_store() {
  if (conflict_ == 0) memory_.templates[slot_] = finger_;
  report({conflict_, kStore});
  at_ = At::idle;
}

void Procedure::finish_search() {
  report(search_report(settings_.procedure.form, matches()));
  at_ = At::idle;
}

std::vector<uint16_t> Procedure::matches() const {
  std::vector<uint16_t> slots;
  if (!press_.good()) return slots;
  for (const auto& [slot, finger] : memory_.templates) {
    if (finger == press_.finger && (slot_ == kWholeLibrary || slot_ == slot)) slots.push_back(slot);
  }
  return slots;
}

void Procedure::go(At at, int64_t after_us) {
  at_ = at;
  due_us_ += after_us;
}

void Procedure::report(std::vector<uint8_t> payload) {
  answers_.push(due_us_, step_, packet(kTypeResponse, payload));
}

}  // namespace wrx_module
