// SPDX-License-Identifier: LGPL-2.1-or-later
// The service's command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>

namespace wrx::service {

struct Options {
  std::string config;  ///< the drivers' configuration; empty: none
  std::string plugin;
  std::string state;                      ///< folder of the database and the trace
  std::chrono::seconds idle_exit{60};     ///< 0: never
  std::chrono::milliseconds wait{30000};  ///< the driver's own limit of one wait for a finger
  std::optional<std::string> script;      ///< a simulated module and what happens to it
  std::string control;                    ///< socket to steer it by; empty: none

  std::string database() const { return state + (script ? "/simulated.db" : "/features.db"); }
  std::string trace() const { return state + "/trace.log"; }
  std::string module_memory() const { return state + "/simulated-module"; }
};

/// The options, or the exit code after a request for help or a mistake, which was then printed.
std::variant<Options, int> parse_options(int argc, char** argv);

}  // namespace wrx::service
