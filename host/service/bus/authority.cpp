// SPDX-License-Identifier: LGPL-2.1-or-later
// Questions to polkit, one after another.

#include "host/service/bus/authority.h"

#include <map>
#include <string>
#include <utility>

namespace wrx::service {
namespace {

constexpr char kBusName[] = "org.freedesktop.PolicyKit1";
constexpr char kPath[] = "/org/freedesktop/PolicyKit1/Authority";
constexpr char kInterface[] = "org.freedesktop.PolicyKit1.Authority";

// In the order of Permission.
constexpr const char* kActions[] = {
    "net.reactivated.fprint.device.verify",
    "net.reactivated.fprint.device.enroll",
    "net.reactivated.fprint.device.setusername",
};

constexpr uint32_t kAllowUserInteraction = 1;
// Long enough for a person to find and type a password.
constexpr std::chrono::minutes kPatience{3};

using Details = std::map<std::string, std::string>;

const char* action(Permission permission) {
  return kActions[static_cast<int>(permission)];
}

bool no_authority(const sdbus::Error& error) {
  return error.getName() == "org.freedesktop.DBus.Error.ServiceUnknown" ||
         error.getName() == "org.freedesktop.DBus.Error.NameHasNoOwner";
}

}  // namespace

struct Authority::Question {
  std::shared_ptr<Client> client;
  std::vector<Choice> choices;
  Answer answer;
  std::size_t choice = 0;  // being asked
  std::size_t option = 0;  // of the choice

  Permission current() const { return choices[choice][option]; }
};

Authority::Authority(sdbus::IConnection& bus) : polkit_(sdbus::createProxy(bus, kBusName, kPath)) {
  polkit_->finishRegistration();
}

void Authority::ask(const std::shared_ptr<Client>& client, std::vector<Choice> choices,
                    Answer answer) {
  next(std::make_shared<Question>(Question{client, std::move(choices), std::move(answer)}));
}

void Authority::next(const std::shared_ptr<Question>& question) {
  using Subject = sdbus::Struct<std::string, std::map<std::string, sdbus::Variant>>;
  const Subject subject(
      std::string("system-bus-name"),
      std::map<std::string, sdbus::Variant>{{"name", sdbus::Variant(question->client->name)}});
  polkit_->callMethodAsync("CheckAuthorization")
      .onInterface(kInterface)
      .withTimeout(kPatience)
      .withArguments(subject, std::string(action(question->current())), Details(),
                     kAllowUserInteraction, std::string())
      .uponReplyInvoke([this, question](const sdbus::Error* error,
                                        const sdbus::Struct<bool, bool, Details>& result) {
        answered(question, error, error == nullptr && std::get<0>(result));
      });
}

void Authority::answered(const std::shared_ptr<Question>& question, const sdbus::Error* error,
                         bool allowed) {
  if (question->client->gone) return question->answer(false);
  if (error != nullptr && no_authority(*error))
    allowed = question->client->uid == 0 || question->current() != Permission::SetUsername;
  if (allowed) {
    question->option = 0;
    if (++question->choice == question->choices.size()) return question->answer(true);
  } else if (++question->option == question->choices[question->choice].size()) {
    return question->answer(false);
  }
  next(question);
}

}  // namespace wrx::service
