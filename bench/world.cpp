// SPDX-License-Identifier: LGPL-2.1-or-later
// Setting up and taking down the measured world.
#include "world.h"

#include <glib.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "frame/driver.h"
#include "log.h"
#include "module/bus.h"
#include "transport/usb_device.h"

namespace wrx_bench {

namespace fs = std::filesystem;

namespace {

wrx_module::Settings instant() {
  wrx_module::Settings settings;
  settings.link.empty_read = wrx_module::EmptyRead::answers_empty;
  return settings;
}

std::string enter_scratch_folder(bool log_file) {
  std::string folder = (fs::temp_directory_path() / "wrx-bench-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr || chdir(folder.c_str()) != 0) std::abort();
  fs::create_directories("etc/biometric-auth/extra.conf.d");
  fs::create_directories("etc/wrx6600/extra");
  std::ofstream("etc/biometric-auth/extra.conf.d/vestrel-m6600.conf")
      << "[BASIC_PARAM]\nPrintfLogFlag=" << (log_file ? 1 : 0) << "\n";
  return folder;
}

}  // namespace

Quiet::Quiet() : shown_(stdout) {
  std::fflush(stdout);
  stdout = std::fopen("/dev/null", "we");
  if (stdout == nullptr) std::abort();
}

Quiet::~Quiet() {
  std::fclose(stdout);
  stdout = shown_;
}

World::World(bool log_file) : scratch_(enter_scratch_folder(log_file)), device_(clock_, instant()) {
  wrx_module::bus().reset();
  wrx_module::bus().set_clock(clock_);
  wrx_module::bus().attach(device_);
  bio_host_set_db_path("feature.db");
  GKeyFile* conf = g_key_file_new();
  ops_configure(&dev_, conf);
  g_key_file_free(conf);
  dev_.ops_driver_init(&dev_);
  dev_.ops_open(&dev_);
}

World::~World() {
  dev_.ops_close(&dev_);
  enable_printf_log(0);
  g_free(dev_.dev_priv);
  wrx_module::bus().reset();
  std::error_code ignored;
  fs::current_path(fs::temp_directory_path(), ignored);
  fs::remove_all(scratch_, ignored);
}

bool World::enrol() {
  // The first touch is the check for a duplicate.
  for (int press = 0; press < 13; ++press)
    device_.queue_press({});
  std::string name = "finger";
  dev_.ops_enroll(&dev_, ACTION_START, kUser, 0, name.data());
  return bio_get_ops_result(&dev_) == OPS_ENROLL_SUCCESS;
}

void World::clean() {
  dev_.ops_clean(&dev_, ACTION_START, kUser, 0, -1);
}

std::uintmax_t World::logged() {
  std::error_code absent;
  const std::uintmax_t size = fs::file_size("etc/wrx6600/extra/log_wrx.txt", absent);
  return absent ? 0 : size;
}

std::chrono::nanoseconds cpu_time() {
  struct timespec spent {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
  return std::chrono::seconds(spent.tv_sec) + std::chrono::nanoseconds(spent.tv_nsec);
}

}  // namespace wrx_bench
