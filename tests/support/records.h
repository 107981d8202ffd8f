// SPDX-License-Identifier: LGPL-2.1-or-later
// What a call leaves behind in the driver's process-wide records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace wrx_test {

/// The records as they stand: pointers, images and the two stop flags left out.
std::vector<std::vector<uint8_t>> record_contents();

/// A line "record <name>[<first byte>] <bytes>" for each that is not as it was `before`, from the
/// first byte that differs to the last, as they stand in this machine's memory.
std::vector<std::string> record_changes(const std::vector<std::vector<uint8_t>>& before);

}  // namespace wrx_test
