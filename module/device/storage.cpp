// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The memory file. Flash bytes that are erased at the end of the flash are not written.
#include "module/device/storage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

namespace wrx_module {
namespace {

constexpr std::string_view kTitle = "wrx-module-memory ";
constexpr std::string_view kFormat = "1";
constexpr size_t kBytesALine = 32;
constexpr size_t kMostFlash = 0x200000;
constexpr off_t kMostFile = 16 << 20;

uint64_t fingerprint(std::string_view text) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (const char c : text)
    hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001b3ULL;
  return hash;
}

template <typename... Args>
std::string print(const char* format, Args... args) {
  std::array<char, 96> line{};
  std::snprintf(line.data(), line.size(), format, args...);
  return line.data();
}

std::string hex(uint64_t value) {
  return print("%016" PRIx64, value);
}

bool parse(std::string_view text, int base, uint64_t most, uint64_t& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return error == std::errc() && end == text.data() + text.size() && value <= most;
}

std::vector<std::string_view> words_of(std::string_view line) {
  std::vector<std::string_view> words;
  for (size_t start = 0; start <= line.size();) {
    const size_t end = std::min(line.find(' ', start), line.size());
    words.push_back(line.substr(start, end - start));
    start = end + 1;
  }
  return words;
}

bool read_flash(std::string_view digits, std::vector<uint8_t>& flash) {
  if (digits.size() % 2 != 0 || flash.size() + digits.size() / 2 > kMostFlash) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    uint64_t byte = 0;
    if (!parse(digits.substr(i, 2), 16, 0xFF, byte)) return false;
    flash.push_back(static_cast<uint8_t>(byte));
  }
  return true;
}

bool read_crc(const std::vector<std::string_view>& words, Memory& memory) {
  uint64_t offset = 0, length = 0, crc = 0;
  const bool good = parse(words[1], 10, kMostFlash, offset) &&
                    parse(words[2], 10, kMostFlash - offset, length) &&
                    parse(words[3], 16, 0xFFFF, crc);
  memory.stored_crc = StoredCrc{static_cast<uint32_t>(offset), static_cast<uint32_t>(length),
                                static_cast<uint16_t>(crc)};
  return good;
}

// One fact; false when the line is none.
bool read_fact(std::string_view line, Memory& memory) {
  const auto words = words_of(line);
  uint64_t value = 0;
  if (words.size() == 2 && words[0] == "version" && parse(words[1], 10, 0xFFFFFFFF, value)) {
    memory.version = static_cast<uint32_t>(value);
  } else if (words.size() == 2 && words[0] == "address" && parse(words[1], 16, 0xFFFFFFFF, value)) {
    memory.chip_address = static_cast<uint32_t>(value);
  } else if (words.size() == 2 && words[0] == "new-image" && parse(words[1], 10, 1, value)) {
    memory.new_image = value != 0;
  } else if (words.size() == 3 && words[0] == "slot" && parse(words[1], 10, 1023, value) &&
             !words[2].empty()) {
    memory.templates[static_cast<uint16_t>(value)] = words[2];
  } else if (words.size() == 4 && words[0] == "crc") {
    return read_crc(words, memory);
  } else if (words.size() == 2 && words[0] == "flash") {
    return read_flash(words[1], memory.flash);
  } else {
    return false;
  }
  return true;
}

std::string reason(const std::string& path, const char* what) {
  return path + ": " + what + ": " + std::strerror(errno);
}

bool write_all(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(file, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    text.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

bool read_all(int file, std::string& text) {
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t count = read(file, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    if (count == 0) return true;
    text.append(buffer.data(), static_cast<size_t>(count));
  }
}

// Makes the new name last: the folder's entry is on the disk, too.
void sync_folder(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const int handle = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (handle < 0) return;
  fsync(handle);
  close(handle);
}

}  // namespace

std::string memory_to_text(const Memory& memory) {
  std::string text = std::string(kTitle) + std::string(kFormat) + "\n";
  text += print("version %u\n", memory.version);
  text += print("address %08x\n", memory.chip_address);
  text += print("new-image %d\n", memory.new_image ? 1 : 0);
  for (const auto& [slot, finger] : memory.templates) {
    text += print("slot %u ", unsigned{slot}) + finger + "\n";
  }
  if (memory.stored_crc) {
    const StoredCrc& stored = *memory.stored_crc;
    text += print("crc %u %u %04x\n", stored.offset, stored.length, unsigned{stored.crc});
  }
  for (size_t i = 0; i < memory.flash.size(); ++i) {
    if (i % kBytesALine == 0) text += i == 0 ? "flash " : "\nflash ";
    text += print("%02x", unsigned{memory.flash[i]});
  }
  if (!memory.flash.empty()) text += "\n";
  return text + "end " + hex(fingerprint(text)) + "\n";
}

std::optional<Memory> memory_from_text(std::string_view text, std::string& error) {
  if (!text.starts_with(kTitle)) {
    error = "not a module's memory";
    return std::nullopt;
  }
  Memory memory;
  int number = 0;
  for (size_t start = 0; start < text.size();) {
    ++number;
    const size_t end = std::min(text.find('\n', start), text.size());
    const std::string_view line = text.substr(start, end - start);
    if (line.starts_with("end ")) {
      if (line.substr(4) == hex(fingerprint(text.substr(0, start))) && end + 1 == text.size()) {
        return memory;
      }
      break;
    }
    const bool good = number == 1 ? line.substr(kTitle.size()) == kFormat : read_fact(line, memory);
    if (!good) {
      error = number == 1 ? "written by another version of this program"
                          : "line " + std::to_string(number) + " is damaged";
      return std::nullopt;
    }
    start = end + 1;
  }
  error = "the file is damaged: its checksum does not fit";
  return std::nullopt;
}

LoadResult load_memory(const std::string& path, Memory& memory, std::string& error) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    if (errno == ENOENT) return LoadResult::absent;
    error = reason(path, "cannot be opened");
    return LoadResult::failed;
  }
  struct stat about = {};
  std::string text;
  const bool sized = fstat(file, &about) == 0 && about.st_size <= kMostFile;
  const bool good = sized && read_all(file, text);
  if (!good) error = sized ? reason(path, "cannot be read") : path + ": too long for a memory";
  close(file);
  if (!good) return LoadResult::failed;
  auto read = memory_from_text(text, error);
  if (!read) {
    error = path + ": " + error;
    return LoadResult::failed;
  }
  memory = std::move(*read);
  return LoadResult::loaded;
}

bool save_memory(const std::string& path, const Memory& memory, std::string& error) {
  const std::string fresh = path + ".new";
  const int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file < 0) {
    error = reason(fresh, "cannot be written");
    return false;
  }
  bool good = write_all(file, memory_to_text(memory)) && fsync(file) == 0;
  good = close(file) == 0 && good;
  if (good && rename(fresh.c_str(), path.c_str()) == 0) {
    sync_folder(path);
    return true;
  }
  error = reason(path, "cannot be saved");
  unlink(fresh.c_str());
  return false;
}

MemoryLock::~MemoryLock() {
  if (file_ >= 0) close(file_);
}

bool MemoryLock::take(const std::string& path, std::string& error,
                      std::chrono::milliseconds patience) {
  constexpr std::chrono::milliseconds kAgain{20};
  const std::string beside = path + ".lock";
  file_ = open(beside.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file_ < 0) {
    error = reason(beside, "cannot be made");
    return false;
  }
  for (;; patience -= kAgain) {
    if (flock(file_, LOCK_EX | LOCK_NB) == 0) return true;
    if (patience < kAgain) break;
    std::this_thread::sleep_for(kAgain);
  }
  error = path + ": another program has this module";
  return false;
}

}  // namespace wrx_module
