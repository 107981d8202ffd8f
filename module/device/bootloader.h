// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The module in its bootloader. Frames, the same in both directions:
//
//   AA  type  N(2, little-endian)  data(N)  check  55      check makes the XOR of all bytes 0
//
//   type  request                         answer
//   D3    -                               status        erases the flash and the stored checksum
//   D7    address(4) bytes                status        writes to erased flash
//   A6    address(4) length(4)            crc(2)
//   D9    length(4) crc(2) address(4)     status        stores the checksum
//   CC    -                               status        security code, only with a valid flash
//   E3    -                               status        runs the application, only after CC
//   D0    address(4) length(1)            the bytes
//   A0    -                               serial number
//
// A status is one byte, 0 for success. What is written is in the memory at once, so a power cut
// keeps exactly that.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "module/device/memory.h"
#include "module/device/settings.h"
#include "module/device/wire.h"

namespace wrx_module {

/// Status bytes of a refusal.
enum class BootStatus : uint8_t {
  ok = 0,
  bad_check = 1,
  bad_length = 2,
  out_of_range = 3,
  not_erased = 4,
  not_allowed = 5,
  crc_mismatch = 6,
  unknown = 7,
};

class Bootloader {
 public:
  Bootloader(const Settings& settings, Memory& memory, std::vector<CommandRecord>& commands)
      : settings_(settings), memory_(memory), commands_(commands) {}

  /// One frame to endpoint 0x04; it is carried out at once, its answer comes in its time.
  OutResult out(int64_t now_us, std::span<const uint8_t> data);
  /// The answer of at most `max` bytes from endpoint 0x84.
  InResult in(int64_t now_us, size_t max);
  /// When the waiting answer may be read; kNever without one.
  int64_t next_event_us(int64_t now_us) const;
  /// When a permitted run-application command arrived; none before.
  std::optional<int64_t> run_asked_us() const { return run_asked_us_; }

 private:
  friend struct BootCommandSet;  // the handlers, one a row of the command table

  struct Answer {
    int64_t ready_us;
    std::vector<uint8_t> bytes;
  };

  void execute(int64_t now_us, uint8_t type, std::span<const uint8_t> data);
  void answer(int64_t ready_us, uint8_t type, std::span<const uint8_t> data);
  void say_status(int64_t now_us, uint8_t type, BootStatus status);
  const BootQuirk* quirk(uint8_t type);

  const Settings& settings_;
  Memory& memory_;
  std::vector<CommandRecord>& commands_;
  std::deque<Answer> answers_;
  std::map<uint8_t, int> seen_;  // frames by type, for quirks
  const BootQuirk* quirk_ = nullptr;
  bool security_ = false;
  int64_t now_us_ = 0;
  std::optional<int64_t> run_asked_us_;
};

}  // namespace wrx_module
