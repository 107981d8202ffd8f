// SPDX-License-Identifier: LGPL-2.1-or-later
// One exchange of the application channel: command block out, payload out or in, acknowledgement
// in.
//
// Command block, sent alone before every payload:
//
//   offset  size
//   0       4     "USBC"
//   4       1     direction of the payload: 0x00 to the module, 0x80 from it
//   5       3     payload length, little-endian; higher bits are dropped
//
// Acknowledgement, read after every payload: "USBS".
#include <array>
#include <cstddef>
#include <cstring>

#include "base/log.h"
#include "base/pause.h"
#include "base/units.h"
#include "transport/usb_device.h"

using wrx::CallSite;
using wrx::print_function;
using wrx::print_line;
using wrx::transport::here;

namespace {

constexpr uint32_t kTimeoutMs = 1000;
constexpr uint32_t kNoTimeout = 0;
constexpr std::array<uint8_t, 4> kAcknowledgement = {'U', 'S', 'B', 'S'};
constexpr uint32_t kTestLength = 128;
constexpr int kTestTries = 3;
constexpr uint32_t kTestPauseMs = 50;

enum class Direction : uint8_t { toModule = 0x00, fromModule = 0x80 };

struct [[gnu::packed]] CommandBlock {
  uint8_t signature[4];
  Direction direction;
  uint8_t length[3];
};
static_assert(sizeof(CommandBlock) == 8);
static_assert(offsetof(CommandBlock, direction) == 4 && offsetof(CommandBlock, length) == 5);

constexpr CommandBlock command_block(Direction direction, uint32_t length) {
  return {{'U', 'S', 'B', 'C'},
          direction,
          {static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8),
           static_cast<uint8_t>(length >> 16)}};
}

int32_t announce(Direction direction, int32_t length, CallSite site) {
  CommandBlock block = command_block(direction, static_cast<uint32_t>(length));
  DEV_CMD cmd = {reinterpret_cast<uint8_t*>(&block), sizeof block, 0, kTimeoutMs};
  if (usb_dev_ioctl(&cmd) == 0) return 0;
  print_function(site, "send failed!!!\r\n");
  return -1;
}

bool length_is_wrong(int32_t length, CallSite site) {
  if (length >= 1) return false;
  print_function(site, "input param msg_len = %d, error!!!\r\n", length);
  return true;
}

bool payload_is_wrong(const uint8_t* buf, int32_t len, CallSite site) {
  if (buf != nullptr && len >= 1) return false;
  print_line(site, "the param is error!!!\r\n");
  return true;
}

// The request that moves a payload, and the acknowledgement behind it.
int32_t request(DEV_CMD& cmd, CallSite site) {
  if (usb_dev_ioctl(&cmd) == 0) return 0;
  print_line(site, "usb_dev_ioctl return error!!!\r\n");
  return -1;
}

int32_t acknowledged(CallSite site) {
  if (usb_read_bulk_io_ack() == 0) return 0;
  print_line(site, "not received BULK_IO_ACK!!!\r\n");
  return -1;
}

}  // namespace

int32_t usb_prepare_send(int32_t msg_len) {
  if (length_is_wrong(msg_len, here())) return -1;
  print_function(here(), "msg_len = %d\r\n", msg_len);
  return announce(Direction::toModule, msg_len, here());
}

int32_t usb_prepare_read(int32_t msg_len) {
  if (length_is_wrong(msg_len, here())) return -1;
  return announce(Direction::fromModule, msg_len, here());
}

int32_t usb_read_bulk_io_ack(void) {
  std::array<uint8_t, 4> ack = {};
  DEV_CMD cmd = {ack.data(), 0, static_cast<uint32_t>(ack.size()), kTimeoutMs};
  if (request(cmd, here()) != 0) return -1;
  if (cmd.read_len == 0) {
    print_line(here(), "not received data!!!\r\n");
    return -1;
  }
  if (usb_check_bulk_io_ack(ack.data(), static_cast<int32_t>(ack.size())) != 0) {
    print_line(here(), "not received BULK_IO_ACK!!!\r\n");
    return -1;
  }
  usb_dev_param.bulk_io_ack_state = 1;
  return 0;
}

int32_t usb_check_bulk_io_ack(const uint8_t* buf, int32_t len) {
  if (buf == nullptr || len != static_cast<int32_t>(kAcknowledgement.size())) {
    print_line(here(), "the param is error!!!\r\n");
    return -1;
  }
  for (std::size_t i = 0; i < kAcknowledgement.size(); ++i) {
    if (buf[i] == kAcknowledgement[i]) return 0;
  }
  return -1;
}

int32_t usb_send_data(uint8_t* buf, int32_t len, int32_t* write_len) {
  if (payload_is_wrong(buf, len, here())) return -1;
  if (usb_prepare_send(len) != 0) {
    print_line(here(), "usb_prepare_send return error!!!\r\n");
    return -1;
  }
  DEV_CMD cmd = {buf, static_cast<uint32_t>(len), 0, kNoTimeout};
  if (request(cmd, here()) != 0) return -1;
  print_line(here(), "usb_read_bulk_io_ack.\r\n");
  if (acknowledged(here()) != 0) return -1;
  if (write_len != nullptr) *write_len = static_cast<int32_t>(cmd.write_len);
  return 0;
}

int32_t usb_read_data(uint8_t* buf, int32_t len, int32_t* read_len) {
  if (payload_is_wrong(buf, len, here())) return -1;
  if (usb_prepare_read(len) != 0) {
    print_line(here(), "usb_prepare_read return error!!!\r\n");
    return -1;
  }
  DEV_CMD cmd = {buf, 0, static_cast<uint32_t>(len), kTimeoutMs};
  if (request(cmd, here()) != 0) return -1;
  if (acknowledged(here()) != 0) return -1;
  if (read_len != nullptr) *read_len = static_cast<int32_t>(cmd.read_len);
  return 0;
}

int32_t usb_test_handle(void) {
  const CommandBlock block = command_block(Direction::fromModule, kTestLength);
  std::array<uint8_t, 256> buffer = {};
  std::memcpy(buffer.data(), &block, sizeof block);
  DEV_CMD cmd = {buffer.data(), sizeof block, kTestLength, kTimeoutMs};
  if (request(cmd, here()) != 0) return -1;
  return acknowledged(here());
}

int32_t usb_test(void) {
  for (int tries = 0; tries < kTestTries; ++tries) {
    if (usb_test_handle() == 0) {
      print_line(here(), "usb_test_handle successfully.\r\n");
      return 0;
    }
    wrx::pause_ms(kTestPauseMs);
  }
  return 0;
}
