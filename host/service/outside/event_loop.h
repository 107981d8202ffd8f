// SPDX-License-Identifier: LGPL-2.1-or-later
// The service's one waiting place: the bus, other descriptors, timers, and what other threads hand
// over. Everything but the driver's own calls happens on its thread.
#pragma once

#include <sdbus-c++/IConnection.h>

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace wrx::service {

class EventLoop {
 public:
  using Action = std::function<void()>;
  using Clock = std::chrono::steady_clock;
  using Timer = unsigned;

  /// Throws std::system_error when the kernel has no descriptor left.
  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Runs `action` on the loop's thread, in the order of the calls. From any thread.
  void post(Action action);

  /// Calls `readable` whenever there is something to read. The descriptor stays the caller's.
  void watch(int descriptor, Action readable);
  /// Ends the watch; allowed while its own action runs.
  void unwatch(int descriptor);

  /// Calls `action` once, that much later. A timer that ran or was cancelled may be cancelled, and
  /// so may Timer{}, which is none.
  Timer after(Clock::duration delay, Action action);
  void cancel(Timer timer);

  /// Calls `settled` each time when all that came has been served, before the loop waits for more.
  void beforeWaiting(Action settled) { settled_ = std::move(settled); }

  /// Serves until quit(). Before it returns, what is on its way to the bus is sent.
  void run(sdbus::IConnection& bus);
  void quit() { quitting_ = true; }

  /// Handles what has arrived on the bus, without waiting.
  static void serve(sdbus::IConnection& bus);

 private:
  struct Due {
    Clock::time_point at;
    Action action;
  };

  void wait(sdbus::IConnection& bus);
  void runPosted();
  void runTimers();
  int timeoutMs(const sdbus::IConnection::PollData& bus) const;

  int wake_;  // an eventfd that post() writes to
  std::mutex guard_;
  std::vector<Action> posted_;  // guarded
  std::map<int, Action> watched_;
  std::map<Timer, Due> timers_;
  Timer last_timer_ = 0;
  Action settled_ = [] {};
  bool quitting_ = false;
};

}  // namespace wrx::service
