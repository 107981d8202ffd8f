// SPDX-License-Identifier: LGPL-2.1-or-later
// Senders, and the bus's word that they left.

#include "host/service/bus/clients.h"

#include <algorithm>

namespace wrx::service {

Clients::Clients(sdbus::IConnection& bus, std::function<void(const std::string&)> left)
    : left_(std::move(left)),
      match_(bus.addMatch("type='signal',sender='org.freedesktop.DBus',"
                          "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''",
                          [this](sdbus::Message& message) { nameChanged(message); })) {}

std::shared_ptr<Client> Clients::senderOf(const sdbus::Message& message) {
  std::erase_if(known_, [](const auto& entry) { return entry.second.expired(); });
  auto client = std::make_shared<Client>();
  client->name = message.getSender();
  client->uid = message.getCredsEuid();
  known_.emplace(client->name, client);
  return client;
}

bool Clients::busy() const {
  return std::ranges::any_of(known_, [](const auto& entry) { return !entry.second.expired(); });
}

void Clients::nameChanged(sdbus::Message& message) {
  std::string name;
  message >> name;
  const auto [first, last] = known_.equal_range(name);
  for (auto each = first; each != last; ++each)
    if (const auto client = each->second.lock()) client->gone = true;
  known_.erase(first, last);
  left_(name);
}

}  // namespace wrx::service
