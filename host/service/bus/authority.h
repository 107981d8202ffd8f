// SPDX-License-Identifier: LGPL-2.1-or-later
// May this client do that? Asked of polkit where the bus has it; without it, root may do
// everything, and everybody what concerns themselves.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <memory>
#include <vector>

#include "host/service/bus/clients.h"

namespace wrx::service {

enum class Permission { Verify, Enrol, SetUsername };

class Authority {
 public:
  /// `bus` must outlive it; polkit need not be there yet.
  explicit Authority(sdbus::IConnection& bus);

  /// Any one of these will do.
  using Choice = std::vector<Permission>;
  using Answer = std::function<void(bool allowed)>;

  /// Asks for one permission out of every choice, in their order; `answer` is called later. Polkit
  /// may meanwhile ask the client's user for a password.
  void ask(const std::shared_ptr<Client>& client, std::vector<Choice> choices, Answer answer);

 private:
  struct Question;

  void next(const std::shared_ptr<Question>& question);
  void answered(const std::shared_ptr<Question>& question, const sdbus::Error* error, bool allowed);

  std::unique_ptr<sdbus::IProxy> polkit_;
};

}  // namespace wrx::service
