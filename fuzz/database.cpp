// SPDX-License-Identifier: LGPL-2.1-or-later
// The host's feature database, whatever stands in its file: it opens, or says why not; what opens
// can be read, added to and cleaned.
#include <libbiometric.h>
#include <sqlite3.h>

#include "fuzz/scratch.h"

namespace {

constexpr char kFile[] = "features.db";
constexpr char kJournal[] = "features.db-journal";

// Forms, by bits.
constexpr uint8_t kPatched = 1;    // the rest is places and bytes changed in a good database
constexpr uint8_t kJournaled = 2;  // the rest also stands in the journal beside it

std::string good_database;

feature_info* a_feature(int index) {
  feature_info* info = bio_sto_new_feature_info(1, 0, "wrx5300", index, "finger");
  info->sample = bio_sto_new_feature_sample(-1, "data");
  info->sample->no = 20 + index;
  info->sample->next = bio_sto_new_feature_sample(-1, "");
  return info;
}

void store(sqlite3* db, int index) {
  feature_info* info = a_feature(index);
  bio_sto_set_feature_info(db, info);
  bio_sto_free_feature_info_list(info);
}

// Two features, in pages so small that a patch finds something.
std::string make_good_database() {
  sqlite3* db = bio_sto_connect_db();
  store(db, 0);
  store(db, 1);
  sqlite3_exec(db, "PRAGMA page_size = 512; VACUUM", nullptr, nullptr, nullptr);
  bio_sto_disconnect_db(db);
  return wrx_fuzz::read_file(kFile);
}

std::string patched(wrx_fuzz::Input input) {
  std::string content = good_database;
  while (!input.empty()) {
    const std::size_t at = input.byte() * std::size_t{256} + input.byte();
    content[at % content.size()] = static_cast<char>(input.byte());
  }
  return content;
}

// The first byte says how much of a good database stands before the input.
std::string prefixed(wrx_fuzz::Input input) {
  const std::size_t kept = input.byte() * std::size_t{64};
  return good_database.substr(0, kept).append(input.rest());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  wrx_fuzz::enter_scratch_folder(*argc, *argv);
  bio_host_set_db_path(kFile);
  bio_host_set_hook([](void*, bio_dev*, bio_event, int, const char*) {}, nullptr);
  good_database = make_good_database();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  wrx_fuzz::Input input(data, size);
  const uint8_t form = input.byte();
  wrx_fuzz::write_file(kFile, (form & kPatched) != 0 ? patched(input) : prefixed(input));
  std::filesystem::remove(kJournal);
  if ((form & kJournaled) != 0) wrx_fuzz::write_file(kJournal, input.rest());
  if (sqlite3* db = bio_sto_connect_db()) {
    bio_sto_free_feature_info_list(bio_sto_get_feature_info(db, -1, 0, "wrx5300", 0, -1));
    store(db, 2);
    bio_sto_clean_feature_info(db, 1, 0, "wrx5300", 0, -1);
    bio_sto_free_feature_info_list(bio_sto_get_feature_info(db, 1, 0, "wrx5300", 0, -1));
    bio_sto_disconnect_db(db);
  }
  return 0;
}
