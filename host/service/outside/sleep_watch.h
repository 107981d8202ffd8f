// SPDX-License-Identifier: LGPL-2.1-or-later
// Sleep of the machine, as logind tells it. While a client holds the reader, sleep is held up until
// the channel to the module is closed.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <memory>

namespace wrx::service {

class SleepWatch {
 public:
  /// `going` is called before sleep, with what is to be called when all is quiet; `back` after it.
  SleepWatch(sdbus::IConnection& bus, std::function<void(std::function<void()>)> going,
             std::function<void()> back);
  SleepWatch(const SleepWatch&) = delete;
  SleepWatch& operator=(const SleepWatch&) = delete;

  /// Whether sleep is to be held up. Without logind on the bus nothing is.
  void hold(bool wanted);

 private:
  void prepare(bool sleeping);
  void take();

  std::function<void(std::function<void()>)> going_;
  std::function<void()> back_;
  bool wanted_ = false;
  bool asked_ = false;  // for an inhibitor that has not come yet
  bool asleep_ = false;
  sdbus::UnixFd inhibitor_;
  std::unique_ptr<sdbus::IProxy> logind_;
};

}  // namespace wrx::service
