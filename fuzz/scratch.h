// SPDX-License-Identifier: LGPL-2.1-or-later
// What every fuzzer needs: files in its scratch folder (scratch.cpp), and the input taken apart
// from its front.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace wrx_fuzz {

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
