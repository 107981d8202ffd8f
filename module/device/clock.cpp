// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The default wait of any clock, and the machine's monotonic one.
#include "module/device/clock.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace wrx_module {
namespace {
// A poke that falls between a caller's look at the bench and its wait must not be missed for long,
// so no wait is longer than this.
constexpr int64_t kLongestWaitUs = 20'000;
constexpr int64_t kShortSleepUs = 1'000;
}  // namespace

Clock::~Clock() = default;

void Clock::wait_until_or_poked(int64_t t_us) {
  sleep_us(t_us == kNever ? kShortSleepUs : t_us - now_us());
}

void Clock::poke() {}

int64_t RealClock::now_us() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

void RealClock::sleep_us(int64_t us) {
  if (us > 0) std::this_thread::sleep_for(std::chrono::microseconds(us));
}

void RealClock::wait_until_or_poked(int64_t t_us) {
  const int64_t now = now_us();
  if (t_us <= now) return;
  const auto span = std::chrono::microseconds(std::min(t_us - now, kLongestWaitUs));
  std::unique_lock lock(mutex_);
  // The system clock, because a wait on the steady one is invisible to ThreadSanitizer here; the
  // caller looks at the time again anyway.
  poked_.wait_until(lock, std::chrono::system_clock::now() + span,
                    [this] { return poke_pending_; });
  poke_pending_ = false;
}

void RealClock::poke() {
  {
    const std::lock_guard lock(mutex_);
    poke_pending_ = true;
  }
  poked_.notify_all();
}

}  // namespace wrx_module
