// SPDX-License-Identifier: LGPL-2.1-or-later
// The edge of the feature store: what fails inside it is reported here, once, in one form.
#pragma once

#include <exception>

#include "statement.h"

namespace wrx::framework {

/// Tells the hook and the log: which file, what was being done, why it failed, what helps.
void report(sqlite3* db, const char* doing, int code, const char* why);

/// Runs `action` for a function of the C interface. When it throws, or `db` is null, the failure
/// is reported and `fallback` is the result; nothing is thrown on.
template <class Result, class Action>
Result attempt(sqlite3* db, const char* doing, Result fallback, Action action) {
  try {
    if (db == nullptr) throw StoreError(SQLITE_MISUSE, "there is no connection");
    return action();
  } catch (const StoreError& error) {
    report(db, doing, error.code(), error.what());
  } catch (const std::exception& error) {
    report(db, doing, SQLITE_INTERNAL, error.what());
  }
  return fallback;
}

}  // namespace wrx::framework
