// SPDX-License-Identifier: LGPL-2.1-or-later
// Owners for SQLite's statements and transactions. Failures are thrown inside the store and turned
// into a report and a result code where the C interface begins.
#pragma once

#include <sqlite3.h>

#include <stdexcept>
#include <string>

namespace wrx::framework {

/// A failure of the database: SQLite's code (extended or not) and its words.
class StoreError : public std::runtime_error {
 public:
  StoreError(int code, const std::string& why) : std::runtime_error(why), code_(code) {}
  /// The connection's last failure.
  explicit StoreError(sqlite3* db) : StoreError(sqlite3_extended_errcode(db), sqlite3_errmsg(db)) {}
  int code() const { return code_; }

 private:
  int code_;
};

/// A prepared statement; parameters are bound in order, rows are stepped through.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql);
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(sqlite3_int64 value);
  /// The text must live until the statement was run.
  Statement& bind(const char* text);
  /// True while there is a row to read.
  bool step();
  /// Runs a statement that gives no rows.
  void run();

  int number(int column) const { return sqlite3_column_int(statement_, column); }
  bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
  /// Never null; valid until the next step.
  const char* text(int column) const;

 private:
  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
  int bound_ = 0;
};

/// Runs SQL without parameters or rows.
void execute(sqlite3* db, const char* sql);

/// Takes the write lock at once, and gives all back unless it is committed.
class Transaction {
 public:
  explicit Transaction(sqlite3* db);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  /// Makes it last; throws StoreError, and then all is given back.
  void commit();

 private:
  sqlite3* db_;
};

}  // namespace wrx::framework
