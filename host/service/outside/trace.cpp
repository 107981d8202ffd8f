// SPDX-License-Identifier: LGPL-2.1-or-later
// Standard output, turned to a file.

#include "host/service/outside/trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host/common/folders.h"
#include "host/common/outcome.h"

namespace wrx::service {
namespace {

constexpr off_t kLongest = off_t{4} * 1024 * 1024;

}  // namespace

Trace::Trace(const std::string& path) : path_(path) {
  begin();
  // Whole lines, so that a trace is complete up to the moment of an abrupt end.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

void Trace::begin() {
  const int file = host::open_private(path_, O_APPEND | O_NOFOLLOW);
  if (file < 0)
    throw host::Failure(host::Outcome::Usage, "the trace " + path_ + ": " + std::strerror(errno));
  std::fflush(stdout);
  dup2(file, STDOUT_FILENO);
  close(file);
}

void Trace::rotate() {
  std::fflush(stdout);
  struct stat now {};
  if (fstat(STDOUT_FILENO, &now) != 0 || now.st_size < kLongest) return;
  if (rename(path_.c_str(), (path_ + ".1").c_str()) != 0) return;
  try {
    begin();
  } catch (const host::Failure& failure) {  // the old one goes on, under its new name
    std::fprintf(stderr, "wrxd: %s\n", failure.what());
  }
}

}  // namespace wrx::service
