// SPDX-License-Identifier: LGPL-2.1-or-later
// The host's feature database, whatever stands in its file: it opens, or says why not; what opens
// can be read, added to and cleaned.
#include <libbiometric.h>

#include "fuzz/scratch.h"

namespace {

constexpr char kFile[] = "features.db";

void store(sqlite3* db) {
  feature_info* info = bio_sto_new_feature_info(1, 0, "wrx5300", 2, "finger");
  info->sample = bio_sto_new_feature_sample(-1, "data");
  info->sample->next = bio_sto_new_feature_sample(-1, "");
  bio_sto_set_feature_info(db, info);
  bio_sto_free_feature_info_list(info);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bio_host_set_db_path(kFile);
  bio_host_set_hook([](void*, bio_dev*, bio_event, int, const char*) {}, nullptr);
  wrx_fuzz::write_file(kFile, {reinterpret_cast<const char*>(data), size});
  std::filesystem::remove(std::string(kFile) + "-journal");
  if (sqlite3* db = bio_sto_connect_db()) {
    bio_sto_free_feature_info_list(bio_sto_get_feature_info(db, -1, 0, "wrx5300", 0, -1));
    store(db);
    bio_sto_clean_feature_info(db, 1, 0, "wrx5300", 0, -1);
    bio_sto_free_feature_info_list(bio_sto_get_feature_info(db, 1, 0, "wrx5300", 0, -1));
    bio_sto_disconnect_db(db);
  }
  return 0;
}
