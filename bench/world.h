// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver in a world of its own, for measuring: a scratch folder under its paths, in memory
// where the machine has one there, a simulated module, virtual time. What the driver prints goes to
// /dev/null.
#pragma once

#include <libbiometric.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "module/device/device.h"
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
  /// Presses that an enrolment uses up; the first is the check for a duplicate.
  static constexpr int kPresses = 13;

  /// The driver started on an instant module, its log file switched on or off.
  explicit World(bool log_file);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // The operations are the user's; each tells whether it ended as it should.

  /// One enrolment of twelve good presses.
  bool enrol();
  /// Verifies the finger stored last, and has it found among all.
  bool verify();
  bool search();
  /// Removes all that is stored.
  bool clean();

  /// Makes `count` features of the user, each with a template of its own on the module; 1 to 1024.
  void store(int count);
  /// Bytes in the driver's log file.
  static std::uintmax_t logged();
  wrx_module::Device& module() { return module_; }

 private:
  void store_features();

  Quiet quiet_;
  std::string scratch_;
  wrx_test::VirtualClock clock_;
  wrx_module::Device module_;
  bio_dev dev_{};
  std::string finger_;  // stored last
  int stored_ = 0;
};

}  // namespace wrx_bench
