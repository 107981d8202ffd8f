// SPDX-License-Identifier: LGPL-2.1-or-later
// One poll over everything.

#include "host/service/outside/event_loop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

namespace wrx::service {
namespace {

using std::chrono::milliseconds;

}  // namespace

EventLoop::EventLoop() : wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (wake_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

EventLoop::~EventLoop() {
  close(wake_);
}

void EventLoop::post(Action action) {
  {
    const std::lock_guard lock(guard_);
    posted_.push_back(std::move(action));
  }
  eventfd_write(wake_, 1);
}

void EventLoop::watch(int descriptor, Action readable) {
  watched_[descriptor] = std::move(readable);
}

void EventLoop::unwatch(int descriptor) {
  watched_.erase(descriptor);
}

EventLoop::Timer EventLoop::after(Clock::duration delay, Action action) {
  timers_[++last_timer_] = {Clock::now() + delay, std::move(action)};
  return last_timer_;
}

void EventLoop::cancel(Timer timer) {
  timers_.erase(timer);
}

void EventLoop::run(sdbus::IConnection& bus) {
  while (!quitting_) {
    runPosted();
    runTimers();
    serve(bus);
    if (quitting_) break;
    settled_();
    wait(bus);
  }
  runPosted();
  serve(bus);
}

void EventLoop::serve(sdbus::IConnection& bus) {
  while (bus.processPendingRequest()) {
  }
}

void EventLoop::wait(sdbus::IConnection& bus) {
  const auto from_bus = bus.getEventLoopPollData();
  std::vector<pollfd> set = {{from_bus.fd, from_bus.events, 0}, {wake_, POLLIN, 0}};
  for (const auto& [descriptor, ignored] : watched_)
    set.push_back({descriptor, POLLIN, 0});
  if (poll(set.data(), set.size(), timeoutMs(from_bus)) <= 0) return;
  eventfd_t ignored = 0;
  if (set[1].revents != 0) eventfd_read(wake_, &ignored);
  for (std::size_t i = 2; i < set.size(); ++i) {
    if (set[i].revents == 0) continue;
    // A copy: the action may end the watch.
    const auto found = watched_.find(set[i].fd);
    if (found == watched_.end()) continue;
    const Action readable = found->second;
    readable();
  }
}

void EventLoop::runPosted() {
  std::vector<Action> actions;
  {
    const std::lock_guard lock(guard_);
    actions.swap(posted_);
  }
  for (const Action& action : actions)
    action();
}

void EventLoop::runTimers() {
  const auto now = Clock::now();
  for (;;) {
    const auto due =
        std::ranges::find_if(timers_, [&](const auto& t) { return t.second.at <= now; });
    if (due == timers_.end()) return;
    const Action action = std::move(due->second.action);
    timers_.erase(due);
    action();
  }
}

int EventLoop::timeoutMs(const sdbus::IConnection::PollData& bus) const {
  auto longest = Clock::duration::max();
  if (const auto left = bus.getRelativeTimeout())
    longest = std::min<Clock::duration>(longest, *left);
  const auto now = Clock::now();
  for (const auto& [id, due] : timers_)
    longest = std::min(longest, std::max(due.at - now, Clock::duration::zero()));
  if (longest == Clock::duration::max()) return -1;
  const auto whole = std::chrono::ceil<milliseconds>(longest).count();
  return static_cast<int>(std::clamp<long long>(whole, 0, 3'600'000));
}

}  // namespace wrx::service
