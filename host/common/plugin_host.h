// SPDX-License-Identifier: LGPL-2.1-or-later
// A driver plug-in as its host sees it: loaded, configured, started, then opened and closed around
// each operation. Reusable by every program that hosts the driver.
#pragma once

#include <string>

#include "libbiometric.h"

namespace wrx::host {

/// Owns one loaded plug-in. The record and the library stay in memory until the process ends, as
/// in a framework service, because a driver never gives its private record back.
///
/// One thread at a time may call it, but for stop().
class PluginHost {
 public:
  /// Loads `plugin`, reads the drivers' configuration `config` (empty: none) and configures the
  /// driver. Throws Failure.
  PluginHost(const std::string& plugin, const std::string& config);
  PluginHost(const PluginHost&) = delete;
  PluginHost& operator=(const PluginHost&) = delete;
  /// Closes an open device and tells the driver that it is no longer needed.
  ~PluginHost();

  bio_dev& device() { return *device_; }
  const bio_dev& device() const { return *device_; }

  /// The driver's start-up, once: may replace the module's firmware, so it can take a minute.
  void initialise();

  /// How many modules the driver sees.
  int discover();

  /// Opens the device for one operation. Throws Failure (Refused when disabled, Absent).
  void open();
  void close();

  /// Asks the running operation to stop, and waits for at most three seconds. Does nothing while
  /// the device is idle. From another thread than the operation's.
  void stop();

  /// Whether the last command that the driver could send to the module brought no answer; false for
  /// a plug-in that does not tell. On the thread of the operation, where the driver announces
  /// something.
  bool unanswered() const;

  /// An exported function of the plug-in. Throws Failure when it has none of this name.
  template <class Function>
  Function* function(const char* name) const {
    return reinterpret_cast<Function*>(symbol(name));
  }

 private:
  void* symbol(const char* name) const;

  bio_dev* device_;
  std::string plugin_;
  bool open_ = false;
};

/// Opens the device for as long as it lives.
class OpenDevice {
 public:
  explicit OpenDevice(PluginHost& host) : host_(host) { host_.open(); }
  ~OpenDevice() { host_.close(); }
  OpenDevice(const OpenDevice&) = delete;
  OpenDevice& operator=(const OpenDevice&) = delete;

 private:
  PluginHost& host_;
};

}  // namespace wrx::host
