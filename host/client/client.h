// SPDX-License-Identifier: LGPL-2.1-or-later
// One run of the program behind its command line: the simulated module if wanted, the plug-in, the
// worker, and the steps that commands share.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "host/common/plugin_host.h"
#include "host/common/simulation.h"
#include "host/common/worker.h"
#include "monitor.h"
#include "options.h"
#include "output.h"

namespace wrx::client {

/// A stored fingerprint, as commands show it.
struct Finger {
  int uid = 0;
  int index = 0;
  std::string name;
  std::vector<int> slots;  ///< template slots on the module
};

class Client {
 public:
  /// Starts the simulation and loads the plug-in. Throws host::Failure.
  Client(const Options& options, Output& output);
  ~Client();

  const Options& options() const { return options_; }
  Output& output() { return output_; }
  Monitor& monitor() { return monitor_; }
  host::PluginHost& plugin() { return *plugin_; }
  bio_dev& device() { return plugin_->device(); }

  /// From any thread.
  void requestStop() { worker_.requestStop(); }
  bool stopRequested() const { return worker_.stopRequested(); }

  /// Runs a task of the driver's on the worker thread; `tick` is called meanwhile, on this one.
  void run(const std::function<void()>& task);
  void onTick(std::function<void()> tick) { tick_ = std::move(tick); }
  /// The running task is asked to stop after that time, and then counts as timed out; without a
  /// time, never. From any thread.
  void setDeadline(std::optional<int> timeout_ms);

  /// Runs one operation as a framework service would: database checked, driver started, module
  /// found and opened, `operation`, closed. `prompt` (may be empty) is said when the module is
  /// ready. The outcome is the result word's, unless the database failed or the time given by
  /// setDeadline ran out.
  host::Outcome operate(const std::string& prompt, const std::function<void(bio_dev&)>& operation);

  /// Runs an operation that reads the database alone; the module rests.
  host::Outcome consult(const std::function<void(bio_dev&)>& operation);

  /// Stored fingerprints of a selection, read from the database. Throws host::Failure.
  std::vector<Finger> fingers(int uid, int first, int last);

  /// The simulated module's state; empty on a real one.
  std::string simulatedState() const;
  /// Ends the simulation and keeps its memory. Throws host::Failure.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;

  void watch();
  host::Outcome outcome();
  void requireDatabase();
  bool moduleIsGone();

  const Options& options_;
  Output& output_;
  Monitor monitor_;
  std::unique_ptr<host::Simulation> simulation_;
  std::unique_ptr<host::PluginHost> plugin_;
  std::function<void()> tick_;
  std::atomic<Clock::time_point> deadline_ = Clock::time_point::max();
  bool timed_out_ = false;
  host::Worker worker_;
};

/// Why a command that needs the module has none.
std::string no_module();

/// A framework's list as plain values; the list is freed.
std::vector<Finger> taken(feature_info* list);

}  // namespace wrx::client
