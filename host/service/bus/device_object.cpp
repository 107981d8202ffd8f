// SPDX-License-Identifier: LGPL-2.1-or-later
// The interface's methods.

#include "host/service/bus/device_object.h"

#include <pwd.h>

#include <limits>

#include "device_description.h"
#include "host/common/driver_texts.h"
#include "host/service/reader/records.h"

namespace wrx::service {
namespace {

using Choice = Authority::Choice;

sdbus::Error bus_error(const Refusal& refusal) {
  return sdbus::Error(bus_name(refusal.error()), refusal.what());
}

/// The user named so; an empty name is the caller's own user.
int user_named(const std::string& name, const Client& caller) {
  const passwd* entry = name.empty() ? nullptr : getpwnam(name.c_str());
  if (entry == nullptr && !name.empty())
    throw Refusal(Error::Internal, "there is no user \"" + name + "\"");
  const uid_t uid = entry != nullptr ? entry->pw_uid : caller.uid;
  // The driver's users are signed numbers, and one of them means everybody.
  if (uid > std::numeric_limits<int>::max())
    throw Refusal(Error::Internal, "user ids of this size are not served");
  return static_cast<int>(uid);
}

/// What it takes to do something that needs one of `permissions` for user `uid`.
std::vector<Choice> needs(const Client& caller, int uid, const Choice& permissions) {
  std::vector<Choice> choices;
  if (uid != static_cast<int>(caller.uid)) choices.push_back({Permission::SetUsername});
  choices.push_back(permissions);
  return choices;
}

}  // namespace

DeviceObject::DeviceObject(sdbus::IConnection& bus, const std::string& path, Reader& reader,
                           Clients& clients, Authority& authority)
    : AdaptorInterfaces(bus, path),
      reader_(reader),
      clients_(clients),
      authority_(authority),
      properties_(getObject(), INTERFACE_NAME, kDeviceDescription,
                  {{"name", sdbus::Variant(std::string(reader.device().full_name))},
                   {"num-enroll-stages", sdbus::Variant(int32_t{host::kEnrolStages})},
                   {"scan-type", sdbus::Variant(std::string("press"))},
                   {"finger-present", sdbus::Variant(reader.fingerPresent())},
                   {"finger-needed", sdbus::Variant(reader.fingerNeeded())}}) {
  registerAdaptor();
  reader_.setListener(this);
}

DeviceObject::~DeviceObject() {
  reader_.setListener(nullptr);
  unregisterAdaptor();
}

// ---- calls --------------------------------------------------------------------------------------

template <class... Values>
DeviceObject::Call DeviceObject::receive(std::shared_ptr<sdbus::Result<Values...>> result) {
  const auto reply = [result](const Refusal* refusal) {
    if (refusal != nullptr) return result->returnError(bus_error(*refusal));
    if constexpr (sizeof...(Values) == 0) result->returnResults();
  };
  return {clients_.senderOf(*getObject().getCurrentlyProcessedMessage()), reply};
}

/// Does a part of a call; what it refuses is the call's answer.
void DeviceObject::attempt(const Call& call, const Step& step) {
  try {
    step();
  } catch (const Refusal& refusal) {
    call.reply(&refusal);
  }
}

/// Goes on with `step` when the authority agrees.
void DeviceObject::allowed(const Call& call, std::vector<Choice> choices, Step step) {
  const std::weak_ptr<bool> alive = alive_;
  authority_.ask(call.client, std::move(choices),
                 [call, alive, step = std::move(step)](bool agreed) {
                   attempt(call, [&] {
                     if (!agreed) throw Refusal(Error::PermissionDenied, "not authorised");
                     if (alive.expired())
                       throw Refusal(Error::NoSuchDevice, "the fingerprint reader is gone");
                     step();
                   });
                 });
}

void DeviceObject::Claim(sdbus::Result<>&& result, std::string username) {
  const Call call = receive(std::make_shared<sdbus::Result<>>(std::move(result)));
  attempt(call, [&] {
    reader_.requireFree();  // before anybody is asked for a password
    const int uid = user_named(username, *call.client);
    allowed(call, needs(*call.client, uid, {Permission::Verify, Permission::Enrol}),
            [this, call, uid] {
              reader_.claim(call.client->name, uid);
              call.reply(nullptr);
            });
  });
}

void DeviceObject::Release(sdbus::Result<>&& result) {
  const Call call = receive(std::make_shared<sdbus::Result<>>(std::move(result)));
  attempt(call, [&] { reader_.release(call.client->name, call.reply); });
}

void DeviceObject::VerifyStart(sdbus::Result<>&& result, std::string finger_name) {
  const Call call = receive(std::make_shared<sdbus::Result<>>(std::move(result)));
  attempt(call, [&] {
    reader_.claimedFor(call.client->name);
    allowed(call, {{Permission::Verify}}, [this, call, finger_name] {
      reader_.verify(call.client->name, finger_name);
      call.reply(nullptr);
    });
  });
}

void DeviceObject::VerifyStop(sdbus::Result<>&& result) {
  const Call call = receive(std::make_shared<sdbus::Result<>>(std::move(result)));
  attempt(call, [&] { reader_.stop(call.client->name, Use::Verify, call.reply); });
}

void DeviceObject::EnrollStart(sdbus::Result<>&& result, std::string finger_name) {
  const Call call = receive(std::make_shared<sdbus::Result<>>(std::move(result)));
  attempt(call, [&] {
    reader_.claimedFor(call.client->name);
    allowed(call, {{Permission::Enrol}}, [this, call, finger_name] {
      reader_.enrol(call.client->name, finger_name);
      call.reply(nullptr);
    });
  });
}

void DeviceObject::EnrollStop(sdbus::Result<>&& result) {
  const Call call = receive(std::make_shared<sdbus::Result<>>(std::move(result)));
  attempt(call, [&] { reader_.stop(call.client->name, Use::Enrol, call.reply); });
}

// ---- stored fingers -----------------------------------------------------------------------------

void DeviceObject::ListEnrolledFingers(sdbus::Result<std::vector<std::string>>&& result,
                                       std::string username) {
  using Names = std::vector<std::string>;
  const auto answer = std::make_shared<sdbus::Result<Names>>(std::move(result));
  const Call call = receive(answer);
  attempt(call, [&] {
    const int uid = user_named(username, *call.client);
    allowed(call, needs(*call.client, uid, {Permission::Verify}), [this, answer, uid] {
      Names names;
      for (const int index : stored_indexes(reader_.device(), uid, 0, kFingers - 1))
        names.emplace_back(finger_name(index));
      if (names.empty()) throw Refusal(Error::NoEnrolledPrints, "no finger is enrolled");
      answer->returnResults(names);
    });
  });
}

void DeviceObject::DeleteEnrolledFingers(sdbus::Result<>&& result, std::string username) {
  const Call call = receive(std::make_shared<sdbus::Result<>>(std::move(result)));
  attempt(call, [&] {
    reader_.requireNoOther(call.client->name);
    const int uid = user_named(username, *call.client);
    allowed(call, needs(*call.client, uid, {Permission::Enrol}),
            [this, call, uid] { reader_.remove(call.client->name, uid, 0, -1, call.reply); });
  });
}

void DeviceObject::DeleteEnrolledFingers2(sdbus::Result<>&& result) {
  const Call call = receive(std::make_shared<sdbus::Result<>>(std::move(result)));
  attempt(call, [&] {
    reader_.claimedFor(call.client->name);
    allowed(call, {{Permission::Enrol}}, [this, call] {
      const int uid = reader_.claimedFor(call.client->name);
      reader_.remove(call.client->name, uid, 0, -1, call.reply);
    });
  });
}

void DeviceObject::DeleteEnrolledFinger(sdbus::Result<>&& result, std::string finger_name) {
  const Call call = receive(std::make_shared<sdbus::Result<>>(std::move(result)));
  attempt(call, [&] {
    reader_.claimedFor(call.client->name);
    const auto index = finger_index(finger_name);
    if (!index)
      throw Refusal(Error::InvalidFingername, "there is no finger \"" + finger_name + "\"");
    allowed(call, {{Permission::Enrol}}, [this, call, index = *index] {
      const int uid = reader_.claimedFor(call.client->name);
      reader_.remove(call.client->name, uid, index, index, call.reply);
    });
  });
}

}  // namespace wrx::service
