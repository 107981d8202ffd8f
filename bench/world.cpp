// SPDX-License-Identifier: LGPL-2.1-or-later
// Setting up and taking down the measured world, and what is done in it.
#include "world.h"

#include <glib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "base/log.h"
#include "frame/driver.h"
#include "module/usb/bus.h"
#include "transport/usb_device.h"

namespace wrx_bench {

namespace fs = std::filesystem;

namespace {

constexpr int kUser = 1000;
constexpr char kDatabase[] = "feature.db";
constexpr char kFilled[] = "filled.db";

wrx_module::Settings instant() {
  wrx_module::Settings settings;
  settings.identity.capacity = 1024;
  settings.link.empty_read = wrx_module::EmptyRead::answers_empty;
  settings.procedure.form = wrx_module::ResultForm::single;  // the list has slots below 256 only
  return settings;
}

std::string enter_scratch_folder(bool log_file) {
  const fs::path memory = "/dev/shm";
  const fs::path parent = fs::is_directory(memory) ? memory : fs::temp_directory_path();
  std::string folder = (parent / "wrx-bench-XXXXXX").string();
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

World::World(bool log_file) : scratch_(enter_scratch_folder(log_file)), module_(clock_, instant()) {
  wrx_module::bus().reset();
  wrx_module::bus().set_clock(clock_);
  wrx_module::bus().attach(module_);
  bio_host_set_db_path(kDatabase);
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
  for (int press = 0; press < kPresses; ++press)
    module_.queue_press({});
  std::string name = "finger";
  dev_.ops_enroll(&dev_, ACTION_START, kUser, 0, name.data());
  return bio_get_ops_result(&dev_) == OPS_ENROLL_SUCCESS;
}

bool World::verify() {
  module_.queue_press({.finger = finger_});
  dev_.ops_verify(&dev_, ACTION_START, kUser, stored_ - 1);
  return bio_get_ops_result(&dev_) == OPS_VERIFY_MATCH;
}

bool World::search() {
  module_.queue_press({.finger = finger_});
  feature_info* found = dev_.ops_search(&dev_, ACTION_START, kUser, 0, -1);
  const bool good = found != nullptr && found->index == stored_ - 1 && found->next == nullptr;
  bio_sto_free_feature_info_list(found);
  return good;
}

bool World::clean() {
  return dev_.ops_clean(&dev_, ACTION_START, kUser, 0, -1) == 0 &&
         module_.memory().templates.empty();
}

void World::store(int count) {
  for (int i = 0; i < count; ++i) {
    finger_ = "finger" + std::to_string(i);
    module_.memory().templates[static_cast<uint16_t>(i)] = finger_;
  }
  // The same database again is a copy, not as many transactions.
  if (count == stored_) {
    fs::copy_file(kFilled, kDatabase, fs::copy_options::overwrite_existing);
    return;
  }
  stored_ = count;
  store_features();
  fs::copy_file(kDatabase, kFilled, fs::copy_options::overwrite_existing);
}

void World::store_features() {
  sqlite3* db = bio_sto_connect_db();
  for (int i = 0; i < stored_; ++i) {
    feature_info* feature =
        bio_sto_new_feature_info(kUser, dev_.bioinfo.biotype, dev_.device_name, i, "finger");
    feature->sample = bio_sto_new_feature_sample(-1, "");
    feature->sample->no = i;
    if (bio_sto_set_feature_info(db, feature) != 0) std::abort();
    bio_sto_free_feature_info_list(feature);
  }
  bio_sto_disconnect_db(db);
}

std::uintmax_t World::logged() {
  std::error_code absent;
  const std::uintmax_t size = fs::file_size("etc/wrx6600/extra/log_wrx.txt", absent);
  return absent ? 0 : size;
}

}  // namespace wrx_bench
