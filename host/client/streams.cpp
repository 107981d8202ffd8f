// SPDX-License-Identifier: LGPL-2.1-or-later
// Turning standard output to the trace.

#include "streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "host/common/folders.h"
#include "host/common/outcome.h"

namespace wrx::client {
namespace {

/// Its user's alone: a trace holds user ids, slots, serial number and pieces of an image. A named
/// file's folder is not made, since a misspelt one would be.
int open_trace(const std::string& path, bool named) {
  if (!named && !host::make_folder_of(path)) return -1;
  return host::open_private(path, O_TRUNC);
}

bool dumb_terminal() {
  const char* kind = std::getenv("TERM");
  return kind == nullptr || std::string_view(kind) == "dumb";
}

}  // namespace

Streams::Streams(const std::string& trace, bool named)
    : own_(fdopen(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "w")),
      terminal_(isatty(STDOUT_FILENO) == 1 && !dumb_terminal()) {
  if (own_ == nullptr) own_ = std::fopen("/dev/null", "we");
  int file = open_trace(trace, named);
  if (file < 0 && named) {
    const std::string why = "the trace " + trace + " cannot be made: " + std::strerror(errno);
    throw host::Failure(host::Outcome::Usage, why);
  }
  if (file < 0) file = open("/dev/null", O_WRONLY | O_CLOEXEC);
  std::fflush(stdout);
  dup2(file, STDOUT_FILENO);
  close(file);
  // Whole lines, so that a trace is complete up to the moment of an abrupt end.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

Streams::~Streams() {
  std::fflush(stdout);
  std::fclose(own_);
}

}  // namespace wrx::client
