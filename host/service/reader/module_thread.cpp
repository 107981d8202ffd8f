// SPDX-License-Identifier: LGPL-2.1-or-later
// Queue and thread of the driver's jobs.

#include "host/service/reader/module_thread.h"

#include <chrono>
#include <cstdio>
#include <utility>

#include "host/common/outcome.h"

namespace wrx::service {
namespace {

// Nothing is looked at while a job runs: its end and a stop are both told.
constexpr std::chrono::hours kNoTick{1};

}  // namespace

Job::Job(host::PluginHost& host, Work work, EventLoop::Action done)
    : worker_([&host] { host.stop(); }, {}, kNoTick),
      work_(std::move(work)),
      done_(std::move(done)) {}

ModuleThread::ModuleThread(EventLoop& loop, host::PluginHost& host)
    : loop_(loop), host_(host), thread_([this] { serve(); }) {}

ModuleThread::~ModuleThread() {
  if (running_ != nullptr) running_->stop();
  {
    const std::lock_guard lock(guard_);
    leaving_ = true;
  }
  changed_.notify_all();
  thread_.join();
  if (running_ != nullptr) waiting_.push_back(std::move(running_));
  for (const auto& job : waiting_)
    job->forget();
}

std::shared_ptr<Job> ModuleThread::begin(Job::Work work, EventLoop::Action done) {
  auto job = std::make_shared<Job>(host_, std::move(work), std::move(done));
  waiting_.push_back(job);
  next();
  return job;
}

void ModuleThread::hold(EventLoop::Action quiet) {
  held_ = true;
  quiet_ = std::move(quiet);
  if (running_ == nullptr && quiet_) std::exchange(quiet_, {})();
}

void ModuleThread::proceed() {
  held_ = false;
  quiet_ = {};
  next();
}

void ModuleThread::next() {
  if (running_ != nullptr || held_ || waiting_.empty()) return;
  running_ = std::move(waiting_.front());
  waiting_.pop_front();
  {
    const std::lock_guard lock(guard_);
    handed_ = running_;
  }
  changed_.notify_all();
}

void ModuleThread::ended() {
  const std::shared_ptr<Job> job = std::exchange(running_, {});
  std::exchange(job->done_, {})();
  if (held_ && quiet_ && running_ == nullptr) std::exchange(quiet_, {})();
  next();
}

void ModuleThread::serve() {
  std::unique_lock lock(guard_);
  for (;;) {
    changed_.wait(lock, [this] { return handed_ != nullptr || leaving_; });
    if (handed_ == nullptr) return;
    const std::shared_ptr<Job> job = std::move(handed_);
    handed_.reset();
    lock.unlock();
    try {
      job->worker_.run([&job] { job->work_(*job); });
    } catch (const host::Failure& failure) {
      if (failure.outcome() != host::Outcome::Stopped)
        std::fprintf(stderr, "wrxd: %s\n", failure.what());
    }
    job->work_ = {};
    loop_.post([this] { ended(); });
    lock.lock();
  }
}

}  // namespace wrx::service
