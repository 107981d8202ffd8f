// SPDX-License-Identifier: LGPL-2.1-or-later
// The list of readers on the bus.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <string>
#include <vector>

#include "net.reactivated.Fprint.Manager.adaptor.h"

namespace wrx::service {

class ManagerObject final
    : public sdbus::AdaptorInterfaces<net::reactivated::Fprint::Manager_adaptor> {
 public:
  /// `asked` is called for every call, before it is answered.
  ManagerObject(sdbus::IConnection& bus, std::function<void()> asked);
  ManagerObject(const ManagerObject&) = delete;
  ManagerObject& operator=(const ManagerObject&) = delete;
  ~ManagerObject();

  /// Which reader there is (empty: none). Questions that came before the first time are answered
  /// now: the driver's start-up may take its time.
  void setDevice(const std::string& path);

 private:
  void GetDevices(sdbus::Result<std::vector<sdbus::ObjectPath>>&& result) override;
  void GetDefaultDevice(sdbus::Result<sdbus::ObjectPath>&& result) override;
  void whenKnown(std::function<void()> answer);

  std::function<void()> asked_;
  std::string device_;
  bool known_ = false;
  std::vector<std::function<void()>> waiting_;
};

}  // namespace wrx::service
