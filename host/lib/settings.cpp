// SPDX-License-Identifier: LGPL-2.1-or-later
// What the host set, and the small questions a driver asks of its framework.

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

#include "events.h"

namespace wrx::framework {
namespace {

std::mutex path_guard;
std::string chosen_path;

std::atomic<int> ops_timeout_ms = 10000;
std::atomic<int> busy_ms = 2000;
std::atomic<int> last_driver_id = 0;

/// Indexes the user has a feature under, ascending. False when the database cannot be read.
bool taken_indexes(bio_dev* dev, int uid, int start, int end, std::vector<int>& taken) {
  sqlite3* db = bio_sto_connect_db();
  if (db == nullptr) return false;
  feature_info* list = nullptr;
  const int code =
      bio_host_read_features(db, uid, dev->bioinfo.biotype, dev->device_name, start, end, &list);
  bio_sto_disconnect_db(db);
  for (const feature_info* info = list; info != nullptr; info = info->next)
    taken.push_back(info->index);
  bio_sto_free_feature_info_list(list);
  std::ranges::sort(taken);
  return code == 0;
}

}  // namespace

std::string database_path() {
  const std::lock_guard lock(path_guard);
  if (!chosen_path.empty()) return chosen_path;
  return std::string(g_get_user_data_dir()) + "/wrx5300/features.db";
}

int database_busy_ms() {
  return busy_ms;
}

}  // namespace wrx::framework

using namespace wrx::framework;

extern "C" {

void bio_host_set_db_path(const char* path) {
  const std::lock_guard lock(path_guard);
  chosen_path = path != nullptr ? path : "";
}

void bio_host_set_db_busy_ms(int wait_ms) {
  busy_ms = std::max(wait_ms, 0);
}

void bio_host_set_ops_timeout_ms(int timeout_ms) {
  ops_timeout_ms = std::max(timeout_ms, 0);
}

int bio_get_ops_timeout_ms(void) {
  return ops_timeout_ms;
}

int bio_get_empty_driver_id(void) {
  return ++last_driver_id;
}

int bio_dev_is_enable(bio_dev* dev, GKeyFile* conf) {
  if (dev == nullptr || dev->device_name == nullptr || conf == nullptr) return 1;
  GError* error = nullptr;
  const gboolean enabled = g_key_file_get_boolean(conf, dev->device_name, "Enable", &error);
  if (error == nullptr) return enabled ? 1 : 0;
  const bool absent = g_error_matches(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_KEY_NOT_FOUND) ||
                      g_error_matches(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_GROUP_NOT_FOUND);
  if (!absent) bio_print_error("driver %s: \"Enable\": %s\n", dev->device_name, error->message);
  g_error_free(error);
  return 1;
}

int bio_common_get_empty_index(bio_dev* dev, int uid, int start, int end) {
  std::vector<int> taken;
  if (dev == nullptr || start < 0 || !taken_indexes(dev, uid, start, end, taken)) return -1;
  int candidate = start;
  for (const int index : taken)
    if (index == candidate) ++candidate;
  return end == -1 || candidate <= end ? candidate : -1;
}

}  // extern "C"
