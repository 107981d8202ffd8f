// SPDX-License-Identifier: LGPL-2.1-or-later
//
// What the module keeps without power: templates, flash, the stored checksum, its version.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "module/device/settings.h"

namespace wrx_module {

/// The checksum that the bootloader was told to keep, and the part of the flash it is about.
struct StoredCrc {
  uint32_t offset = 0;
  uint32_t length = 0;
  uint16_t crc = 0;
};

/// Non-volatile memory. Bytes of the flash beyond `flash.size()` are erased (0xFF).
struct Memory {
  std::map<uint16_t, std::string> templates;  ///< slot → name of the finger it was made from
  std::vector<uint8_t> flash;
  std::optional<StoredCrc> stored_crc;
  uint32_t version = 0;    ///< of the application last started
  bool new_image = false;  ///< the flash was rewritten since
  uint32_t chip_address = 0xFFFFFFFF;
};

/// A module as it leaves the factory: an image with `version` in its bytes, no templates.
Memory factory_memory(uint32_t version);
/// CRC-16/X-25 of `bytes`, as the module's own checksum unit computes it.
uint16_t flash_crc(std::span<const uint8_t> bytes);
/// The checksum of `length` bytes of the flash at `offset`, erased bytes included.
uint16_t flash_crc(const Memory& memory, uint32_t offset, uint32_t length);
/// Whether the application can be started: something is stored and its checksum holds.
bool bootable(const Memory& memory);
/// The version text of a firmware, always 25 characters for numbers below a million.
std::string version_text(uint32_t version);
/// The number behind the first version text in `image`; none when there is none.
std::optional<uint32_t> version_in_image(std::span<const uint8_t> image);

}  // namespace wrx_module
