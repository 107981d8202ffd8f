// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver on the bench: a scratch folder with the driver's system paths below it, a simulated
// module, virtual time, a stand-in framework with an empty feature database, and the trace of it
// all. One Rig a test.
#pragma once

#include <gtest/gtest.h>
#include <libbiometric.h>
#include <libusb-1.0/libusb.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "module/device/device.h"
#include "module/usb/bus.h"
#include "records/driver_info.h"
#include "support/recorder.h"
#include "support/virtual_clock.h"

namespace wrx_test {

/// A stored feature in few words.
struct Stored {
  int uid;
  int index;
  std::vector<int> slots;
  bool operator==(const Stored&) const = default;
};

class Rig {
 public:
  static constexpr int kUser = 1000;

  /// A bench with one instant module that answers empty reads at once, unless `settings` say
  /// otherwise.
  explicit Rig(const wrx_module::Settings& settings = instant());
  ~Rig();
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;
  static wrx_module::Settings instant();

  // ---- the world around the driver

  /// Writes a file below the scratch folder ("etc/…"), making its folders.
  void write_file(const std::string& path, const std::string& content);
  std::string read_file(const std::string& path);
  bool file_exists(const std::string& path);
  /// Makes a file's lines part of the trace.
  void show_file(const std::string& path);
  /// Content of the two configuration files' groups, for the next start.
  void extra_config(const std::string& keys);
  void host_config(const std::string& keys);
  /// Installs an image under `name` and selects it.
  void install_firmware(const std::string& name, const std::string& image);
  /// Puts a feature into the database; the framework's answer.
  int store(const Stored& feature, const char* name = "finger");
  /// What the database holds of a selection.
  std::vector<Stored> stored(int uid = -1, int start = 0, int end = -1);
  /// Runs a script of the module's language.
  void play(const std::string& script);
  /// Makes the driver lose its handle inside the `transfer`-th transfer from now.
  void lose_handle_at(int transfer);
  /// Slots of the module that hold a template.
  std::vector<int> slots();
  /// Codes of the commands that the module was given.
  std::vector<int> asked();
  /// Lets a user's stop come, on a thread of its own, `at_ms` from now.
  void stop_at(int64_t at_ms, int waiting_ms = 3000);

  // ---- the driver, called as a service does; each call is a step of the trace, which ends with
  // what it left in the driver's records

  int configure();
  int driver_init();
  /// configure and driver_init.
  void start();
  /// start and open; then the trace and the module's list of commands begin anew.
  void ready();
  int discover();
  int open();
  void close();
  int enroll(int uid = kUser, int index = 0, const char* name = "finger");
  int verify(int uid = kUser, int index = 0);
  int identify(int uid = -1, int start = 0, int end = -1);
  std::vector<Stored> search(int uid = kUser, int start = 0, int end = -1);
  int clean(int uid = kUser, int start = 0, int end = -1);
  std::vector<Stored> list(int uid = kUser, int start = 0, int end = -1);
  /// Any other call, as a step named `name`.
  int step(const std::string& name, const std::function<int()>& call);

  /// Virtual milliseconds that `call` takes.
  int64_t time_of(const std::function<void()>& call);
  int status() { return bio_get_dev_status(&dev); }
  int result() { return bio_get_ops_result(&dev); }
  int notification() { return bio_get_notify_mid(&dev); }
  driver_info& info() { return wrx::info_of(&dev); }

  bio_dev dev{};
  VirtualClock clock;
  Recorder trace;
  wrx_module::Device device;

 private:
  using Lister = feature_info* (*)(bio_dev*, OpsActions, int, int, int);
  std::vector<Stored> listed(const char* name, Lister call, int uid, int start, int end);

  struct KeyFileDeleter {
    void operator()(GKeyFile* file) const { g_key_file_free(file); }
  };
  std::string scratch_;
  std::vector<libusb_device_handle*> lost_;
  std::unique_ptr<GKeyFile, KeyFileDeleter> host_conf_;
};

}  // namespace wrx_test
