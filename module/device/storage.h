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

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "module/device/memory.h"

namespace wrx_module {

/// The memory in the form above.
std::string memory_to_text(const Memory& memory);
/// Reads such a text; without a result `error` says what is wrong and where.
std::optional<Memory> memory_from_text(std::string_view text, std::string& error);

enum class LoadResult { loaded, absent, failed };
/// Reads the file into `memory`, which stays as it is when there is none or (with `error`) a bad
/// one.
LoadResult load_memory(const std::string& path, Memory& memory, std::string& error);
/// Replaces the file as a whole: a crash leaves the old one or the new one.
bool save_memory(const std::string& path, const Memory& memory, std::string& error);

/// A memory file in one program's hands: of two that save it, the second would undo what the first
/// has learned. Held through a file beside it, "<path>.lock", which stays.
class MemoryLock {
 public:
  MemoryLock() = default;
  MemoryLock(MemoryLock&& other) noexcept : file_(std::exchange(other.file_, -1)) {}
  MemoryLock& operator=(MemoryLock&&) = delete;
  ~MemoryLock();
  /// Takes the memory file `path`, once, from a program that gives it back within `patience`;
  /// without it `error` says why.
  bool take(const std::string& path, std::string& error, std::chrono::milliseconds patience = {});

 private:
  int file_ = -1;
};

}  // namespace wrx_module
