// SPDX-License-Identifier: LGPL-2.1-or-later
// The host's feature database, whatever stands in its file: it opens, or says why not.
#include <libbiometric.h>

#include "fuzz/scratch.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  wrx_fuzz::enter_scratch_folder();
  bio_host_set_db_path("features.db");
  bio_host_set_hook([](void*, bio_dev*, bio_event, int, const char*) {}, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The first byte says how much of a good database stands before the input.
  wrx_fuzz::Input input(data, size);
  const std::size_t kept = input.byte() * std::size_t{64};
  std::filesystem::remove("features.db");
  bio_sto_disconnect_db(bio_sto_connect_db());
  std::string content;
  {
    std::ifstream in("features.db", std::ios::binary);
    content.assign(std::istreambuf_iterator<char>(in), {});
  }
  content.resize(std::min(content.size(), kept));
  wrx_fuzz::write_file("features.db", content.append(input.rest()));
  if (sqlite3* db = bio_sto_connect_db()) {
    bio_sto_free_feature_info_list(bio_sto_get_feature_info(db, -1, 0, "wrx5300", 0, -1));
    bio_sto_clean_feature_info(db, 1, 0, "wrx5300", 0, -1);
    bio_sto_disconnect_db(db);
  }
  return 0;
}
