// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The sensor's surface and the fingers that come to it. A finger is known by its name and matches
// itself only. A press either happens at its moment (press, lift) or waits in a queue and is made
// whenever the module waits for a finger, so that a script needs no times.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace wrx_module {

/// One touch: whose finger, and what the module makes of it (0 = good, else a confirm code).
struct Press {
  std::string finger = "thumb";
  uint8_t capture = 0;  ///< picture
  uint8_t feature = 0;  ///< feature creation: 39 duplicate, 48 repeated, 49 bad, 50 small, …
  uint8_t step = 0;     ///< verdict on the press in an enrolment
  bool good() const { return capture == 0 && feature == 0 && step == 0; }
};

class Sensor {
 public:
  /// Puts a finger down at `at_us`, in place of one that is there.
  void press(Press press, int64_t at_us);
  /// Takes the finger off, if there is one.
  void lift();
  /// Appends a press that is made, and lifted again, when the module next waits for a finger.
  void queue(Press press);
  void clear_queue();
  size_t queued() const { return queue_.size(); }

  /// A procedure begins: a finger lying on the surface may be taken once more.
  void renew();
  /// When a module that has waited since `since_us` has a finger to take; kNever without one.
  int64_t ready_us(int64_t since_us, int64_t queued_gap_us) const;
  /// The finger that ready_us announced.
  Press take();
  /// The finger whose picture a capture would show now; nothing on an untouched surface.
  std::optional<std::string> finger_seen() const;

 private:
  std::optional<Press> down_;
  int64_t down_since_us_ = 0;
  bool taken_ = false;  // the finger lying there has been captured already
  std::deque<Press> queue_;
};

}  // namespace wrx_module
