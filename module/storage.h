// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The module's memory in a file, so that enrolling and verifying can be two runs of a program.
// Text, one fact a line, ended by a checksum over everything before it:
//
//   wrx-module-memory 1
//   version 100
//   address ffffffff
//   new-image 0
//   slot 20 thumb
//   crc 0 4096 632e            (offset, length, stored checksum)
//   flash <up to 64 hex digits a line, in order>
//   end 0123456789abcdef
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "memory.h"

namespace wrx_module {

std::string memory_to_text(const Memory& memory);
/// Reads such a text; without a result `error` says what is wrong and where.
std::optional<Memory> memory_from_text(std::string_view text, std::string& error);

enum class LoadResult { loaded, absent, failed };
LoadResult load_memory(const std::string& path, Memory& memory, std::string& error);
/// Replaces the file as a whole: a crash leaves the old one or the new one.
bool save_memory(const std::string& path, const Memory& memory, std::string& error);

}  // namespace wrx_module
