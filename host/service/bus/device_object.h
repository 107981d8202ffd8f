// SPDX-License-Identifier: LGPL-2.1-or-later
// The reader on the bus: turns calls into the reader's, once the authority agrees, and the reader's
// news into signals.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/service/bus/authority.h"
#include "host/service/bus/clients.h"
#include "host/service/bus/properties.h"
#include "host/service/reader/reader.h"
#include "net.reactivated.Fprint.Device.adaptor.h"

namespace wrx::service {

class DeviceObject final
    : public sdbus::AdaptorInterfaces<net::reactivated::Fprint::Device_adaptor>,
      private ReaderListener {
 public:
  /// Publishes the object at `path` for as long as it lives.
  DeviceObject(sdbus::IConnection& bus, const std::string& path, Reader& reader, Clients& clients,
               Authority& authority);
  DeviceObject(const DeviceObject&) = delete;
  DeviceObject& operator=(const DeviceObject&) = delete;
  ~DeviceObject() override;

 private:
  /// One call from its arrival to its answer.
  struct Call {
    std::shared_ptr<Client> client;
    Reply reply;
  };
  using Step = std::function<void()>;

  // Methods of the interface.
  void ListEnrolledFingers(sdbus::Result<std::vector<std::string>>&& result,
                           std::string username) override;
  void DeleteEnrolledFingers(sdbus::Result<>&& result, std::string username) override;
  void DeleteEnrolledFingers2(sdbus::Result<>&& result) override;
  void DeleteEnrolledFinger(sdbus::Result<>&& result, std::string finger_name) override;
  void Claim(sdbus::Result<>&& result, std::string username) override;
  void Release(sdbus::Result<>&& result) override;
  void VerifyStart(sdbus::Result<>&& result, std::string finger_name) override;
  void VerifyStop(sdbus::Result<>&& result) override;
  void EnrollStart(sdbus::Result<>&& result, std::string finger_name) override;
  void EnrollStop(sdbus::Result<>&& result) override;

  // The reader's news.
  void fingerSelected(const std::string& finger) override { emitVerifyFingerSelected(finger); }
  void verifyStatus(const std::string& word, bool done) override { emitVerifyStatus(word, done); }
  void enrollStatus(const std::string& word, bool done) override { emitEnrollStatus(word, done); }
  void fingerNeededChanged() override {
    properties_.set("finger-needed", sdbus::Variant(reader_.fingerNeeded()));
  }
  void fingerPresentChanged() override {
    properties_.set("finger-present", sdbus::Variant(reader_.fingerPresent()));
  }

  template <class... Values>
  Call receive(std::shared_ptr<sdbus::Result<Values...>> result);
  static void attempt(const Call& call, const Step& step);
  void allowed(const Call& call, std::vector<Authority::Choice> choices, Step step);

  Reader& reader_;
  Clients& clients_;
  Authority& authority_;
  Properties properties_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // outlived by questions under way
};

}  // namespace wrx::service
