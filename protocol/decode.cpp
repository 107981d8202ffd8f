// SPDX-License-Identifier: LGPL-2.1-or-later
// Response decoding: from payloads to the module's state record.
#include <algorithm>
#include <cstring>

#include "base/log.h"
#include "base/units.h"
#include "protocol/command_set.h"
#include "protocol/decoders.h"
#include "protocol/engine.h"
#include "protocol/packet.h"
#include "records/fp_device_param.h"

using wrx::CallSite;
using wrx::print_line;
using wrx::protocol::Command;
using wrx::protocol::here;
using wrx::protocol::Payload;

namespace {

constexpr wrx::DumpStyle kIndexDump = {false, false, false, "\n"};
constexpr wrx::DumpStyle kImageDump = {false, true, false, "\n"};
constexpr wrx::DumpStyle kFlashPageDump = {true, true, false, "\r\n"};
constexpr std::size_t kImageDumped = 64;
// Length fields of the two serial-number packets: code, serial number, checksum.
constexpr uint16_t kShortSerialPacket = 19;
constexpr uint16_t kLongSerialPacket = 35;

void file_flash_info_page(const uint8_t* data, std::size_t size, CallSite site) {
  FP_DEVICE_PARAM_STRUCT& state = fp_device_param;
  if (size != sizeof state.flash_info_page) {
    WRX_LOG(site, "len = %d, error!!!\r\n", static_cast<int>(size));
  }
  WRX_LOG(site, "acquire flash_info_page data:\r\n");
  wrx::dump(data, size, kFlashPageDump);
  if (size <= sizeof state.flash_info_page) std::memcpy(state.flash_info_page, data, size);
}

void file_image(const uint8_t* data, std::size_t size, CallSite site) {
  FP_DEVICE_PARAM_STRUCT& state = fp_device_param;
  if (size != sizeof state.img_data) {
    WRX_LOG(site, "len = %d, error!!!\r\n", static_cast<int>(size));
  }
  print_line(site, "acquire image data:\r\n");
  wrx::dump(data, std::min(size, kImageDumped), kImageDump);
  std::memcpy(state.img_data, data, std::min(size, sizeof state.img_data));
}

}  // namespace

namespace wrx::protocol {

IndexTable index_table = IndexTable::none;

void decode_system_parameters(const Payload& payload, CallSite site) {
  FP_SYS_PARAM_STRUCT& sys = fp_device_param.sys_param;
  payload.store(1, sys.sensor_type);
  payload.store(3, sys.fp_database_size);
  payload.store(5, sys.security_level);
  payload.store(7, sys.device_addr);
  print_line(site,
             "sensor_type = 0x%04x, fp_database_size = 0x%04x, security_level = 0x%04x, "
             "device_addr = 0x%08x.\r\n",
             sys.sensor_type, sys.fp_database_size, sys.security_level, sys.device_addr);
}

void decode_valid_count(const Payload& payload, CallSite) {
  if (payload.confirm() == PROT_RESP_OK) payload.store(1, fp_device_param.valid_template_num);
}

void decode_index_table(const Payload& payload, CallSite site) {
  const uint8_t page = fp_device_param.index_table_page;
  if (page >= kIndexPages) return;
  if (!payload.has(1, kIndexPageSize)) {
    WRX_LOG(site, "index table of %d bytes is too short, dropped.\r\n",
            static_cast<int>(payload.size()));
    // A late answer to something else is no page, least of all one that is free throughout.
    if (payload.confirm() != PROT_RESP_OK || index_table == IndexTable::filed) return;
    index_table = IndexTable::declined;
    prot_packet_usb.current_resp_type = kNoAnswer;
    return;
  }
  index_table = IndexTable::filed;
  std::memcpy(fp_device_param.index_table_info[page], payload.at(1), kIndexPageSize);
  dump(payload.at(1), kIndexPageSize, kIndexDump);
}

void decode_serial_number(const Payload& payload, CallSite) {
  std::size_t length = 0;
  if (prot_packet_usb.prot_size == kShortSerialPacket) length = 16;
  if (prot_packet_usb.prot_size == kLongSerialPacket) length = 32;
  if (length == 0 || !payload.has(1, length)) {
    prot_packet_usb.current_resp_type = kNoAnswer;
    return;
  }
  fp_device_param.chip_serial_num_len = static_cast<uint8_t>(length);
  std::memcpy(fp_device_param.chip_serial_num, payload.at(1), length);
}

void decode_handshake(const Payload&, CallSite) {
  fp_device_param.handshake_state = 1;
}

void decode_capture_start(const Payload& payload, CallSite site) {
  WRX_PRINT(site, payload.confirm() == PROT_RESP_OK ? "start capture.\r" : "capture failed!!!\r");
}

}  // namespace wrx::protocol

int32_t fp_parse_prot_response(const uint8_t* buf, int32_t len) {
  if (buf == nullptr || len < 1) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  PROT_PACKET& p = prot_packet_usb;
  const Payload payload(buf, static_cast<std::size_t>(len));
  p.current_resp_type = payload.confirm();
  const uint8_t code = p.current_cmd_code;
  const Command* row = wrx::protocol::find_command(code);
  if (row == nullptr) {
    if (wrx::protocol::known_only(code)) return 0;
    WRX_LOG(here(), "not find the current_cmd_code 0x%02x, error!!!\r\n", code);
    return -1;
  }
  wrx::protocol::say(row->received, here());
  if (row->verdict != nullptr) fp_device_param.*row->verdict = payload.confirm();
  if (row->decode != nullptr) row->decode(payload, here());
  if (row->accepted) p.current_resp_cmd = code;
  return 0;
}

int32_t fp_parse_prot_data_end(const uint8_t* buf, int32_t len) {
  if (buf == nullptr || len <= 0) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  const auto size = static_cast<std::size_t>(len);
  switch (prot_packet_usb.current_cmd_code) {
    case PROT_CMD_READINFOPAGE:
      file_flash_info_page(buf, size, here());
      return 0;
    case PORT_CMD_ACQUIRE_IMAGEDATA:
      file_image(buf, size, here());
      return 0;
    default:
      WRX_LOG(here(), "not find the current_cmd_code 0x%02x, error!!!\r\n",
              prot_packet_usb.current_cmd_code);
      return -1;
  }
}
