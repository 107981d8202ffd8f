// SPDX-License-Identifier: LGPL-2.1-or-later
// The worker thread and the watch over it.

#include "worker.h"

#include <exception>
#include <thread>
#include <utility>

#include "outcome.h"

namespace wrx::host {
namespace {

// How soon a stop is asked for again of a task that has not ended.
constexpr std::chrono::milliseconds kStopAgain{20};

}  // namespace

Worker::Worker(std::function<void()> stop, std::function<void()> tick,
               std::chrono::milliseconds period)
    : stop_(std::move(stop)), tick_(std::move(tick)), period_(period) {}

void Worker::run(const std::function<void()>& task) {
  if (stop_requested_) throw Failure(Outcome::Stopped, "stopped before the operation began");
  bool done = false;  // guarded
  std::exception_ptr thrown;
  std::thread thread([&] {
    try {
      task();
    } catch (...) {
      thrown = std::current_exception();
    }
    const std::lock_guard lock(guard_);
    done = true;
    changed_.notify_all();
  });
  waitFor(done);
  thread.join();
  if (thrown) std::rethrow_exception(thrown);
}

void Worker::requestStop() {
  const std::lock_guard lock(guard_);
  stop_requested_ = true;
  changed_.notify_all();
}

void Worker::waitFor(const bool& done) {
  std::unique_lock lock(guard_);
  bool stopping = false;
  while (!done) {
    const auto pause = stopping ? kStopAgain : period_;
    changed_.wait_for(lock, pause, [&] { return done || (stop_requested_ && !stopping); });
    if (done) break;
    stopping = stop_requested_;
    lock.unlock();
    if (stopping) stop_();
    if (tick_) tick_();
    lock.lock();
  }
}

}  // namespace wrx::host
