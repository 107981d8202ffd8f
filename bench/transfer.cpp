// SPDX-License-Identifier: LGPL-2.1-or-later
// A read of 64 bytes that the module answers with none: the driver's, and the three bulk transfers
// it consists of, bare.
#include <benchmark/benchmark.h>
#include <libusb-1.0/libusb.h>

#include "transport/usb_device.h"
#include "world.h"

namespace wrx_bench {
namespace {

constexpr int kLength = 64;

void empty_read_driver(benchmark::State& state) {
  World world(false);
  uint8_t data[kLength];
  for ([[maybe_unused]] auto iteration : state) {
    int32_t received = 0;
    if (usb_read_data(data, kLength, &received) != 0 || received != 0) {
      return state.SkipWithError("no empty read");
    }
  }
}
BENCHMARK(empty_read_driver);

void empty_read_bare(benchmark::State& state) {
  World world(false);
  libusb_device_handle* handle = usb_get_dev_handle();
  uint8_t block[] = {'U', 'S', 'B', 'C', 0x80, kLength, 0, 0};
  uint8_t data[kLength], acknowledgement[4];
  for ([[maybe_unused]] auto iteration : state) {
    int moved = 0;
    int failed = libusb_bulk_transfer(handle, 0x01, block, sizeof block, &moved, 1000);
    failed |= libusb_bulk_transfer(handle, 0x81, data, kLength, &moved, 1000);
    failed |= libusb_bulk_transfer(handle, 0x81, acknowledgement, 4, &moved, 1000);
    if (failed != 0) return state.SkipWithError("a transfer failed");
  }
}
BENCHMARK(empty_read_bare);

}  // namespace
}  // namespace wrx_bench
