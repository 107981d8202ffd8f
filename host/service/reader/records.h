// SPDX-License-Identifier: LGPL-2.1-or-later
// Stored fingers, read from the feature database.
#pragma once

#include <vector>

#include "libbiometric.h"

namespace wrx::service {

/// Whether the database can be read and written. The driver takes one that cannot for an empty one
/// and would erase the module's templates as nobody's, so no operation begins without it.
bool store_readable();

/// Feature indexes of `uid` from `first` to `last`, ascending. Throws Refusal (Internal) when the
/// database cannot be read. From any thread.
std::vector<int> stored_indexes(const bio_dev& device, int uid, int first, int last);

}  // namespace wrx::service
