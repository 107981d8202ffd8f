// SPDX-License-Identifier: LGPL-2.1-or-later
// Runs the driver's blocking calls on a thread of their own, so that they can be stopped from
// another one.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace wrx::host {

class Worker {
 public:
  /// `stop` asks the running task to end; it is called on run()'s thread, again and again until
  /// the task has ended, because a task may not be listening yet. `tick` is called on that thread
  /// every `period` while the task runs; it may be empty.
  Worker(std::function<void()> stop, std::function<void()> tick, std::chrono::milliseconds period);

  /// Runs `task` to its end on a new thread; throws what the task threw. Once a stop has been
  /// asked for, a task is not begun any more: throws Failure (Stopped).
  void run(const std::function<void()>& task);

  /// From any thread, also before run().
  void requestStop();
  bool stopRequested() const { return stop_requested_; }

 private:
  void waitFor(const bool& done);

  std::function<void()> stop_;
  std::function<void()> tick_;
  std::chrono::milliseconds period_;
  std::mutex guard_;
  std::condition_variable changed_;
  std::atomic<bool> stop_requested_ = false;
};

}  // namespace wrx::host
