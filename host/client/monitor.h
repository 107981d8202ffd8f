// SPDX-License-Identifier: LGPL-2.1-or-later
// Listens to the framework while a driver is hosted: shows the driver's words and progress, writes
// the service log into the trace, and remembers what the result word will not tell.
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "libbiometric.h"
#include "output.h"

namespace wrx::client {

class Monitor {
 public:
  /// Takes the framework's hook for as long as it lives; one at a time.
  explicit Monitor(Output& output);
  ~Monitor();
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  /// Called (on the operation's thread) when the driver finds that the finger to be enrolled is
  /// the user's already; without a listener the driver goes on asking for another finger.
  void onDuplicate(std::function<void()> listener) { on_duplicate_ = std::move(listener); }
  /// Asked (on that thread) whether the module left the driver's last command without an answer.
  void askUnanswered(std::function<bool()> unanswered) { unanswered_ = std::move(unanswered); }

  /// The database's first failure, empty when there was none.
  std::string storeError() const;
  bool duplicate() const { return duplicate_; }
  bool full() const { return full_; }
  /// The driver said that there is no room, but the module had not answered it.
  bool silent() const { return silent_; }

 private:
  static void hear(void* self, bio_dev* dev, bio_event event, int number, const char* text);
  void driverSays(int number, const std::string& text);

  Output& output_;
  std::function<void()> on_duplicate_;
  std::function<bool()> unanswered_;
  mutable std::mutex guard_;
  std::string store_error_;
  // Of the operation's thread; read when it has ended.
  bool duplicate_ = false, full_ = false, silent_ = false, enrolling_ = false;
};

}  // namespace wrx::client
