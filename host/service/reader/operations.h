// SPDX-License-Identifier: LGPL-2.1-or-later
// The stories of the service's operations, told with the driver's callbacks: open, one operation,
// close. All of them run on the module's thread.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>

#include "host/common/outcome.h"
#include "host/service/reader/driver_events.h"
#include "host/service/reader/module_thread.h"
#include "host/service/reader/words.h"

namespace wrx::service {

/// How an operation ended, and which finger a search has found (-1: none, or no search).
struct Verdict {
  Ending ending = Ending::Stopped;
  int finger = -1;
};

/// Told once, as soon as it is known: before the channel is closed.
using Tell = std::function<void(const Verdict&)>;

enum class Removal { Done, ModuleFailed, StoreFailed };

class Operations {
 public:
  Operations(host::PluginHost& host, DriverEvents& events) : host_(host), events_(events) {}

  /// Whether there is a module to use.
  bool discover();
  void attach() { host_.device().ops_attach(&host_.device()); }
  void detach() { host_.device().ops_detach(&host_.device()); }

  /// Waits for a finger, for as long as it takes, and compares it with one of the user's.
  void verify(Job& job, int uid, int finger, const Tell& tell);
  /// The same with all of the user's.
  void search(Job& job, int uid, const Tell& tell);
  /// Takes a new finger. `pressed` hears of every press.
  void enrol(Job& job, int uid, int finger, const std::function<void(Press)>& pressed,
             const Tell& tell);
  /// Deletes the user's fingers from `first` to `last` (-1: no upper end).
  Removal remove(int uid, int first, int last);

  /// Until then a module that is absent is waited for: it was there before the machine slept. From
  /// any thread.
  void expectReturn(std::chrono::steady_clock::time_point until) { returns_until_ = until; }
  bool returnExpected() const { return std::chrono::steady_clock::now() < returns_until_.load(); }

 private:
  using Round = std::function<Verdict()>;

  void await(Job& job, const Round& round, const Tell& tell);
  bool open(const Job& job, Verdict& why_not);
  host::Outcome outcome() const;
  Verdict lost();

  host::PluginHost& host_;
  DriverEvents& events_;
  std::atomic<std::chrono::steady_clock::time_point> returns_until_{};
};

}  // namespace wrx::service
