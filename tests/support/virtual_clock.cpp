// SPDX-License-Identifier: LGPL-2.1-or-later
// The virtual clock, and the system's time functions in front of it.
#include "support/virtual_clock.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "module/usb/bus.h"

namespace wrx_test {

namespace {
std::atomic<VirtualClock*> active_clock{nullptr};
}  // namespace

VirtualClock::VirtualClock() {
  active_clock = this;
}

VirtualClock::~VirtualClock() {
  join();
  active_clock = nullptr;
}

void VirtualClock::retire() {
  active_clock = nullptr;
}

VirtualClock* VirtualClock::active() {
  return active_clock;
}

void VirtualClock::sleep_us(int64_t us) {
  if (us > 0) sleep_until(now_us_ + us, false);
}

void VirtualClock::wait_until_or_poked(int64_t t_us) {
  sleep_until(t_us, true);
}

void VirtualClock::poke() {
  const std::lock_guard lock(mutex_);
  for (Sleeper& sleeper : sleepers_) {
    if (sleeper.pokable) sleeper.wake_us = std::min<int64_t>(sleeper.wake_us, now_us_);
  }
}

void VirtualClock::sleep_until(int64_t wake_us, bool pokable) {
  std::unique_lock lock(mutex_);
  const auto self = sleepers_.insert(sleepers_.end(), {wake_us, pokable});
  hand_over(lock);
  handed_over_.wait(lock, [&] { return self->running; });
  sleepers_.erase(self);
}

void VirtualClock::hand_over(std::unique_lock<std::mutex>& lock) {
  for (;;) {
    const auto next =
        std::min_element(sleepers_.begin(), sleepers_.end(),
                         [](const auto& a, const auto& b) { return a.wake_us < b.wake_us; });
    const int64_t wake_us = next == sleepers_.end() ? wrx_module::kNever : next->wake_us;
    lock.unlock();
    const int64_t event_us = wrx_module::bus().next_event_us();
    lock.lock();
    if (event_us < wake_us) {
      now_us_ = std::max<int64_t>(now_us_, event_us);
      lock.unlock();
      wrx_module::bus().advance();
      lock.lock();
      continue;
    }
    if (next == sleepers_.end()) return;
    if (wake_us == wrx_module::kNever) {
      std::fputs("virtual time: everybody waits for something that will never come\n", stderr);
      std::abort();
    }
    now_us_ = std::max<int64_t>(now_us_, wake_us);
    next->running = true;
    handed_over_.notify_all();
    return;
  }
}

void VirtualClock::at(int64_t at_us, std::function<void()> action) {
  std::unique_lock lock(mutex_);
  // The thread sleeps from here on, even before the system has started it.
  const auto self = sleepers_.insert(sleepers_.end(), {at_us, false});
  ++alive_;
  threads_.emplace_back([this, self, action = std::move(action)] {
    std::unique_lock own(mutex_);
    handed_over_.wait(own, [&] { return self->running; });
    sleepers_.erase(self);
    own.unlock();
    action();
    own.lock();
    --alive_;
    hand_over(own);
  });
}

void VirtualClock::join() {
  while (alive_ > 0)
    VirtualClock::sleep_us(1000);
  for (std::thread& thread : threads_)
    thread.join();
  threads_.clear();
}

}  // namespace wrx_test

// The driver, and the module's bench, call these by the system's names.
extern "C" {

int usleep(useconds_t us) {
  if (auto* clock = wrx_test::VirtualClock::active()) {
    if (clock->on_sleep) clock->on_sleep(us);
    clock->sleep_us(us);
    return 0;
  }
  const struct timespec span = {static_cast<time_t>(us / 1000000),
                                static_cast<long>(us % 1000000) * 1000};
  return nanosleep(&span, nullptr);
}

int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept {
  if (auto* clock = wrx_test::VirtualClock::active()) {
    const int64_t now = clock->now_us();
    tv->tv_sec = wrx_test::VirtualClock::kEpoch + now / 1000000;
    tv->tv_usec = now % 1000000;
    return 0;
  }
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  tv->tv_sec = now.tv_sec;
  tv->tv_usec = now.tv_nsec / 1000;
  return 0;
}

time_t time(time_t* result) noexcept {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}

}  // extern "C"
