// SPDX-License-Identifier: LGPL-2.1-or-later
// Key files, read with their comments so that they can be written back whole. What goes wrong is
// logged for the function that asked.
#pragma once

#include <cstdint>

#include "base/log.h"
#include "base/owners.h"

namespace wrx {

/// "Error[code]: message" as a line of the log.
void log_error(const Error& error, CallSite site);

/// The file at `path`; null, with the error logged, when it cannot be loaded.
KeyFile load_key_file(const char* path, CallSite site);

/// A whole number of a group. False, with `value` 0 and the error logged, when there is none.
bool read_integer(GKeyFile* file, const char* group, const char* key, int32_t& value,
                  CallSite site);
/// The same, or 0.
int32_t integer_or_0(GKeyFile* file, const char* group, const char* key, CallSite site);

/// Whether the file can be written out as text; asked before anything in it is changed.
bool can_be_written(GKeyFile* file, Error& error);

}  // namespace wrx
