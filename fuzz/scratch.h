// SPDX-License-Identifier: LGPL-2.1-or-later
// What every fuzzer needs: a scratch folder below which the driver's paths lie, a silent standard
// output, files, and the input taken apart from its front.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <string>
#include <string_view>

namespace wrx_fuzz {

/// Before the first input. Paths among the arguments stay the ones that were meant.
inline void enter_scratch_folder(int argc, char** argv) {
  static std::list<std::string> kept;
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] == '-' || !std::filesystem::exists(argv[i])) continue;
    argv[i] = kept.emplace_back(std::filesystem::absolute(argv[i])).data();
  }
  std::string folder = (std::filesystem::temp_directory_path() / "wrx-fuzz-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr || chdir(folder.c_str()) != 0) std::abort();
  for (const char* path : {"etc/biometric-auth/extra.conf.d", "etc/wrx6600/extra"}) {
    std::filesystem::create_directories(path);
  }
  // The driver's log file takes all that is written into it, and stays empty.
  std::filesystem::create_symlink("/dev/null", "etc/wrx6600/extra/log_wrx.txt");
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
}

inline void write_file(const char* path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string read_file(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// Takes the input apart from its front; behind its end are zeros.
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
