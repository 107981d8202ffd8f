// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver in a world of its own, for measuring: a scratch folder under its paths, a simulated
// module, virtual time. What the driver prints goes to /dev/null.
#pragma once

#include <libbiometric.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include "module/device.h"
#include "support/virtual_clock.h"

namespace wrx_bench {

/// Standard output is /dev/null while one of these lives.
class Quiet {
 public:
  Quiet();
  ~Quiet();
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  std::FILE* shown_;
};

class World {
 public:
  static constexpr int kUser = 1000;

  /// The driver started on an instant module, its log file switched on or off.
  explicit World(bool log_file);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  /// One enrolment of twelve good presses. False when it did not succeed.
  bool enrol();
  /// Bytes in the driver's log file.
  static std::uintmax_t logged();
  /// Removes what was enrolled.
  void clean();

 private:
  Quiet quiet_;
  std::string scratch_;
  wrx_test::VirtualClock clock_;
  wrx_module::Device device_;
  bio_dev dev_{};
};

/// CPU time of this process so far.
std::chrono::nanoseconds cpu_time();

}  // namespace wrx_bench
