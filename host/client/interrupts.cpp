// SPDX-License-Identifier: LGPL-2.1-or-later
// The thread that takes the signals.

#include "interrupts.h"

#include <pthread.h>

#include <csignal>

namespace wrx::client {
namespace {

// Wakes the thread when there is nothing more to wait for.
constexpr int kEnough = SIGUSR2;

sigset_t awaited() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, kEnough})
    sigaddset(&set, signal);
  return set;
}

}  // namespace

void block_interrupts() {
  const sigset_t set = awaited();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // A reader that went away shows as a failed write, not as a sudden end.
  std::signal(SIGPIPE, SIG_IGN);
}

Interrupts::Interrupts(std::function<void()> first, std::function<void()> second)
    : thread_([first = std::move(first), second = std::move(second)] {
        const sigset_t set = awaited();
        for (bool again = false;; again = true) {
          int signal = 0;
          if (sigwait(&set, &signal) != 0 || signal == kEnough) return;
          again ? second() : first();
        }
      }) {}

Interrupts::~Interrupts() {
  pthread_kill(thread_.native_handle(), kEnough);
  thread_.join();
}

}  // namespace wrx::client
