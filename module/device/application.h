// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The module running its application: the command block and acknowledgement around every payload,
// and the commands. Lives from one start of the application to the loss of power or a reboot.
//
//   out 0x01: block "USBC" dir len24      dir 0x00: payload out, then acknowledgement in
//   in  0x81:                             dir 0x80: payload in, then acknowledgement in
//
// A new block abandons whatever phase the one before was in.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "module/device/answers.h"
#include "module/device/memory.h"
#include "module/device/packet.h"
#include "module/device/procedure.h"
#include "module/device/sensor.h"
#include "module/device/settings.h"
#include "module/device/wire.h"

namespace wrx_module {

class Application {
 public:
  Application(Settings& settings, Memory& memory, Sensor& sensor,
              std::vector<CommandRecord>& commands);

  /// One whole transfer to endpoint 0x01.
  OutResult out(int64_t now_us, std::span<const uint8_t> data);
  /// One transfer of at most `max` bytes from endpoint 0x81.
  InResult in(int64_t now_us, size_t max);
  /// The next moment after now at which there is more to say.
  int64_t next_event_us(int64_t now_us) const;
  /// Lets the running procedure do what is due.
  void advance(int64_t now_us);

  Answers& answers() { return answers_; }
  const Procedure& procedure() const { return procedure_; }
  /// When a valid reboot command arrived; none before.
  std::optional<int64_t> reboot_asked_us() const { return reboot_asked_us_; }

 private:
  friend struct CommandSet;  // the handlers, one a row of the command table

  enum class Phase {
    idle,         // waits for a block
    payload_out,  // waits for the announced payload
    payload_in,   // owes the host a payload of at most expected_ bytes
    acknowledge,  // owes the host the acknowledgement
  };

  void begin(std::span<const uint8_t> block);
  void take_payload(int64_t now_us);
  void execute(const Packet& command);
  bool refused(uint8_t code);
  void reply(uint8_t code, std::span<const uint8_t> result = {});
  void follow(std::vector<uint8_t> packet);
  InResult send_payload(int64_t now_us, size_t max);

  Settings& settings_;
  Memory& memory_;
  Sensor& sensor_;
  std::vector<CommandRecord>& commands_;
  Answers answers_;
  Procedure procedure_;

  Phase phase_ = Phase::idle;
  size_t expected_ = 0;
  std::vector<uint8_t> received_;
  std::vector<uint8_t> sending_;  // a payload of which the host has read a part

  int64_t now_us_ = 0;                                  // of the command being executed
  std::optional<std::optional<std::string>> captured_;  // the picture in the buffer, of whom
  std::optional<int64_t> reboot_asked_us_;
  std::string mode_ = "USER";
  uint8_t pc_state_ = 0;
  bool asleep_ = false;
};

}  // namespace wrx_module
