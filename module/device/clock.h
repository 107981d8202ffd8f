// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The time the simulated module lives in. Tests put a virtual clock here, so that waits cost
// nothing and are exact to the microsecond; a simulation for people uses the machine's own.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <limits>
#include <mutex>

namespace wrx_module {

/// A moment that never comes: "nothing will change by itself".
inline constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

/// A source of time. Every member may be called from any thread; the bench never holds its lock
/// while it sleeps or waits here.
class Clock {
 public:
  virtual ~Clock();
  /// Microseconds since an arbitrary start; never goes back.
  virtual int64_t now_us() = 0;
  /// Lets `us` microseconds pass (none when `us` <= 0).
  virtual void sleep_us(int64_t us) = 0;
  /// Returns at `t_us`, or earlier after a poke or for no reason: the caller looks again. With
  /// kNever only a poke ends it. The default sleeps until `t_us` (a millisecond for kNever).
  virtual void wait_until_or_poked(int64_t t_us);
  /// Ends the waits now running: something on the bench was changed from outside.
  virtual void poke();
};

/// The machine's monotonic clock.
class RealClock : public Clock {
 public:
  int64_t now_us() override;
  void sleep_us(int64_t us) override;
  void wait_until_or_poked(int64_t t_us) override;
  void poke() override;

 private:
  std::mutex mutex_;
  std::condition_variable poked_;
  bool poke_pending_ = false;
};

}  // namespace wrx_module
