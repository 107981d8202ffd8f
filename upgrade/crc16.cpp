// SPDX-License-Identifier: LGPL-2.1-or-later
// CRC-16/X-25, eight bytes a step through tables made at compile time.
#include <array>
#include <cstddef>
#include <cstdint>

#include "upgrade/bootloader.h"

namespace {

constexpr uint16_t kPolynomial = 0x8408;  // 0x1021, bits reversed
constexpr std::size_t kSlices = 8;

using Table = std::array<uint16_t, 256>;

// tables[n][b]: what byte b does to the register when n zero bytes follow it.
constexpr std::array<Table, kSlices> make_tables() {
  std::array<Table, kSlices> tables{};
  for (std::size_t byte = 0; byte < 256; ++byte) {
    auto value = static_cast<uint16_t>(byte);
    for (int bit = 0; bit < 8; ++bit) {
      value = static_cast<uint16_t>((value & 1) != 0 ? value >> 1 ^ kPolynomial : value >> 1);
    }
    tables[0][byte] = value;
  }
  for (std::size_t slice = 1; slice < kSlices; ++slice) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const uint16_t before = tables[slice - 1][byte];
      tables[slice][byte] = static_cast<uint16_t>(before >> 8 ^ tables[0][before & 0xFF]);
    }
  }
  return tables;
}
constexpr std::array<Table, kSlices> kTables = make_tables();

template <typename Byte>
constexpr uint16_t crc16(const Byte* data, std::size_t size) {
  uint16_t crc = 0xFFFF;
  const auto at = [data](std::size_t i) { return static_cast<uint8_t>(data[i]); };
  std::size_t i = 0;
  for (; i + kSlices <= size; i += kSlices) {
    crc = static_cast<uint16_t>(kTables[7][static_cast<uint8_t>(at(i) ^ crc)] ^
                                kTables[6][static_cast<uint8_t>(at(i + 1) ^ crc >> 8)] ^
                                kTables[5][at(i + 2)] ^ kTables[4][at(i + 3)] ^
                                kTables[3][at(i + 4)] ^ kTables[2][at(i + 5)] ^
                                kTables[1][at(i + 6)] ^ kTables[0][at(i + 7)]);
  }
  for (; i < size; ++i) {
    crc = static_cast<uint16_t>(crc >> 8 ^ kTables[0][static_cast<uint8_t>(at(i) ^ crc)]);
  }
  return static_cast<uint16_t>(crc ^ 0xFFFF);
}
static_assert(crc16("123456789", 9) == 0x906E && crc16("", 0) == 0);

template <typename Word>
constexpr Word bits_reversed(Word value) {
  Word result = 0;
  for (std::size_t bit = 0; bit < sizeof(Word) * 8; ++bit) {
    result = static_cast<Word>(result << 1 | (value >> bit & 1));
  }
  return result;
}
static_assert(bits_reversed<uint8_t>(0x01) == 0x80 && bits_reversed<uint16_t>(0x1021) == 0x8408);

}  // namespace

uint16_t CRC16_X25(const char* data, uint32_t datalen) {
  return data == nullptr ? uint16_t{0} : crc16(data, datalen);
}

void InvertUint8(uint8_t* dBuf, const uint8_t* srcBuf) {
  *dBuf = bits_reversed(*srcBuf);
}

void InvertUint16(uint16_t* dBuf, const uint16_t* srcBuf) {
  *dBuf = bits_reversed(*srcBuf);
}
