// SPDX-License-Identifier: LGPL-2.1-or-later
// Framing and sending of commands.
#include <cstring>

#include "base/log.h"
#include "base/pause.h"
#include "base/units.h"
#include "protocol/decoders.h"
#include "protocol/packet.h"
#include "transport/usb_device.h"

using wrx::protocol::here;
using wrx::protocol::index_table;
using wrx::protocol::IndexTable;

namespace {

constexpr uint16_t kPacketHead = 0xEF01;
constexpr uint32_t kEveryModule = 0xFFFFFFFF;
// An image is summed in blocks of this fixed length, which compilers turn into wide additions.
constexpr std::ptrdiff_t kSumBlock = 64;

void store_big_endian(uint8_t* bytes, uint32_t value, std::size_t count) {
  for (std::size_t i = count; i-- > 0; value >>= 8)
    bytes[i] = static_cast<uint8_t>(value);
}

// Sends the command packet. 0 or -1.
int32_t send_packet(uint8_t cmd_code, const uint8_t* buf, int32_t len) {
  MSG_STRUCT message;  // only the bytes that are sent are ever written
  std::size_t payload = 1;
  message.data[0] = cmd_code;
  if (buf != nullptr && len > 0) {
    std::memcpy(message.data + 1, buf, static_cast<std::size_t>(len));
    payload += static_cast<std::size_t>(len);
  }
  auto* bytes = reinterpret_cast<uint8_t*>(&message);
  fp_fill_msg_head(&message.head, PROT_TYPE_CMD,
                   static_cast<uint16_t>(payload + wrx::kChecksumSize));
  fp_fill_msg_checksum(bytes + wrx::kTypeOffset,
                       static_cast<int32_t>(wrx::kHeadSize - wrx::kTypeOffset + payload));
  int32_t written = 0;
  return usb_send_data(bytes, static_cast<int32_t>(wrx::kHeadSize + payload + wrx::kChecksumSize),
                       &written);
}

// Reads until a packet was completed, and one that is no late response to something else. 0 or -1.
int32_t await_response(uint8_t cmd_code, const RECV_DATA_STRUCT& plan) {
  for (uint16_t attempt = 0; attempt < plan.cycle_times; ++attempt) {
    fp_resp_init(cmd_code);
    if (fp_read_and_parse_prot(plan.recv_len) == 0 && index_table != IndexTable::declined) return 0;
    wrx::pause_ms(plan.cycle_ms);
  }
  return -1;
}

}  // namespace

uint16_t get_check_sum(const uint8_t* buf, uint16_t len) {
  if (buf == nullptr) {
    WRX_LOG(here(), "the point buf is null, error!!!\r\n");
    return 0;
  }
  uint16_t sum = 0;
  const uint8_t* const end = buf + len;
  for (; end - buf >= kSumBlock; buf += kSumBlock) {
    for (std::ptrdiff_t i = 0; i < kSumBlock; ++i)
      sum = static_cast<uint16_t>(sum + buf[i]);
  }
  for (; buf != end; ++buf)
    sum = static_cast<uint16_t>(sum + *buf);
  return sum;
}

int32_t fp_fill_msg_head(MSG_HEAD_STRUCT* head, uint8_t pkg_flag, uint16_t cmd_len) {
  if (head == nullptr) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  auto* bytes = reinterpret_cast<uint8_t*>(head);
  store_big_endian(bytes, kPacketHead, 2);
  store_big_endian(bytes + offsetof(MSG_HEAD_STRUCT, chip_addr), kEveryModule, 4);
  head->pkg_flag = pkg_flag;
  store_big_endian(bytes + offsetof(MSG_HEAD_STRUCT, pkg_len), cmd_len, 2);
  return 0;
}

int32_t fp_fill_msg_checksum(uint8_t* buf, int32_t len) {
  if (buf == nullptr || len <= 0) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  store_big_endian(buf + len, get_check_sum(buf, static_cast<uint16_t>(len)), 2);
  return 0;
}

int32_t fp_resp_init(uint8_t cmd_code) {
  prot_packet_usb.current_cmd_code = cmd_code;
  prot_packet_usb.current_resp_cmd = 0;
  prot_packet_usb.current_resp_type = wrx::kNoAnswer;
  index_table = IndexTable::none;
  return 0;
}

uint8_t fp_resp_type_get(void) {
  return prot_packet_usb.current_resp_type;
}

int32_t fp_send_cmd(uint8_t cmd_code, const uint8_t* buf, int32_t len,
                    RECV_DATA_STRUCT recv_param) {
  if (buf != nullptr && len >= static_cast<int32_t>(wrx::kMaxPayload)) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  if (send_packet(cmd_code, buf, len) != 0) {
    WRX_LOG(here(), "usb_send_data failed!!!\r\n");
    return -1;
  }
  wrx::pause_ms(recv_param.wait_ms);
  if (await_response(cmd_code, recv_param) != 0) return -1;
  const PROT_PACKET& packet = prot_packet_usb;
  if (packet.current_resp_cmd != packet.current_cmd_code) {
    WRX_LOG(here(), "current_cmd_code = 0x%02x, current_resp_cmd = 0x%02x, ERROR!!!\r\n",
            packet.current_cmd_code, packet.current_resp_cmd);
    return -1;
  }
  return 0;
}
