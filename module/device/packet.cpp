// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Application packets, read and written with the module's own routines.
#include "module/device/packet.h"

#include <algorithm>

namespace wrx_module {
namespace {

constexpr size_t kHeadBytes = 9;
constexpr size_t kSumBytes = 2;
constexpr size_t kTypeOffset = 6;

void put16(std::vector<uint8_t>& out, uint32_t value) {
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

// Type and length bytes plus the first `counted` payload bytes, modulo 65536.
uint32_t sum_of(std::span<const uint8_t> packet, size_t counted) {
  uint32_t sum = 0;
  for (const uint8_t byte : packet.subspan(kTypeOffset, kHeadBytes - kTypeOffset + counted)) {
    sum += byte;
  }
  return sum & 0xFFFFU;
}

std::vector<uint8_t> head(uint8_t type, uint32_t length_field) {
  // Answers always carry the broadcast address, whatever address the module was given.
  std::vector<uint8_t> bytes = {0xEF, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, type};
  put16(bytes, length_field);
  return bytes;
}

}  // namespace

std::vector<uint8_t> packet(uint8_t type, std::span<const uint8_t> payload) {
  std::vector<uint8_t> bytes = head(type, static_cast<uint32_t>(payload.size() + kSumBytes));
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  put16(bytes, sum_of(bytes, payload.size()));
  return bytes;
}

std::vector<uint8_t> image_packet(std::span<const uint8_t> image, bool marker) {
  std::vector<uint8_t> bytes = head(kTypeEnd, 0xFFFF);
  bytes.insert(bytes.end(), image.begin(), image.end());
  put16(bytes, marker ? 0x55AAU : sum_of(bytes, image.size() & 0xFFFFU));
  return bytes;
}

PacketFault read_packet(std::span<const uint8_t> bytes, Packet& packet) {
  if (bytes.size() < 2 || bytes[0] != 0xEF || bytes[1] != 0x01) return PacketFault::no_head;
  if (bytes.size() < kHeadBytes + kSumBytes) return PacketFault::cut_short;
  packet.address = 0;
  for (size_t i = 2; i < kTypeOffset; ++i)
    packet.address = packet.address << 8 | bytes[i];
  packet.type = bytes[kTypeOffset];
  const size_t length = size_t{bytes[7]} << 8 | bytes[8];
  if (length < kSumBytes || bytes.size() < kHeadBytes + length) return PacketFault::cut_short;
  const size_t n = length - kSumBytes;
  packet.payload.assign(bytes.begin() + kHeadBytes,
                        bytes.begin() + static_cast<std::ptrdiff_t>(kHeadBytes + n));
  const uint32_t sum = uint32_t{bytes[kHeadBytes + n]} << 8 | bytes[kHeadBytes + n + 1];
  return sum == sum_of(bytes, n) ? PacketFault::none : PacketFault::bad_sum;
}

}  // namespace wrx_module
