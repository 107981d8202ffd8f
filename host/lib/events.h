// SPDX-License-Identifier: LGPL-2.1-or-later
// The one road from the library to whoever hosts it, and the settings the host gave.
#pragma once

#include <string>

#include "api.h"

namespace wrx::framework {

/// Hands an event to the host's hook. False when there is no hook. Any thread; the hook runs on
/// the caller's, without a lock held, so it may call the library again.
bool emit(bio_dev* dev, bio_event event, int number, const char* text);

/// While one lives, log lines of its thread go nowhere: the library asks a driver for a text of
/// its own accord, and that question is not part of what the driver did.
class QuietLog {
 public:
  QuietLog();
  ~QuietLog();
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;
  /// Whether one lives on the calling thread.
  static bool active();
};

/// File of the feature database: the host's, else the default.
std::string database_path();

/// How long a locked database is waited for, milliseconds.
int database_busy_ms();

}  // namespace wrx::framework
