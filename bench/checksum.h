// SPDX-License-Identifier: LGPL-2.1-or-later
// Three ways to the image's checksum, CRC-16/X-25: the driver's, Boost's table, a bit at a time.
#pragma once

#include <cstdint>
#include <string>

namespace wrx_bench {

/// The largest image, of noise.
const std::string& largest_image();

uint16_t crc_of_driver(const std::string& bytes);
uint16_t crc_of_boost(const std::string& bytes);
uint16_t crc_bit_by_bit(const std::string& bytes);

}  // namespace wrx_bench
