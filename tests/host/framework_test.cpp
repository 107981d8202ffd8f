// SPDX-License-Identifier: LGPL-2.1-or-later
// The stand-in framework: what its feature database keeps, refuses and reports, and its words.

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <climits>
#include <filesystem>
#include <thread>

#include "support/rig.h"

namespace wrx_test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

struct Event {
  bio_event kind;
  int number;
  std::string text;
};

/// A database in the scratch folder, and every event the library sends.
class Framework : public testing::Test {
 protected:
  Framework() {
    bio_host_set_db_busy_ms(0);
    bio_host_set_hook(&Framework::hear, this);
    rig.dev.device_name = driver_.data();
  }
  ~Framework() override {
    bio_host_set_hook(nullptr, nullptr);
    bio_host_set_db_busy_ms(2000);
  }
  static void hear(void* self, bio_dev*, bio_event kind, int number, const char* text) {
    static_cast<Framework*>(self)->events_.push_back({kind, number, text});
  }
  int clean(int uid, int start, int end) {
    sqlite3* db = bio_sto_connect_db();
    const int answer = bio_sto_clean_feature_info(db, uid, 0, "wrx5300", start, end);
    bio_sto_disconnect_db(db);
    return answer;
  }
  /// The text of the only store error since the last call; empty when there is none or several.
  std::string storeError() {
    std::vector<std::string> found;
    for (const Event& event : events_)
      if (event.kind == BIO_EVENT_STORE_ERROR) found.push_back(event.text);
    events_.clear();
    return found.size() == 1 ? found[0] : "";
  }
  static void execute(sqlite3* db, const char* sql) {
    ASSERT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql;
  }

  Rig rig;
  bio_dev& dev_ = rig.dev;
  std::string driver_ = "wrx5300";
  std::vector<Event> events_;
};

TEST_F(Framework, SelectionsAreOrderedByUserAndIndexWithSamplesAsStored) {
  const Stored a = {2, 1, {31, 21}}, b = {2, 9, {39, 29}}, c = {7, 0, {30, 20}},
               d = {7, 3, {33, 23}};
  for (const Stored& feature : {d, b, c, a})
    ASSERT_EQ(rig.store(feature), 0);
  const struct {
    int uid, start, end;
    std::vector<Stored> expected;
  } rows[] = {{-1, 0, -1, {a, b, c, d}},
              {-1, 1, 3, {a, d}},
              {7, 0, -1, {c, d}},
              {7, 3, 3, {d}},
              {2, 2, 8, {}},
              {5, 0, -1, {}},
              {2, 9, 1, {}}};
  for (const auto& row : rows)
    EXPECT_EQ(rig.stored(row.uid, row.start, row.end), row.expected);
  EXPECT_EQ(clean(7, 1, -1), 0);
  EXPECT_EQ(clean(-1, 9, 9), 0);
  EXPECT_THAT(rig.stored(), ElementsAre(a, c));
}

TEST_F(Framework, AFailingStatementRollsTheWholeTransactionBack) {
  ASSERT_EQ(rig.store({1, 0, {20}}), 0);
  sqlite3* db = bio_sto_connect_db();
  execute(db,
          "CREATE TRIGGER no BEFORE INSERT ON samples WHEN new.no = 22 "
          "BEGIN SELECT raise(ABORT, 'slot 22 is cursed'); END");
  bio_sto_disconnect_db(db);
  EXPECT_EQ(rig.store({1, 0, {25}}, "it's \"mine\"; --"), 0) << "another finger in its place";
  EXPECT_EQ(rig.store({1, 0, {21, 22}}), -1);
  EXPECT_THAT(storeError(), HasSubstr("slot 22 is cursed"));
  EXPECT_THAT(rig.stored(), ElementsAre(Stored{1, 0, {25}}));
}

TEST_F(Framework, RecordsThatNoSelectionWouldFindAreRefused) {
  for (const auto& [uid, index] : {std::pair{-1, 0}, {1, -1}, {1, INT_MIN}}) {
    EXPECT_EQ(rig.store({uid, index, {20}}), -1);
    EXPECT_THAT(storeError(), HasSubstr("CHECK constraint"));
  }
  EXPECT_TRUE(rig.stored().empty());
}

TEST_F(Framework, FolderAndFileArePrivate) {
  bio_host_set_db_path("a/b/features.db");
  ASSERT_EQ(rig.store({1, 0, {20}}), 0);
  EXPECT_EQ(fs::status("a/b").permissions(), fs::perms(0700));
  EXPECT_EQ(fs::status("a/b/features.db").permissions(), fs::perms(0600));
  bio_host_set_db_path("a/b/features.db/features.db");
  EXPECT_EQ(bio_sto_connect_db(), nullptr);
  EXPECT_THAT(storeError(), HasSubstr("cannot make the folder"));
}

TEST_F(Framework, AFileThatIsDamagedForeignOrNewerIsRefusedWithItsReasonAndLeftAsItIs) {
  const auto made_by = [&](const char* path, const char* sql) {
    sqlite3* db = nullptr;
    sqlite3_open(path, &db);
    execute(db, sql);
    sqlite3_close(db);
    return rig.read_file(path);
  };
  ASSERT_EQ(rig.store({1, 0, {20}}), 0);
  const std::string sound = rig.read_file("feature.db");
  std::string page_lost = sound;
  page_lost.replace(4096, 4096, std::string(4096, '\xa5'));
  const std::pair<std::string, const char*> rows[] = {
      {std::string(5000, 'x'), "damaged"},
      {sound.substr(0, 5000), "damaged"},
      {page_lost, "damaged"},
      {made_by("foreign.db", "CREATE TABLE songs(a)"), ""},
      {made_by("alike.db", "CREATE TABLE songs(a); PRAGMA user_version = 1"),
       "no feature database"},
      {made_by("newer.db", "PRAGMA user_version = 2"), ""}};
  for (const auto& [content, reason] : rows) {
    rig.write_file("feature.db", content);
    EXPECT_EQ(bio_sto_connect_db(), nullptr);
    const std::string error = storeError();
    EXPECT_THAT(error, HasSubstr("feature.db"));
    EXPECT_THAT(error, HasSubstr(reason));
    EXPECT_EQ(rig.read_file("feature.db"), content);
  }
}

TEST_F(Framework, NoConnectionOrALockedDatabaseIsAnErrorOfEveryCallerAndLosesNothing) {
  ASSERT_EQ(rig.store({1, 0, {20}}), 0);
  sqlite3* mine = bio_sto_connect_db();
  sqlite3* other = bio_sto_connect_db();
  execute(other, "BEGIN EXCLUSIVE");
  EXPECT_EQ(bio_sto_connect_db(), nullptr);
  EXPECT_THAT(storeError(), HasSubstr("another program holds the database"));
  feature_info* info = bio_sto_new_feature_info(1, 1, "wrx5300", 0, nullptr);
  for (sqlite3* db : {mine, static_cast<sqlite3*>(nullptr)}) {
    EXPECT_EQ(bio_sto_get_feature_info(db, -1, 0, "wrx5300", 0, -1), nullptr);
    EXPECT_NE(storeError(), "");
    EXPECT_EQ(bio_sto_set_feature_info(db, info), -1);
    EXPECT_NE(storeError(), "");
    EXPECT_EQ(bio_sto_clean_feature_info(db, -1, 0, "wrx5300", 0, -1), -1);
    EXPECT_NE(storeError(), "");
    bio_sto_disconnect_db(db);
  }
  EXPECT_EQ(bio_common_get_empty_index(&dev_, 1, 0, -1), -1);
  bio_sto_free_feature_info_list(info);
  bio_sto_disconnect_db(other);
  EXPECT_THAT(rig.stored(), ElementsAre(Stored{1, 0, {20}}));
}

TEST_F(Framework, TheEmptyIndexIsTheLowestFreeOneOfTheUser) {
  for (const int index : {0, 1, 3})
    ASSERT_EQ(rig.store({1, index, {20 + index}}), 0);
  const struct {
    int uid, start, end, expected;
  } rows[] = {{1, 0, -1, 2}, {1, 3, -1, 4}, {1, 0, 1, -1}, {2, 0, -1, 0}, {1, 3, 3, -1}};
  for (const auto& row : rows)
    EXPECT_EQ(bio_common_get_empty_index(&dev_, row.uid, row.start, row.end), row.expected);
}

TEST_F(Framework, EveryNumberAnOperationCanEndWithHasATextAndReachesTheHook) {
  for (const int kind : {200, 300, 400, 600})
    for (const int outcome : {0, 1, 2, 4}) {
      bio_set_ops_abs_result(&dev_, kind + outcome);
      bio_set_notify_abs_mid(&dev_, kind + outcome);
      EXPECT_EQ(bio_get_ops_result(&dev_), kind + outcome);
      EXPECT_EQ(events_.back().kind, BIO_EVENT_NOTIFY);
      EXPECT_EQ(events_.back().text, bio_get_notify_mid_mesg(&dev_));
      EXPECT_EQ(events_.back().text.find("Unknown"), std::string::npos) << kind + outcome;
    }
  bio_set_dev_status(&dev_, 77);
  EXPECT_STREQ(bio_get_dev_status_mesg(&dev_), "Unknown status 77");
}

TEST_F(Framework, TheDriversTextComesFirstAndAskingForItLeavesNoLogLine) {
  dev_.ops_get_notify_mid_mesg = [](bio_dev* dev) -> const char* {
    bio_print_error("asked\n");
    return bio_get_notify_mid(dev) == 9 ? "press again" : nullptr;
  };
  bio_set_notify_abs_mid(&dev_, 9);
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].text, "press again");
  EXPECT_STREQ(bio_get_notify_mid_mesg(&dev_), "press again");
  EXPECT_EQ(events_.back().text, "asked\n");
}

TEST_F(Framework, WordsCanBeReadWhileAnotherThreadSetsThem) {
  bio_host_set_hook(nullptr, nullptr);
  std::thread setter([this] {
    for (int i = 0; i < 10000; ++i)
      bio_set_dev_status(&dev_, i % 2 == 0 ? 201 : 0);
  });
  for (int i = 0; i < 10000; ++i) {
    const int status = bio_get_dev_status(&dev_);
    ASSERT_TRUE(status == 0 || status == 201);
  }
  setter.join();
}

TEST_F(Framework, OnlyAPlainFalseDisablesADriver) {
  const std::pair<const char*, int> rows[] = {{"", 1},
                                              {"[wrx5300]\nEnable=true\n", 1},
                                              {"[wrx5300]\nEnable=false\n", 0},
                                              {"[other]\nEnable=false\n", 1},
                                              {"[wrx5300]\nEnable=perhaps\n", 1}};
  for (const auto& [text, enabled] : rows) {
    GKeyFile* conf = g_key_file_new();
    g_key_file_load_from_data(conf, text, static_cast<gsize>(-1), G_KEY_FILE_NONE, nullptr);
    EXPECT_EQ(bio_dev_is_enable(&dev_, conf), enabled) << text;
    g_key_file_free(conf);
  }
}

}  // namespace
}  // namespace wrx_test
