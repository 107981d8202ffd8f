// SPDX-License-Identifier: LGPL-2.1-or-later
// A disk without power: SQLite's files as they are after the power went, when only what was synced
// has been kept. It stands in front of the system's VFS as the default one.
#pragma once

#include <sqlite3.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>

namespace wrx_test {

class LosingDisk {
 public:
  /// From now on the power goes at write number `at_write` (0: never): that one and all later ones
  /// fail. Without `names_are_synced` a removed file is back after it unless its removal was
  /// synced too.
  void begin(int at_write, bool names_are_synced) {
    at_write_ = at_write;
    names_are_synced_ = names_are_synced;
    writes_ = 0;
    kept_.clear();
    active_ = true;
  }
  /// The files that are left, by path.
  std::map<std::string, std::string> end() {
    active_ = false;
    std::map<std::string, std::string> left;
    for (const auto& [path, content] : kept_) {
      if (content) left[path] = *content;
    }
    return left;
  }
  int writes() const { return writes_; }

  // For the VFS.
  bool power_goes() { return active_ && ++writes_ >= at_write_ && at_write_ != 0; }
  bool without_power() const { return active_ && at_write_ != 0 && writes_ >= at_write_; }
  void opened(const std::string& path) {
    if (active_ && kept_.find(path) == kept_.end()) kept_[path] = content_of(path);
  }
  void synced(const std::string& path) {
    if (active_) kept_[path] = content_of(path);
  }
  void removed(const std::string& path, bool synced) {
    if (active_ && (synced || names_are_synced_)) kept_[path].reset();
  }

 private:
  static std::optional<std::string> content_of(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  bool active_ = false, names_are_synced_ = true;
  int at_write_ = 0, writes_ = 0;
  std::map<std::string, std::optional<std::string>> kept_;
};

namespace losing_vfs {

inline LosingDisk disk;
inline sqlite3_vfs* below = nullptr;

/// An open file: ours, then the system's in the room behind.
struct File {
  sqlite3_file base;
  std::string* path;
};
inline sqlite3_file* real(sqlite3_file* file) {
  return reinterpret_cast<sqlite3_file*>(reinterpret_cast<File*>(file) + 1);
}
inline const std::string& path(sqlite3_file* file) {
  return *reinterpret_cast<File*>(file)->path;
}

inline int close(sqlite3_file* file) {
  delete reinterpret_cast<File*>(file)->path;
  return real(file)->pMethods->xClose(real(file));
}
inline int write(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 at) {
  if (disk.power_goes()) return SQLITE_IOERR_WRITE;
  return real(file)->pMethods->xWrite(real(file), bytes, size, at);
}
inline int truncate(sqlite3_file* file, sqlite3_int64 size) {
  if (disk.power_goes()) return SQLITE_IOERR_TRUNCATE;
  return real(file)->pMethods->xTruncate(real(file), size);
}
inline int sync(sqlite3_file* file, int flags) {
  if (disk.without_power()) return SQLITE_IOERR_FSYNC;
  const int result = real(file)->pMethods->xSync(real(file), flags);
  disk.synced(path(file));
  return result;
}
/// A method that is the system's.
template <auto method, typename... Arguments>
int forward(sqlite3_file* file, Arguments... arguments) {
  return (real(file)->pMethods->*method)(real(file), arguments...);
}

inline const sqlite3_io_methods kMethods = {
    .iVersion = 1,
    .xClose = close,
    .xRead = forward<&sqlite3_io_methods::xRead, void*, int, sqlite3_int64>,
    .xWrite = write,
    .xTruncate = truncate,
    .xSync = sync,
    .xFileSize = forward<&sqlite3_io_methods::xFileSize, sqlite3_int64*>,
    .xLock = forward<&sqlite3_io_methods::xLock, int>,
    .xUnlock = forward<&sqlite3_io_methods::xUnlock, int>,
    .xCheckReservedLock = forward<&sqlite3_io_methods::xCheckReservedLock, int*>,
    .xFileControl = forward<&sqlite3_io_methods::xFileControl, int, void*>,
    .xSectorSize = forward<&sqlite3_io_methods::xSectorSize>,
    .xDeviceCharacteristics = forward<&sqlite3_io_methods::xDeviceCharacteristics>,
    .xShmMap = nullptr,
    .xShmLock = nullptr,
    .xShmBarrier = nullptr,
    .xShmUnmap = nullptr,
    .xFetch = nullptr,
    .xUnfetch = nullptr};

inline int open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
  file->pMethods = nullptr;
  if (name != nullptr) disk.opened(name);
  const int result = below->xOpen(below, name, real(file), flags, out_flags);
  if (result != SQLITE_OK) return result;
  reinterpret_cast<File*>(file)->path = new std::string(name != nullptr ? name : "");
  file->pMethods = &kMethods;
  return SQLITE_OK;
}
inline int remove(sqlite3_vfs*, const char* name, int sync_folder) {
  if (disk.power_goes()) return SQLITE_IOERR_DELETE;
  const int result = below->xDelete(below, name, sync_folder);
  if (result == SQLITE_OK) disk.removed(name, sync_folder != 0);
  return result;
}

}  // namespace losing_vfs

/// The disk, in front of the system's VFS from the first call on.
inline LosingDisk& losing_disk() {
  static sqlite3_vfs vfs = [] {
    losing_vfs::below = sqlite3_vfs_find(nullptr);
    sqlite3_vfs copy = *losing_vfs::below;
    copy.szOsFile += static_cast<int>(sizeof(losing_vfs::File));
    copy.zName = "losing";
    copy.xOpen = losing_vfs::open;
    copy.xDelete = losing_vfs::remove;
    return copy;
  }();
  static const int registered = sqlite3_vfs_register(&vfs, 1);
  (void)registered;
  return losing_vfs::disk;
}

}  // namespace wrx_test
