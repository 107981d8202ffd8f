// SPDX-License-Identifier: LGPL-2.1-or-later
// wrx-usbmon: writes what the kernel sees on a USB bus, a line a bulk transfer that moved anything:
//
//   out 01 55534243…        in 81 ef01ffff…
//
// Reads the kernel's binary monitor (/dev/usbmonN): a head of 48 bytes and then the data. An OUT
// transfer has its data with the submission ('S'), an IN transfer with the completion ('C').
#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

// The head as the kernel lays it out; fields behind these are not needed.
//    0 id (8)  8 type  9 transfer type  10 endpoint  …  36 bytes of data that follow
constexpr size_t kHeadBytes = 48, kTypeAt = 8, kTransferAt = 9, kEndpointAt = 10, kCapturedAt = 36;
constexpr uint8_t kBulk = 3;
constexpr size_t kLongestEvent = 1u << 20;

void show(const std::vector<uint8_t>& event) {
  uint32_t captured = 0;
  std::memcpy(&captured, event.data() + kCapturedAt, sizeof captured);
  const uint8_t endpoint = event[kEndpointAt];
  const bool in = (endpoint & 0x80) != 0;
  if (event[kTransferAt] != kBulk || captured == 0) return;
  if (event[kTypeAt] != (in ? 'C' : 'S')) return;
  fmt::print("{} {:02x} ", in ? "in" : "out", endpoint);
  for (size_t i = 0; i < captured && kHeadBytes + i < event.size(); ++i)
    fmt::print("{:02x}", event[kHeadBytes + i]);
  fmt::print("\n");
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const int monitor = argc == 2 ? open(argv[1], O_RDONLY | O_CLOEXEC) : -1;
  if (monitor < 0) {
    fmt::print(stderr, "usage: wrx-usbmon /dev/usbmonN\n");
    return 2;
  }
  std::vector<uint8_t> event(kLongestEvent);
  for (ssize_t got; (got = read(monitor, event.data(), kLongestEvent)) > 0;) {
    event.resize(static_cast<size_t>(got));
    if (event.size() >= kHeadBytes) show(event);
    event.resize(kLongestEvent);
  }
  return 1;
}
