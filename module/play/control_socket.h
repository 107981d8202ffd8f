// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Steering a running module: a local stream socket that takes one request a connection and answers
// it. The request ends where the asker shuts its side; the answer ends with the connection.
//
//   play\n<script>   →  ok\n                 or  error: line 1, column 7: …\n
//   report\n         →  the report as JSON\n
#pragma once

#include <list>
#include <string>

#include "module/play/descriptor.h"
#include "module/play/stand.h"

namespace wrx_module {

/// Carries out one request, and its answer.
std::string answer_request(Stand& stand, const std::string& request);

class ControlSocket : public Served {
 public:
  /// Makes the socket `path`, in place of one left over by a dead process. Throws
  /// std::system_error.
  ControlSocket(Stand& stand, const std::string& path);
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;
  /// Removes the socket's file.
  ~ControlSocket() override;

  void watch(std::vector<pollfd>& set) override;
  void serve() override;
  int64_t next_event_us() override { return kNever; }

 private:
  struct Asker {
    Descriptor socket;
    std::string request, answer;
    bool answered = false;
  };

  void hear(Asker& asker);
  void say(Asker& asker);

  Stand& stand_;
  std::string path_;
  Descriptor listener_;
  std::list<Asker> askers_;
};

/// Asks the module behind the socket `path`. Throws std::system_error when nobody is there.
std::string ask(const std::string& path, const std::string& request);

}  // namespace wrx_module
