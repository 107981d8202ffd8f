// SPDX-License-Identifier: LGPL-2.1-or-later
// The feature database loses its power at every write: the next start reads it, and records and
// slots agree, or differ by the operation's own work, half done. A success is kept.
#include <fcntl.h>
#include <sys/syscall.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <utility>

#include "sweep/operations.h"
#include "whole/remains.h"

namespace wrx_test {
namespace {

namespace fs = std::filesystem;

/// The disk below SQLite's files, which are left as they were synced.
class LosingDisk {
 public:
  /// From now on the power goes at write number `at_write` (0: never): that one and all later ones
  /// fail. Without `names_are_synced` a removed file is back unless its folder was synced too.
  void begin(int at_write, bool names_are_synced) {
    *this = {};
    at_write_ = at_write;
    names_are_synced_ = names_are_synced;
    for (const auto& file : fs::directory_iterator(fs::current_path())) {
      if (is_ours(file.path())) kept_[file.path()] = content_of(file.path());
    }
    active_ = true;
  }
  /// The files that are left, by path.
  const std::map<std::string, std::string>& end() {
    active_ = false;
    return kept_;
  }
  int writes() const { return writes_; }

  /// Before a write to the file, or its removal. False when the power is gone.
  bool change(const std::string& path) {
    if (!active_ || !is_ours(path)) return true;
    ++writes_;
    return has_power();
  }
  bool has_power() const { return !active_ || at_write_ == 0 || writes_ < at_write_; }
  void removed(const std::string& path) {
    removed_.insert(path);
    if (names_are_synced_) synced(fs::path(path).parent_path());  // as if it were
  }
  /// Of a folder all removals.
  void synced(const std::string& path) {
    if (!active_) return;
    if (!fs::is_directory(path)) {
      kept_[path] = content_of(path);
    } else {
      for (const std::string& gone : std::exchange(removed_, {}))
        kept_.erase(gone);
    }
  }

 private:
  static bool is_ours(const fs::path& path) {
    return path.filename().string().starts_with("feature.db");
  }
  static std::string content_of(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  bool active_ = false, names_are_synced_ = true;
  int at_write_ = 0, writes_ = 0;
  std::map<std::string, std::string> kept_;
  std::set<std::string> removed_;
};

LosingDisk& disk() {
  static LosingDisk the_disk;
  return the_disk;
}

std::string path_of(int descriptor) {
  std::error_code ignored;
  return fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), ignored);
}

// A call of the system on a file, unless the power is gone.
template <typename... Arguments>
int on_disk(bool has_power, int64_t number, Arguments... arguments) {
  if (has_power) return static_cast<int>(syscall(number, arguments...));
  errno = EIO;
  return -1;
}

}  // namespace
}  // namespace wrx_test

// SQLite finds these before the C library's.
extern "C" {

ssize_t pwrite64(int descriptor, const void* bytes, size_t size, off64_t at) {
  using namespace wrx_test;
  return on_disk(disk().change(path_of(descriptor)), SYS_pwrite64, descriptor, bytes, size, at);
}
int ftruncate64(int descriptor, off64_t size) noexcept {
  using namespace wrx_test;
  return on_disk(disk().change(path_of(descriptor)), SYS_ftruncate, descriptor, size);
}
int fdatasync(int descriptor) {
  using namespace wrx_test;
  const int result = on_disk(disk().has_power(), SYS_fdatasync, descriptor);
  if (result == 0) disk().synced(path_of(descriptor));
  return result;
}
int unlink(const char* path) noexcept {
  using namespace wrx_test;
  const int result = on_disk(disk().change(path), SYS_unlinkat, AT_FDCWD, path, 0);
  if (result == 0) disk().removed(path);
  return result;
}

}  // extern "C"

namespace wrx_test {
namespace {

struct Loss {
  std::string differences;
  int writes;
};

// The power goes at a write of the database: host and module lose it together.
Loss power_lost(bool enrol, int at_write, bool names_are_synced) {
  wrx_module::Memory memory;
  std::map<std::string, std::string> files;
  {
    Rig rig;
    sweep::stock(rig);
    rig.ready();
    disk().begin(at_write, names_are_synced);
    rig.play("press ring x14");
    if (enrol) {
      rig.enroll(Rig::kUser, 3, "ring");
    } else {
      rig.clean(Rig::kUser, 1, 2);
    }
    files = disk().end();
    memory = rig.device.memory();
  }
  Rig rig;
  for (const auto& [path, content] : files)
    rig.write_file(fs::path(path).filename(), content);
  rig.device.cut_power();
  rig.device.memory() = memory;
  rig.device.plug();
  rig.ready();
  return {rig.stored().empty() ? "records are lost" : differences(rig), disk().writes()};
}

TEST(SuddenDeath, OfTheDatabaseAtEveryWriteAndBehindASuccess) {
  int tried = 0;
  for (const bool enrol : {true, false}) {
    for (const bool names_are_synced : {true, false}) {
      const Loss none = power_lost(enrol, 0, names_are_synced);
      EXPECT_EQ(none.differences, "") << (enrol ? "enrol" : "clean") << names_are_synced;
      EXPECT_GT(none.writes, 5);
      for (int at = 1; at <= none.writes; ++at, ++tried) {
        const std::string found = power_lost(enrol, at, names_are_synced).differences;
        const bool whole = found.empty() || found.starts_with(enrol ? "slot 23 without" : "record");
        EXPECT_TRUE(whole) << (enrol ? "enrol" : "clean") << ", write " << at << ": " << found;
      }
    }
  }
  std::printf("database without power at %d writes: every next start reads it\n", tried);
}

}  // namespace
}  // namespace wrx_test
