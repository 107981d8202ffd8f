// SPDX-License-Identifier: LGPL-2.1-or-later
// The image's checksum over 2 MiB.
#include "checksum.h"

#include <benchmark/benchmark.h>

#include <boost/crc.hpp>

#include "upgrade/bootloader.h"
#include "upgrade/upgrade.h"

namespace wrx_bench {

const std::string& largest_image() {
  static const std::string image = [] {
    std::string bytes(wrx::upgrade::kMaxImage, '\0');
    uint32_t noise = 1;
    for (char& byte : bytes) {
      noise = noise * 1664525U + 1013904223U;
      byte = static_cast<char>(noise >> 24);
    }
    return bytes;
  }();
  return image;
}

uint16_t crc_of_driver(const std::string& bytes) {
  return CRC16_X25(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

uint16_t crc_of_boost(const std::string& bytes) {
  boost::crc_optimal<16, 0x1021, 0xFFFF, 0xFFFF, true, true> crc;
  crc.process_bytes(bytes.data(), bytes.size());
  return crc.checksum();
}

uint16_t crc_bit_by_bit(const std::string& bytes) {
  unsigned crc = 0xFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<uint8_t>(byte);
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc & 1U) != 0 ? crc >> 1 ^ 0x8408U : crc >> 1;
  }
  return static_cast<uint16_t>(~crc);
}

namespace {

void checksum(benchmark::State& state, uint16_t (*crc)(const std::string&)) {
  const std::string& image = largest_image();
  if (crc(image) != crc_bit_by_bit(image)) return state.SkipWithError("the checksums differ");
  for ([[maybe_unused]] auto iteration : state)
    benchmark::DoNotOptimize(crc(image));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(image.size()));
}
BENCHMARK_CAPTURE(checksum, driver, crc_of_driver)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(checksum, boost, crc_of_boost)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(checksum, bit_by_bit, crc_bit_by_bit)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace wrx_bench
