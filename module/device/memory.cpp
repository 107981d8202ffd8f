// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The module's non-volatile memory and its checksum unit.
#include "module/device/memory.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

namespace wrx_module {
namespace {

constexpr std::string_view kVersionHead = "acm32_btl_zelta_pc_";
constexpr size_t kFactoryImageBytes = 4096;

// What a byte does to the register, which is kept bit-reversed: the low bit leaves first.
constexpr std::array<uint16_t, 256> kCrcOfByte = [] {
  std::array<uint16_t, 256> table{};
  for (uint32_t byte = 0; byte < table.size(); ++byte) {
    uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value & 1U) != 0 ? (value >> 1) ^ 0x8408U : value >> 1;
    }
    table[byte] = static_cast<uint16_t>(value);
  }
  return table;
}();

uint16_t crc_step(uint16_t crc, uint8_t byte) {
  return static_cast<uint16_t>(crc >> 8 ^ kCrcOfByte[(crc ^ byte) & 0xFFU]);
}

}  // namespace

uint16_t flash_crc(std::span<const uint8_t> bytes) {
  uint16_t crc = 0xFFFF;
  for (const uint8_t byte : bytes)
    crc = crc_step(crc, byte);
  return static_cast<uint16_t>(~crc);
}

uint16_t flash_crc(const Memory& memory, uint32_t offset, uint32_t length) {
  uint16_t crc = 0xFFFF;
  for (uint64_t i = offset; i < uint64_t{offset} + length; ++i) {
    crc = crc_step(crc, i < memory.flash.size() ? memory.flash[i] : 0xFF);
  }
  return static_cast<uint16_t>(~crc);
}

bool bootable(const Memory& memory) {
  if (!memory.stored_crc || memory.stored_crc->length == 0 || memory.flash.empty()) return false;
  const StoredCrc& stored = *memory.stored_crc;
  return flash_crc(memory, stored.offset, stored.length) == stored.crc;
}

std::string version_text(uint32_t version) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%s%06u", kVersionHead.data(), version);
  return text.data();
}

std::optional<uint32_t> version_in_image(std::span<const uint8_t> image) {
  auto at = std::search(image.begin(), image.end(), kVersionHead.begin(), kVersionHead.end());
  if (image.end() - at < static_cast<std::ptrdiff_t>(kVersionHead.size() + 6)) return std::nullopt;
  at += static_cast<std::ptrdiff_t>(kVersionHead.size());
  uint32_t version = 0;
  for (int digit = 0; digit < 6; ++digit, ++at) {
    if (*at < '0' || *at > '9') return std::nullopt;
    version = version * 10 + (*at - uint32_t{'0'});
  }
  return version;
}

Memory factory_memory(uint32_t version) {
  Memory memory;
  memory.version = version;
  const std::string text = version_text(version);
  memory.flash.assign(text.begin(), text.end());
  uint32_t noise = version * 2654435761U + 1;
  while (memory.flash.size() < kFactoryImageBytes) {
    noise = noise * 1664525U + 1013904223U;
    memory.flash.push_back(static_cast<uint8_t>(noise >> 24));
  }
  memory.stored_crc = StoredCrc{0, kFactoryImageBytes, flash_crc(memory.flash)};
  return memory;
}

}  // namespace wrx_module
