// SPDX-License-Identifier: LGPL-2.1-or-later
// wrxd: the desktop's fingerprint service.

#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "host/common/outcome.h"
#include "host/service/service.h"

namespace {

constexpr int kFailed = 1;

/// A descriptor that tells of requests to end, or (SIGHUP) to make way. The signals are blocked in
/// every thread, since none has been started yet.
int ending_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

}  // namespace

int main(int argc, char** argv) {
  const auto parsed = wrx::service::parse_options(argc, argv);
  if (const int* code = std::get_if<int>(&parsed)) return *code;
  umask(0077);
  const int signals = ending_signals();
  try {
    wrx::service::Service service(std::get<wrx::service::Options>(parsed));
    service.run(signals);
    return 0;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "wrxd: %s\n", failure.what());
    return kFailed;
  }
}
