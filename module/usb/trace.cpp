// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Records of the bus as lines.
#include "module/usb/trace.h"

#include <array>
#include <cinttypes>
#include <cstdio>

namespace wrx_module {
namespace {

constexpr size_t kBytesShown = 96;

template <typename... Args>
std::string print(const char* format, Args... args) {
  std::array<char, 160> line{};
  std::snprintf(line.data(), line.size(), format, args...);
  return line.data();
}

std::string transfer_line(const TraceRecord& r) {
  const bool out = r.kind == TraceKind::out;
  const char* format = out ? "usb-out ep=0x%02x len=%zu timeout=%u moved=%zu rc=%d "
                           : "usb-in ep=0x%02x want=%zu timeout=%u got=%zu rc=%d ";
  return print(format, r.endpoint, r.length, r.timeout_ms, r.moved, r.rc) + trace_bytes(r.bytes);
}

}  // namespace

std::string trace_bytes(std::span<const uint8_t> bytes) {
  constexpr std::array kDigits = {'0', '1', '2', '3', '4', '5', '6', '7',
                                  '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
  std::string text;
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i < kBytesShown) {
      text += kDigits[bytes[i] >> 4];
      text += kDigits[bytes[i] & 15U];
    }
    hash = (hash ^ bytes[i]) * 0x100000001b3ULL;
  }
  if (bytes.size() > kBytesShown) text += "…" + print("%016" PRIx64, hash);
  return text;
}

std::string trace_line(const TraceRecord& r) {
  std::string line = print("@ t=%" PRId64 " ", r.at_us / 1000);
  switch (r.kind) {
    case TraceKind::open:
      line += print("usb-open %04x:%04x ", r.vendor, r.product);
      return line + (r.handle == 0 ? "none" : print("#%d", r.handle));
    case TraceKind::close:
      return line + "usb-close #" + std::to_string(r.handle);
    case TraceKind::claim:
      return line + print("usb-claim interface=%d rc=%d", r.interface, r.rc);
    case TraceKind::out:
    case TraceKind::in:
      return line + transfer_line(r);
    case TraceKind::bus_event:
      return line + r.text;
  }
  return line;
}

}  // namespace wrx_module
