// SPDX-License-Identifier: LGPL-2.1-or-later
// Taking a fingerprint image out of the byte stream: in one run, a byte at a time, and as a mere
// copy of as many bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "protocol/packet.h"
#include "world.h"

namespace wrx_bench {
namespace {

constexpr size_t kRead = 92180;  // what the driver asks for: the packet and a few bytes more
constexpr size_t kImage = 92160;

// An image's packet as it is read, without a sum (0x55AA stands in its place).
std::vector<uint8_t> image_read() {
  std::vector<uint8_t> bytes = {0xEF, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0x08, 0xFF, 0xFF};
  for (size_t i = 0; i < kImage; ++i)
    bytes.push_back(static_cast<uint8_t>(i * 7 + i / 256));
  bytes.insert(bytes.end(), {0x55, 0xAA});
  bytes.resize(kRead, 0);
  return bytes;
}

int32_t parse_run(const std::vector<uint8_t>& bytes) {
  return fp_parse_prot(bytes.data(), static_cast<int32_t>(bytes.size()));
}

int32_t parse_bytes(const std::vector<uint8_t>& bytes) {
  int32_t result = -1;
  for (const uint8_t byte : bytes) {
    if (fp_deal_usb_data(byte) == 0) result = 0;
  }
  return result;
}

void image_parse(benchmark::State& state, int32_t (*parse)(const std::vector<uint8_t>&)) {
  const Quiet quiet;
  const std::vector<uint8_t> bytes = image_read();
  for ([[maybe_unused]] auto iteration : state) {
    fp_resp_init(PORT_CMD_ACQUIRE_IMAGEDATA);
    if (parse(bytes) != 0) return state.SkipWithError("no image");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK_CAPTURE(image_parse, run, parse_run)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(image_parse, byte_by_byte, parse_bytes)->Unit(benchmark::kMicrosecond);

void image_copy(benchmark::State& state) {
  const std::vector<uint8_t> bytes = image_read();
  std::vector<uint8_t> copy(bytes.size());
  for ([[maybe_unused]] auto iteration : state) {
    std::memcpy(copy.data(), bytes.data(), bytes.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(image_copy)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace wrx_bench
