// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The two procedures the module runs by itself, press by press, as a machine over time:
//
//   enrol:     finger → capture → feature → step ─┬→ finger (until enough good presses)
//                                                 └→ merge → conflict → store → idle
//   identify:  finger → capture → search → idle
//
// Every arrow takes its time from the settings and ends in a report.
#pragma once

#include <cstdint>
#include <vector>

#include "module/device/answers.h"
#include "module/device/memory.h"
#include "module/device/sensor.h"
#include "module/device/settings.h"

namespace wrx_module {

class Procedure {
 public:
  Procedure(const Settings& settings, Memory& memory, Sensor& sensor, Answers& answers)
      : settings_(settings), memory_(memory), sensor_(sensor), answers_(answers) {}

  /// Waits for `presses` good presses, 1 to 15, and stores them in `slot`.
  void start_enrol(int64_t now_us, uint16_t slot, uint8_t presses);
  /// `slot` 0xFFFF searches the whole library.
  void start_identify(int64_t now_us, uint16_t slot);
  void abort() { at_ = At::idle; }

  bool idle() const { return at_ == At::idle; }
  bool enrolling() const { return !idle() && enrol_; }
  /// When the next step is due; kNever while idle or without a finger.
  int64_t next_event_us() const;
  /// Takes every step that is due.
  void advance(int64_t now_us);

 private:
  enum class At {
    idle,
    finger,    // waits for a finger; ends when one is taken
    capture,   // a picture is being taken
    feature,   // a feature is being made of it
    step,      // the press is being judged
    merge,     // all presses are in
    conflict,  // the template is being compared with the library
    store,     // the template is being written
    search,    // the library is being searched
  };

  void start(int64_t now_us, bool enrol, uint16_t slot);
  void run_step();
  void take_finger();
  void finish_capture();
  void finish_press();
  void finish_conflict();
  void finish_store();
  void finish_search();
  void go(At at, int64_t after_us);
  void report(std::vector<uint8_t> payload);
  std::vector<uint16_t> matches() const;

  const Settings& settings_;
  Memory& memory_;
  Sensor& sensor_;
  Answers& answers_;

  At at_ = At::idle;
  bool enrol_ = false;
  int64_t due_us_ = 0;  // end of the present state; in `finger`, when the waiting began
  uint16_t slot_ = 0;
  uint8_t presses_ = 0;  // asked for
  uint8_t done_ = 0;     // good ones so far
  uint32_t step_ = 0;    // under which the present press reports
  uint8_t conflict_ = 0;
  Press press_;
  std::string finger_;  // of the first good press; the others must be of the same
};

/// The payload of a search result: code, stage and slots in the form asked for.
std::vector<uint8_t> search_report(ResultForm form, const std::vector<uint16_t>& slots);

}  // namespace wrx_module
