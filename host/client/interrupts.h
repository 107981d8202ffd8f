// SPDX-License-Identifier: LGPL-2.1-or-later
// Ctrl-C and its kin, taken by one thread that waits for them, so that no other code is ever
// interrupted in the middle.
#pragma once

#include <functional>
#include <thread>

namespace wrx::client {

/// Keeps the signals from every thread that is started later. Call it first in main().
void block_interrupts();

class Interrupts {
 public:
  /// `first` is called for the first signal, `second` for each later one; both on a thread of
  /// their own.
  Interrupts(std::function<void()> first, std::function<void()> second);
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

 private:
  std::thread thread_;
};

}  // namespace wrx::client
