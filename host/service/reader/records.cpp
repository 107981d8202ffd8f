// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading stored fingers.

#include "host/service/reader/records.h"

#include "host/service/reader/words.h"

namespace wrx::service {

bool store_readable() {
  sqlite3* db = bio_sto_connect_db();
  if (db == nullptr) return false;
  bio_sto_disconnect_db(db);
  return true;
}

std::vector<int> stored_indexes(const bio_dev& device, int uid, int first, int last) {
  sqlite3* db = bio_sto_connect_db();
  if (db == nullptr) throw Refusal(Error::Internal, "the fingerprint database cannot be opened");
  feature_info* list = nullptr;
  const int code = bio_host_read_features(db, uid, device.bioinfo.biotype, device.device_name,
                                          first, last, &list);
  bio_sto_disconnect_db(db);
  std::vector<int> indexes;
  for (const feature_info* info = list; info != nullptr; info = info->next)
    indexes.push_back(info->index);
  bio_sto_free_feature_info_list(list);
  if (code != 0) throw Refusal(Error::Internal, "the fingerprint database cannot be read");
  return indexes;
}

}  // namespace wrx::service
