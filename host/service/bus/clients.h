// SPDX-License-Identifier: LGPL-2.1-or-later
// Who on the bus has something to wait for, and who has left it.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace wrx::service {

/// A client during one call.
struct Client {
  std::string name;   ///< its unique name on the bus
  uid_t uid = 0;      ///< the user it runs as
  bool gone = false;  ///< it has left the bus since
};

class Clients {
 public:
  /// `left` is called with the unique name of everybody who leaves the bus.
  Clients(sdbus::IConnection& bus, std::function<void(const std::string&)> left);

  /// The sender of a message. Throws sdbus::Error when it is not to be found any more.
  std::shared_ptr<Client> senderOf(const sdbus::Message& message);

  /// Whether a call is under way.
  bool busy() const;

 private:
  void nameChanged(sdbus::Message& message);

  std::function<void(const std::string&)> left_;
  std::multimap<std::string, std::weak_ptr<Client>> known_;
  sdbus::Slot match_;
};

}  // namespace wrx::service
