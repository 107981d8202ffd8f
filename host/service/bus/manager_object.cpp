// SPDX-License-Identifier: LGPL-2.1-or-later
// Answers of the manager.

#include "host/service/bus/manager_object.h"

#include <memory>
#include <utility>

#include "host/service/reader/words.h"

namespace wrx::service {

ManagerObject::ManagerObject(sdbus::IConnection& bus, std::function<void()> asked)
    : AdaptorInterfaces(bus, "/net/reactivated/Fprint/Manager"), asked_(std::move(asked)) {
  registerAdaptor();
}

ManagerObject::~ManagerObject() {
  unregisterAdaptor();
}

void ManagerObject::setDevice(const std::string& path) {
  device_ = path;
  known_ = true;
  for (const auto& answer : std::exchange(waiting_, {}))
    answer();
}

void ManagerObject::whenKnown(std::function<void()> answer) {
  asked_();
  if (known_) return answer();
  waiting_.push_back(std::move(answer));
}

void ManagerObject::GetDevices(sdbus::Result<std::vector<sdbus::ObjectPath>>&& result) {
  using Paths = std::vector<sdbus::ObjectPath>;
  const auto reply = std::make_shared<sdbus::Result<Paths>>(std::move(result));
  whenKnown([this, reply] {
    reply->returnResults(device_.empty() ? Paths() : Paths{sdbus::ObjectPath(device_)});
  });
}

void ManagerObject::GetDefaultDevice(sdbus::Result<sdbus::ObjectPath>&& result) {
  const auto reply = std::make_shared<sdbus::Result<sdbus::ObjectPath>>(std::move(result));
  whenKnown([this, reply] {
    if (!device_.empty()) return reply->returnResults(sdbus::ObjectPath(device_));
    reply->returnError(sdbus::Error(bus_name(Error::NoSuchDevice), "no fingerprint reader"));
  });
}

}  // namespace wrx::service
