// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading, storing and removing features. Each function is one statement or one transaction, so a
// failure leaves the database as it was.

#include <climits>
#include <memory>
#include <string>

#include "api.h"
#include "store.h"

namespace wrx::framework {
namespace {

struct ListCloser {
  void operator()(feature_info* list) const { bio_sto_free_feature_info_list(list); }
};
using FeatureList = std::unique_ptr<feature_info, ListCloser>;

/// Which features: user (-1: all), kind, driver, index range (end -1: no upper end).
struct Selection {
  int uid, biotype;
  const char* driver;
  int start, end;
};

// What selects them in each statement. The comparisons stand alone, so that the unique index finds
// the rows of one user, and of these the range, without a walk over the others.
constexpr char kOfUser[] = "uid = ?1";
constexpr char kOfAnyUser[] = "?1 = -1";
constexpr char kOfDriverInRange[] = " AND biotype = ?2 AND driver = ?3 AND idx BETWEEN ?4 AND ?5";

std::string where(const Selection& which) {
  return std::string(" WHERE ") + (which.uid == -1 ? kOfAnyUser : kOfUser) + kOfDriverInRange;
}

constexpr char kSelect[] =
    "SELECT f.id, f.uid, f.idx, f.index_name, s.id, s.no, s.data "
    "FROM features f LEFT JOIN samples s ON s.feature = f.id";
constexpr char kSelectOrder[] = " ORDER BY f.uid, f.idx, s.pos";
enum SelectColumn : int { kFeatureId, kUid, kIndex, kName, kSampleId, kNo, kData };

constexpr char kDelete[] = "DELETE FROM features";

void bind(Statement& statement, const Selection& which) {
  if (which.driver == nullptr) throw StoreError(SQLITE_MISUSE, "no driver is named");
  statement.bind(which.uid).bind(which.biotype).bind(which.driver);
  statement.bind(which.start).bind(which.end == -1 ? INT_MAX : which.end);
}

/// The rows come a sample each, a feature's together; a feature without samples has one row.
FeatureList read(sqlite3* db, const Selection& which) {
  Statement rows(db, (kSelect + where(which) + kSelectOrder).c_str());
  bind(rows, which);
  FeatureList list;
  feature_info* last = nullptr;
  feature_sample** next_sample = nullptr;
  for (int id = 0; rows.step();) {
    if (last == nullptr || id != rows.number(kFeatureId)) {
      id = rows.number(kFeatureId);
      feature_info* info = bio_sto_new_feature_info(rows.number(kUid), which.biotype, which.driver,
                                                    rows.number(kIndex), rows.text(kName));
      if (last == nullptr)
        list.reset(info);
      else
        last->next = info;
      last = info;
      next_sample = &info->sample;
    }
    if (rows.isNull(kSampleId)) continue;
    *next_sample = bio_sto_new_feature_sample(rows.number(kSampleId), rows.text(kData));
    (*next_sample)->no = rows.number(kNo);
    next_sample = &(*next_sample)->next;
  }
  return list;
}

sqlite3_int64 insert_feature(sqlite3* db, const feature_info& info) {
  Statement insert(db,
                   "INSERT INTO features (uid, biotype, driver, idx, index_name) "
                   "VALUES (?, ?, ?, ?, ?)");
  insert.bind(info.uid).bind(info.biotype).bind(info.driver).bind(info.index);
  insert.bind(info.index_name != nullptr ? info.index_name : "").run();
  return sqlite3_last_insert_rowid(db);
}

void insert_samples(sqlite3* db, sqlite3_int64 feature, const feature_sample* sample) {
  for (int pos = 0; sample != nullptr; sample = sample->next, ++pos) {
    Statement insert(db, "INSERT INTO samples (feature, pos, no, data) VALUES (?, ?, ?, ?)");
    insert.bind(feature).bind(pos).bind(sample->no);
    insert.bind(sample->data != nullptr ? sample->data : "").run();
  }
}

void remove(sqlite3* db, const Selection& which) {
  Statement removal(db, (kDelete + where(which)).c_str());
  bind(removal, which);
  removal.run();
}

/// Tells the records which rows they have become.
void number_samples(sqlite3* db, sqlite3_int64 feature, feature_sample* sample) {
  Statement rows(db, "SELECT id FROM samples WHERE feature = ? ORDER BY pos");
  rows.bind(feature);
  for (; sample != nullptr && rows.step(); sample = sample->next)
    sample->dbid = rows.number(0);
}

}  // namespace
}  // namespace wrx::framework

using namespace wrx::framework;

extern "C" {

int bio_host_read_features(struct sqlite3* db, int uid, int biotype, const char* driver, int start,
                           int end, feature_info** list) {
  *list = nullptr;
  return attempt(db, "reading features", -1, [&] {
    *list = read(db, {uid, biotype, driver, start, end}).release();
    return 0;
  });
}

feature_info* bio_sto_get_feature_info(struct sqlite3* db, int uid, int biotype, const char* driver,
                                       int start, int end) {
  feature_info* list = nullptr;
  bio_host_read_features(db, uid, biotype, driver, start, end, &list);
  return list;
}

int bio_sto_set_feature_info(struct sqlite3* db, feature_info* info) {
  return attempt(db, "storing a feature", -1, [&] {
    if (info == nullptr) throw StoreError(SQLITE_MISUSE, "there is no feature to store");
    Transaction all_or_nothing(db);
    remove(db, {info->uid, info->biotype, info->driver, info->index, info->index});
    const sqlite3_int64 feature = insert_feature(db, *info);
    insert_samples(db, feature, info->sample);
    number_samples(db, feature, info->sample);
    all_or_nothing.commit();
    return 0;
  });
}

int bio_sto_clean_feature_info(struct sqlite3* db, int uid, int biotype, const char* driver,
                               int start, int end) {
  return attempt(db, "removing features", -1, [&] {
    Transaction all_or_nothing(db);
    remove(db, {uid, biotype, driver, start, end});
    all_or_nothing.commit();
    return 0;
  });
}

}  // extern "C"
