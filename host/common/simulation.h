// SPDX-License-Identifier: LGPL-2.1-or-later
// The simulated module in place of the real one. It must stand before the plug-in is loaded: its
// library's libusb names then come first for everything that is loaded later.
#pragma once

#include <string>

namespace wrx::host {

class Simulation {
 public:
  /// Loads the module's library and puts one module on the bus. `script` says what happens to its
  /// sensor, `templates` is the file its memory is kept in. Throws Failure.
  Simulation(const std::string& script, const std::string& templates);
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;
  /// Keeps the memory as finish() does, for endings by exception; a failure is then silent.
  ~Simulation();

  /// The module's state as JSON text; empty when there is none. From any thread.
  std::string report() const;

  /// Runs a further script on the module. Throws Failure when it is none. From any thread.
  void play(const std::string& script) const;

  /// Takes the module off the bus and keeps its memory. Throws Failure when it cannot be written.
  void finish();

 private:
  void* library_;
  bool running_ = false;
};

}  // namespace wrx::host
