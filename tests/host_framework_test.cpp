// SPDX-License-Identifier: LGPL-2.1-or-later
// The stand-in framework: what its feature database keeps, refuses and reports, and its words.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "libbiometric.h"

namespace {

namespace fs = std::filesystem;

struct Event {
  bio_event kind;
  int number;
  std::string text;
};

/// A scratch folder with a database in it, and every event the library sends.
class Framework : public testing::Test {
 protected:
  Framework() {
    char name[] = "/tmp/wrx-host-XXXXXX";
    folder_ = mkdtemp(name);
    usePath(folder_ / "features.db");
    bio_host_set_db_busy_ms(0);
    bio_host_set_hook(&Framework::hear, this);
    dev_.device_name = driver_.data();
  }
  ~Framework() override {
    bio_host_set_hook(nullptr, nullptr);
    bio_host_set_db_path(nullptr);
    bio_host_set_db_busy_ms(2000);
    fs::remove_all(folder_);
  }
  static void hear(void* self, bio_dev*, bio_event kind, int number, const char* text) {
    static_cast<Framework*>(self)->events_.push_back({kind, number, text});
  }
  void usePath(const fs::path& path) {
    path_ = path;
    bio_host_set_db_path(path.c_str());
  }

  /// Stores a finger with its slots; the store's answer.
  int store(int uid, int index, const std::vector<int>& slots, const char* name = "thumb") {
    feature_info* info = bio_sto_new_feature_info(uid, 0, dev_.device_name, index, name);
    feature_sample** tail = &info->sample;
    for (const int slot : slots) {
      *tail = bio_sto_new_feature_sample(-1, nullptr);
      (*tail)->no = slot;
      tail = &(*tail)->next;
    }
    sqlite3* db = bio_sto_connect_db();
    const int answer = bio_sto_set_feature_info(db, info);
    bio_sto_disconnect_db(db);
    bio_sto_free_feature_info_list(info);
    return answer;
  }
  int clean(int uid, int start, int end) {
    sqlite3* db = bio_sto_connect_db();
    const int answer = bio_sto_clean_feature_info(db, uid, 0, dev_.device_name, start, end);
    bio_sto_disconnect_db(db);
    return answer;
  }
  /// The selection as "uid/index:slot,slot, …".
  std::string stored(int uid = -1, int start = 0, int end = -1) {
    sqlite3* db = bio_sto_connect_db();
    feature_info* list = bio_sto_get_feature_info(db, uid, 0, dev_.device_name, start, end);
    bio_sto_disconnect_db(db);
    std::string text;
    for (const feature_info* info = list; info != nullptr; info = info->next) {
      text += (text.empty() ? "" : " ") + std::to_string(info->uid) + "/" +
              std::to_string(info->index) + ":";
      for (const feature_sample* s = info->sample; s != nullptr; s = s->next)
        text += (s == info->sample ? "" : ",") + std::to_string(s->no);
    }
    bio_sto_free_feature_info_list(list);
    return text;
  }
  /// The text of the only store error since the last call; empty when there is none or several.
  std::string storeError() {
    std::vector<std::string> found;
    for (const Event& event : events_)
      if (event.kind == BIO_EVENT_STORE_ERROR) found.push_back(event.text);
    events_.clear();
    return found.size() == 1 ? found[0] : "";
  }
  std::string bytes() const {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  fs::path folder_, path_;
  std::string driver_ = "wrx5300";
  bio_dev dev_{};
  std::vector<Event> events_;
};

TEST_F(Framework, SelectionsAreOrderedByUserAndIndexWithSamplesAsStored) {
  for (const auto& [uid, index] : {std::pair{7, 3}, {2, 9}, {7, 0}, {2, 1}})
    ASSERT_EQ(store(uid, index, {index + 30, index + 20}), 0);
  const struct {
    int uid, start, end;
    const char* expected;
  } rows[] = {
      {-1, 0, -1, "2/1:31,21 2/9:39,29 7/0:30,20 7/3:33,23"},
      {-1, 1, 3, "2/1:31,21 7/3:33,23"},
      {7, 0, -1, "7/0:30,20 7/3:33,23"},
      {7, 3, 3, "7/3:33,23"},
      {2, 2, 8, ""},
      {5, 0, -1, ""},
      {2, 9, 1, ""},
  };
  for (const auto& row : rows)
    EXPECT_EQ(stored(row.uid, row.start, row.end), row.expected);
  EXPECT_EQ(clean(7, 1, -1), 0);
  EXPECT_EQ(clean(-1, 9, 9), 0);
  EXPECT_EQ(stored(), "2/1:31,21 7/0:30,20");
}

TEST_F(Framework, StoringAnIndexAgainReplacesItAndLeavesNoSampleBehind) {
  ASSERT_EQ(store(1, 0, {20, 21}, "it's \"mine\"; --"), 0);
  ASSERT_EQ(store(1, 0, {25}), 0);
  EXPECT_EQ(stored(), "1/0:25");
  sqlite3* db = bio_sto_connect_db();
  sqlite3_exec(
      db, "SELECT count(*) FROM samples",
      [](void*, int, char** values, char**) {
        EXPECT_STREQ(values[0], "1");
        return 0;
      },
      nullptr, nullptr);
  bio_sto_disconnect_db(db);
}

TEST_F(Framework, AFailingStatementRollsTheWholeTransactionBack) {
  ASSERT_EQ(store(1, 0, {20}), 0);
  sqlite3* db = bio_sto_connect_db();
  sqlite3_exec(db,
               "CREATE TRIGGER no BEFORE INSERT ON samples WHEN new.no = 22 "
               "BEGIN SELECT raise(ABORT, 'slot 22 is cursed'); END",
               nullptr, nullptr, nullptr);
  bio_sto_disconnect_db(db);
  EXPECT_EQ(store(1, 0, {21, 22}), -1);
  EXPECT_NE(storeError().find("slot 22 is cursed"), std::string::npos);
  EXPECT_EQ(stored(), "1/0:20");
}

TEST_F(Framework, RecordsThatNoSelectionWouldFindAreRefused) {
  for (const auto& [uid, index] : {std::pair{-1, 0}, {1, -1}, {1, INT_MIN}}) {
    EXPECT_EQ(store(uid, index, {20}), -1);
    EXPECT_NE(storeError().find("CHECK constraint"), std::string::npos);
  }
  EXPECT_EQ(stored(), "");
}

TEST_F(Framework, FolderAndFileArePrivate) {
  usePath(folder_ / "a" / "b" / "features.db");
  ASSERT_EQ(store(1, 0, {20}), 0);
  EXPECT_EQ(fs::status(folder_ / "a" / "b").permissions(), fs::perms(0700));
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0600));
}

TEST_F(Framework, ADamagedFileIsRefusedWithItsReasonAndLeftAsItIs) {
  ASSERT_EQ(store(1, 0, {20}), 0);
  const std::string sound = bytes();
  std::string page_lost = sound;
  page_lost.replace(4096, 4096, std::string(4096, '\xa5'));
  const std::string damaged[] = {std::string(5000, 'x'), sound.substr(0, 5000), page_lost};
  for (const std::string& content : damaged) {
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << content;
    EXPECT_EQ(bio_sto_connect_db(), nullptr);
    const std::string error = storeError();
    EXPECT_NE(error.find(path_.string()), std::string::npos) << error;
    EXPECT_NE(error.find("damaged"), std::string::npos) << error;
    EXPECT_EQ(bytes(), content);
  }
}

TEST_F(Framework, AFileOfSomethingElseOrOfANewerVersionIsRefused) {
  for (const char* sql : {"CREATE TABLE songs(a)", "PRAGMA user_version = 2"}) {
    fs::remove(path_);
    sqlite3* db = nullptr;
    sqlite3_open(path_.c_str(), &db);
    sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
    sqlite3_close(db);
    EXPECT_EQ(bio_sto_connect_db(), nullptr) << sql;
    EXPECT_NE(storeError(), "") << sql;
  }
}

TEST_F(Framework, ALockedDatabaseIsAnErrorOfEveryCallerAndLosesNothing) {
  ASSERT_EQ(store(1, 0, {20}), 0);
  sqlite3* mine = bio_sto_connect_db();
  sqlite3* other = bio_sto_connect_db();
  ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_EQ(bio_sto_connect_db(), nullptr);
  EXPECT_NE(storeError().find("another program holds the database"), std::string::npos);
  EXPECT_EQ(bio_sto_get_feature_info(mine, -1, 0, "wrx5300", 0, -1), nullptr);
  EXPECT_NE(storeError(), "");
  EXPECT_EQ(bio_sto_clean_feature_info(mine, -1, 0, "wrx5300", 0, -1), -1);
  EXPECT_NE(storeError(), "");
  EXPECT_EQ(bio_common_get_empty_index(&dev_, 1, 0, -1), -1);
  bio_sto_disconnect_db(other);
  bio_sto_disconnect_db(mine);
  EXPECT_EQ(stored(), "1/0:20");
}

TEST_F(Framework, AFolderThatCannotBeMadeIsNamed) {
  std::ofstream(folder_ / "file") << "x";
  usePath(folder_ / "file" / "features.db");
  EXPECT_EQ(bio_sto_connect_db(), nullptr);
  EXPECT_NE(storeError().find("cannot make the folder"), std::string::npos);
}

TEST_F(Framework, NoConnectionIsAnErrorAndNotACrash) {
  feature_info* info = bio_sto_new_feature_info(1, 0, "wrx5300", 0, nullptr);
  EXPECT_EQ(bio_sto_get_feature_info(nullptr, 1, 0, "wrx5300", 0, -1), nullptr);
  EXPECT_NE(storeError(), "");
  EXPECT_EQ(bio_sto_set_feature_info(nullptr, info), -1);
  EXPECT_NE(storeError(), "");
  EXPECT_EQ(bio_sto_clean_feature_info(nullptr, 1, 0, "wrx5300", 0, -1), -1);
  EXPECT_NE(storeError(), "");
  bio_sto_disconnect_db(nullptr);
  bio_sto_free_feature_info_list(info);
}

TEST_F(Framework, TheEmptyIndexIsTheLowestFreeOneOfTheUser) {
  for (const int index : {0, 1, 3})
    ASSERT_EQ(store(1, index, {20 + index}), 0);
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

TEST(FrameworkConfiguration, OnlyAPlainFalseDisablesADriver) {
  bio_host_set_log_level(3);
  const struct {
    const char* text;
    int enabled;
  } rows[] = {{"", 1},
              {"[wrx5300]\n", 1},
              {"[wrx5300]\nEnable=true\n", 1},
              {"[wrx5300]\nEnable=false\n", 0},
              {"[other]\nEnable=false\n", 1},
              {"[wrx5300]\nEnable=perhaps\n", 1}};
  char name[] = "wrx5300";
  bio_dev dev{};
  dev.device_name = name;
  for (const auto& row : rows) {
    GKeyFile* conf = g_key_file_new();
    g_key_file_load_from_data(conf, row.text, static_cast<gsize>(-1), G_KEY_FILE_NONE, nullptr);
    EXPECT_EQ(bio_dev_is_enable(&dev, conf), row.enabled) << row.text;
    g_key_file_free(conf);
  }
  bio_host_set_log_level(2);
}

}  // namespace
