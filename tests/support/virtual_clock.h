// SPDX-License-Identifier: LGPL-2.1-or-later
// Time for tests. While a VirtualClock exists, the program's usleep, gettimeofday and time belong
// to it: waits cost nothing and are exact to the microsecond. Without one they are the system's.
//
// Several threads may live in virtual time, but only one of them runs at any moment: a thread that
// sleeps hands over to the one that wakes next, so that every run is the same. What the bench does
// by itself (a bootloader appearing, a finger lifted by a script) happens in between, on time.
#pragma once

#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

#include "module/device/clock.h"

namespace wrx_test {

class VirtualClock : public wrx_module::Clock {
 public:
  /// Wall-clock second at which virtual time begins.
  static constexpr int64_t kEpoch = 1767225600;

  VirtualClock();
  ~VirtualClock() override;
  /// The clock in force, null for the system's time.
  static VirtualClock* active();

  /// Gives time back to the system for good.
  void retire();

  int64_t now_us() override { return now_us_; }
  int64_t now_ms() { return now_us_ / 1000; }
  void sleep_us(int64_t us) override;
  void wait_until_or_poked(int64_t t_us) override;
  void poke() override;

  /// Runs `action` on a thread of its own from `at_us` on, e.g. a user's stop.
  void at(int64_t at_us, std::function<void()> action);
  /// Waits until every such thread has ended.
  void join();
  /// Called with every sleep that the driver asks for, before it begins.
  std::function<void(int64_t us)> on_sleep;

 private:
  struct Sleeper {
    int64_t wake_us;
    bool pokable = false;
    bool running = false;
  };
  using Sleepers = std::list<Sleeper>;

  void sleep_until(int64_t wake_us, bool pokable);
  // Hands over to the sleeper that wakes first, letting the bench act before that.
  void hand_over(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  std::condition_variable handed_over_;
  std::atomic<int64_t> now_us_{0};
  Sleepers sleepers_;
  std::list<std::thread> threads_;
  int alive_ = 0;
};

}  // namespace wrx_test
