// SPDX-License-Identifier: LGPL-2.1-or-later
// A delay inhibitor and the signal before and after sleep.

#include "host/service/outside/sleep_watch.h"

#include <string>
#include <utility>

namespace wrx::service {
namespace {

constexpr char kBusName[] = "org.freedesktop.login1";
constexpr char kPath[] = "/org/freedesktop/login1";
constexpr char kInterface[] = "org.freedesktop.login1.Manager";

}  // namespace

SleepWatch::SleepWatch(sdbus::IConnection& bus, std::function<void(std::function<void()>)> going,
                       std::function<void()> back)
    : going_(std::move(going)),
      back_(std::move(back)),
      logind_(sdbus::createProxy(bus, kBusName, kPath)) {
  logind_->uponSignal("PrepareForSleep").onInterface(kInterface).call([this](bool sleeping) {
    prepare(sleeping);
  });
  logind_->finishRegistration();
}

void SleepWatch::hold(bool wanted) {
  wanted_ = wanted;
  if (!wanted_) inhibitor_.reset();
  if (wanted_ && !asleep_ && !asked_ && !inhibitor_.isValid()) take();
}

void SleepWatch::take() {
  asked_ = true;
  logind_->callMethodAsync("Inhibit")
      .onInterface(kInterface)
      .withArguments(std::string("sleep"), std::string("wrxd"),
                     std::string("the fingerprint reader is in use"), std::string("delay"))
      .uponReplyInvoke([this](const sdbus::Error* error, const sdbus::UnixFd& inhibitor) {
        asked_ = false;
        if (error == nullptr && wanted_ && !asleep_) inhibitor_ = inhibitor;
      });
}

void SleepWatch::prepare(bool sleeping) {
  asleep_ = sleeping;
  if (sleeping) return going_([this] { inhibitor_.reset(); });
  back_();
  hold(wanted_);
}

}  // namespace wrx::service
