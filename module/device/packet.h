// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The module's own reading and writing of application packets:
//
//   offset  0   2      6     7      9          9+n
//          EF01 address type length payload(n) sum     all fields big-endian
//
// length counts payload and sum; sum adds type, both length bytes and the payload, modulo 65536.
// Shares nothing with any driver, so that an error on one side cannot hide on the other.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace wrx_module {

inline constexpr uint8_t kTypeCommand = 1;
inline constexpr uint8_t kTypeResponse = 7;
inline constexpr uint8_t kTypeEnd = 8;

struct Packet {
  uint32_t address = 0;
  uint8_t type = 0;
  std::vector<uint8_t> payload;
};

enum class PacketFault { none, no_head, cut_short, bad_sum };

/// Writes a packet from the module.
std::vector<uint8_t> packet(uint8_t type, std::span<const uint8_t> payload);
/// Writes an image packet: length field 0xFFFF, all of `image`, and either the marker 0x55AA or a
/// sum in which only the image's first (size modulo 65536) bytes take part.
std::vector<uint8_t> image_packet(std::span<const uint8_t> image, bool marker);
/// Reads the packet at the start of `bytes`.
PacketFault read_packet(std::span<const uint8_t> bytes, Packet& packet);

}  // namespace wrx_module
