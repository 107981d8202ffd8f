// SPDX-License-Identifier: LGPL-2.1-or-later
//
// What went over the bus, a record each, and its one line for people, logs and golden files:
//
//   @ t=24 usb-in ep=0x81 want=64 timeout=1000 got=13 rc=0 ef01ffffffff0700040000000b
//
// t is the end of the transfer in whole milliseconds. Of more than 96 bytes the first 96 stand,
// then "…" and the FNV-1a hash (64 bits) of all of them.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace wrx_module {

enum class TraceKind { open, close, claim, out, in, bus_event };

struct TraceRecord {
  TraceKind kind = TraceKind::out;
  int64_t at_us = 0;
  uint16_t vendor = 0, product = 0;  ///< open
  int handle = 0;                    ///< open, close: number of the handle; 0 = none
  int interface = 0;                 ///< claim
  uint8_t endpoint = 0;              ///< out, in
  size_t length = 0;                 ///< out, in: bytes given or asked for
  uint32_t timeout_ms = 0;           ///< out, in
  size_t moved = 0;                  ///< out, in
  int rc = 0;                        ///< libusb's result
  std::vector<uint8_t> bytes;        ///< out: all that was given; in: what came
  std::string text;                  ///< bus_event: "module leaves the bus" and the like
};

/// Called for every record, on the thread of the call it is about, without the bench's lock.
using TraceSink = std::function<void(const TraceRecord&)>;

/// The record's line, without a line end.
std::string trace_line(const TraceRecord& record);
/// The bytes as the line shows them.
std::string trace_bytes(std::span<const uint8_t> bytes);

}  // namespace wrx_module
