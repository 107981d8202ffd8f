// SPDX-License-Identifier: LGPL-2.1-or-later
// A received payload, read by offset without ever leaving it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace wrx::protocol {

class Payload {
 public:
  Payload(const uint8_t* bytes, std::size_t size) : bytes_(bytes), size_(size) {}

  std::size_t size() const { return size_; }
  const uint8_t* at(std::size_t offset) const { return bytes_ + offset; }
  bool has(std::size_t offset, std::size_t count = 1) const {
    return offset <= size_ && count <= size_ - offset;
  }
  /// The first byte of every response.
  uint8_t confirm() const { return bytes_[0]; }
  /// A byte that has() said is there.
  uint8_t byte(std::size_t offset) const { return bytes_[offset]; }

  /// Stores the big-endian value at `offset` in `field`; a value that is not wholly there leaves
  /// the field as it is.
  template <typename T>
  bool store(std::size_t offset, T& field) const {
    if (!has(offset, sizeof(T))) return false;
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      value = static_cast<T>(static_cast<uint64_t>(value) << 8 | bytes_[offset + i]);
    }
    field = value;
    return true;
  }

 private:
  const uint8_t* bytes_;
  std::size_t size_;
};

}  // namespace wrx::protocol
