// SPDX-License-Identifier: LGPL-2.1-or-later
// Steering the simulated module while the service runs: a local socket that takes one request a
// connection. The request ends where the asker shuts its side, the answer with the connection.
//
//   play\n<script>   →  ok\n   or   error: …\n
//   report\n         →  the module's state as JSON
#pragma once

#include <string>

#include "host/common/simulation.h"
#include "host/service/outside/event_loop.h"

namespace wrx::service {

class Control {
 public:
  /// Makes the socket `path`, for this user alone, in place of one that was left over. Throws
  /// host::Failure.
  Control(EventLoop& loop, const host::Simulation& simulation, const std::string& path);
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;
  /// Removes the socket.
  ~Control();

 private:
  void serve();
  std::string answer(const std::string& request) const;

  EventLoop& loop_;
  const host::Simulation& simulation_;
  std::string path_;
  int listener_;
};

}  // namespace wrx::service
