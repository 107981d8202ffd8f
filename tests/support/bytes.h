// SPDX-License-Identifier: LGPL-2.1-or-later
// Bytes on the wire, framed and summed by hand: taken from neither side.
#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "module/usb/trace.h"

namespace wrx_test {

using Bytes = std::vector<uint8_t>;

/// A packet (1: command, 7: response, 8: data's end) with `length` in its head, by default what the
/// payload asks for, and a good sum.
inline Bytes packet(const Bytes& payload, uint8_t type = 7, int length = -1) {
  if (length < 0) length = static_cast<int>(payload.size()) + 2;
  Bytes bytes(9 + payload.size(), 0xFF);
  bytes[0] = 0xEF;
  bytes[1] = 0x01;
  bytes[6] = type;
  bytes[7] = static_cast<uint8_t>(length >> 8);
  bytes[8] = static_cast<uint8_t>(length);
  std::copy(payload.begin(), payload.end(), bytes.begin() + 9);
  const unsigned sum = std::accumulate(bytes.begin() + 6, bytes.end(), 0U);
  bytes.push_back(static_cast<uint8_t>(sum >> 8));
  bytes.push_back(static_cast<uint8_t>(sum));
  return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// Whether two records are alike in memory, padding and all.
template <typename Record>
bool same_bytes(const Record& one, const Record& other) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&one);
  return std::equal(bytes, bytes + sizeof one, reinterpret_cast<const uint8_t*>(&other));
}

inline std::string hex(const Bytes& bytes) {
  return wrx_module::trace_bytes({bytes.data(), bytes.size()});
}

}  // namespace wrx_test
