// SPDX-License-Identifier: LGPL-2.1-or-later
// Owners for SQLite's statements and transactions.

#include "statement.h"

namespace wrx::framework {

Statement::Statement(sqlite3* db, const char* sql) : db_(db) {
  if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) throw StoreError(db);
}

Statement& Statement::bind(sqlite3_int64 value) {
  if (sqlite3_bind_int64(statement_, ++bound_, value) != SQLITE_OK) throw StoreError(db_);
  return *this;
}

Statement& Statement::bind(const char* text) {
  if (sqlite3_bind_text(statement_, ++bound_, text, -1, SQLITE_STATIC) != SQLITE_OK)
    throw StoreError(db_);
  return *this;
}

bool Statement::step() {
  const int code = sqlite3_step(statement_);
  if (code == SQLITE_ROW) return true;
  if (code != SQLITE_DONE) throw StoreError(db_);
  return false;
}

void Statement::run() {
  while (step()) {
  }
}

const char* Statement::text(int column) const {
  const unsigned char* text = sqlite3_column_text(statement_, column);
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

void execute(sqlite3* db, const char* sql) {
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) throw StoreError(db);
}

Transaction::Transaction(sqlite3* db) : db_(db) {
  execute(db, "BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
  // SQLite may have rolled back by itself; then there is nothing left to give back.
  if (db_ != nullptr && sqlite3_get_autocommit(db_) == 0)
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
  execute(db_, "COMMIT");
  db_ = nullptr;
}

}  // namespace wrx::framework
