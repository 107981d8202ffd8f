// SPDX-License-Identifier: LGPL-2.1-or-later
// Opening the feature database: its folder and file, its rights, its health, its schema. A
// database that is not sound is refused here, before anyone takes its silence for an empty one.

#include "store.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "events.h"

namespace wrx::framework {
namespace {

constexpr int kSchemaVersion = 1;

//  features  one row a finger           samples  its samples in order
//    id ◄─────────────────────────────── feature
//    uid, biotype, driver, idx  unique   pos      place in the list
//    index_name                          no       template slot on the device
//
// A user -1 or an index below 0 would be stored where no selection finds it again.
constexpr char kSchema[] = R"(
CREATE TABLE features (
  id INTEGER PRIMARY KEY,
  uid INTEGER NOT NULL CHECK (uid <> -1),
  biotype INTEGER NOT NULL,
  driver TEXT NOT NULL,
  idx INTEGER NOT NULL CHECK (idx >= 0),
  index_name TEXT NOT NULL,
  UNIQUE (uid, biotype, driver, idx)
) STRICT;
CREATE TABLE samples (
  id INTEGER PRIMARY KEY,
  feature INTEGER NOT NULL REFERENCES features (id) ON DELETE CASCADE,
  pos INTEGER NOT NULL,
  no INTEGER NOT NULL,
  data TEXT NOT NULL,
  UNIQUE (feature, pos)
) STRICT;
PRAGMA user_version = 1;
)";

struct Closer {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Connection = std::unique_ptr<sqlite3, Closer>;

const char* advice(int code) {
  switch (code & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return "; the file is damaged or is no feature database, and was left as it is: restore it "
             "from a copy, or move it away to begin with an empty one";
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return "; another program holds the database, try again when it has ended";
    case SQLITE_CANTOPEN:
    case SQLITE_READONLY:
    case SQLITE_PERM:
      return "; check the rights of the file and its folder";
    case SQLITE_FULL:
      return "; make room on the disk";
    default:
      return "";
  }
}

StoreError system_error(const std::string& what) {
  return {SQLITE_CANTOPEN, what + ": " + std::strerror(errno)};
}

/// Makes folder and file private to their user before SQLite makes them to its taste. An existing
/// file is not opened: closing it would drop the locks other connections of this process hold.
void make_file(const std::string& path) {
  const std::unique_ptr<char, decltype(&g_free)> folder(g_path_get_dirname(path.c_str()), g_free);
  if (g_mkdir_with_parents(folder.get(), 0700) != 0)
    throw system_error(std::string("cannot make the folder ") + folder.get());
  if (access(folder.get(), W_OK | X_OK) != 0)
    throw system_error(std::string("cannot write in the folder ") + folder.get());
  const int made = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (made >= 0)
    close(made);
  else if (errno != EEXIST)
    throw system_error("cannot make the file");
  if (access(path.c_str(), R_OK | W_OK) != 0) throw system_error("cannot read and write the file");
}

int user_version(sqlite3* db) {
  Statement query(db, "PRAGMA user_version");
  return query.step() ? query.number(0) : 0;
}

bool is_empty(sqlite3* db) {
  return !Statement(db, "SELECT 1 FROM sqlite_schema").step();
}

/// Another program's database may bear our version's number. Its lack of our tables must show now:
/// to a driver that reads it later, no features and no tables look alike.
void check_tables(sqlite3* db) {
  try {
    Statement(db,
              "SELECT f.uid, f.biotype, f.driver, f.idx, f.index_name, s.pos, s.no, s.data "
              "FROM features f LEFT JOIN samples s ON s.feature = f.id");
  } catch (const StoreError& error) {
    if (error.code() != SQLITE_ERROR) throw;
    throw StoreError(SQLITE_NOTADB, error.what());
  }
}

void make_or_check_schema(sqlite3* db) {
  const int version = user_version(db);
  if (version == 0 && is_empty(db)) return execute(db, kSchema);
  if (version > kSchemaVersion)
    throw StoreError(SQLITE_ERROR, "it was written by a newer version of this program");
  if (version < kSchemaVersion) throw StoreError(SQLITE_NOTADB, "it holds something else");
  check_tables(db);
}

void check_health(sqlite3* db) {
  Statement check(db, "PRAGMA integrity_check(1)");
  if (check.step() && std::strcmp(check.text(0), "ok") != 0)
    throw StoreError(SQLITE_CORRUPT, check.text(0));
}

sqlite3* connect(const std::string& path) {
  make_file(path);
  sqlite3* raw = nullptr;
  const int code = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
  Connection db(raw);
  if (code != SQLITE_OK)
    throw StoreError(code, raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(code));
  sqlite3_busy_timeout(raw, database_busy_ms());
  // EXTRA also syncs the folder after the journal is gone: without it, a power loss right after a
  // success was told can bring the journal back and undo it.
  execute(raw, "PRAGMA foreign_keys = ON; PRAGMA synchronous = EXTRA");
  Transaction probe(raw);  // the write lock shows that nobody else holds the file
  make_or_check_schema(raw);
  check_health(raw);
  probe.commit();
  return db.release();
}

}  // namespace

void report(sqlite3* db, const char* doing, int code, const char* why) {
  const char* file = db != nullptr ? sqlite3_db_filename(db, "main") : nullptr;
  const std::string text = "feature database " +
                           (file != nullptr ? std::string(file) : database_path()) + ": " + doing +
                           ": " + why + advice(code);
  bio_print_error("%s\n", text.c_str());
  emit(nullptr, BIO_EVENT_STORE_ERROR, code, text.c_str());
}

}  // namespace wrx::framework

extern "C" {

struct sqlite3* bio_sto_connect_db(void) {
  using namespace wrx::framework;
  try {
    return connect(database_path());
  } catch (const StoreError& error) {
    report(nullptr, "cannot be opened", error.code(), error.what());
  } catch (const std::exception& error) {
    report(nullptr, "cannot be opened", SQLITE_INTERNAL, error.what());
  }
  return nullptr;
}

void bio_sto_disconnect_db(struct sqlite3* db) {
  if (db != nullptr && sqlite3_close(db) != SQLITE_OK)
    bio_print_error("feature database: cannot be closed: %s\n", sqlite3_errmsg(db));
}

}  // extern "C"
