// SPDX-License-Identifier: LGPL-2.1-or-later
// The one thread that calls the driver. Jobs run one after another, so that nothing can interleave
// on the wire, whoever asked for it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "host/common/plugin_host.h"
#include "host/common/worker.h"
#include "host/service/outside/event_loop.h"

namespace wrx::service {

/// One piece of work, shared by the loop, which may stop it, and the thread, which does it.
class Job {
 public:
  using Work = std::function<void(Job&)>;
  Job(host::PluginHost& host, Work work, EventLoop::Action done);

  /// Asks the work to end through the driver's stop callback; work not begun is not begun any
  /// more. Returns at once. From any thread.
  void stop() { worker_.requestStop(); }
  bool stopRequested() const { return worker_.stopRequested(); }

 private:
  friend class ModuleThread;
  // Work and the call at its end know who waits for the job, who knows the job: they are let go of
  // as soon as they have been used.
  void forget() {
    work_ = {};
    done_ = {};
  }

  host::Worker worker_;
  Work work_;
  EventLoop::Action done_;
};

/// All members are for the loop's thread.
class ModuleThread {
 public:
  ModuleThread(EventLoop& loop, host::PluginHost& host);
  ModuleThread(const ModuleThread&) = delete;
  ModuleThread& operator=(const ModuleThread&) = delete;
  /// Stops the running job and waits for its end.
  ~ModuleThread();

  /// Queues `work`, which must not throw. `done` is called on the loop's thread when it has ended,
  /// also when it was stopped before it began.
  std::shared_ptr<Job> begin(Job::Work work, EventLoop::Action done);

  /// Begins no further job; calls `quiet` once none is running.
  void hold(EventLoop::Action quiet);
  /// Ends a hold: what was queued meanwhile begins.
  void proceed();

  bool idle() const { return running_ == nullptr && waiting_.empty(); }

 private:
  void serve();
  void next();
  void ended();

  EventLoop& loop_;
  host::PluginHost& host_;
  std::deque<std::shared_ptr<Job>> waiting_;
  std::shared_ptr<Job> running_;
  bool held_ = false;
  EventLoop::Action quiet_;

  std::mutex guard_;
  std::condition_variable changed_;
  std::shared_ptr<Job> handed_;  // guarded
  bool leaving_ = false;         // guarded
  std::thread thread_;
};

}  // namespace wrx::service
