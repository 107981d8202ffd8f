// SPDX-License-Identifier: LGPL-2.1-or-later
// What every fuzzer needs before its first input: a scratch folder below which the driver's paths
// lie, and a silent standard output.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace wrx_fuzz {

inline void enter_scratch_folder() {
  std::string folder = (std::filesystem::temp_directory_path() / "wrx-fuzz-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr || chdir(folder.c_str()) != 0) std::abort();
  for (const char* path : {"etc/biometric-auth/extra.conf.d", "etc/wrx6600/extra"}) {
    std::filesystem::create_directories(path);
  }
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
}

inline void write_file(const char* path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

/// Takes the input apart from its front.
class Input {
 public:
  Input(const uint8_t* data, std::size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

  uint8_t byte() {
    if (left_.empty()) return 0;
    const auto value = static_cast<uint8_t>(left_.front());
    left_.remove_prefix(1);
    return value;
  }
  /// At most `count` bytes.
  std::string_view bytes(std::size_t count) {
    const std::string_view taken = left_.substr(0, count);
    left_.remove_prefix(taken.size());
    return taken;
  }
  std::string_view rest() const { return left_; }
  bool empty() const { return left_.empty(); }

 private:
  std::string_view left_;
};

}  // namespace wrx_fuzz
