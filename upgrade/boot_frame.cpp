// SPDX-License-Identifier: LGPL-2.1-or-later
// The bootloader's frames: check byte and response parser.
#include <limits>

#include "base/log.h"
#include "base/units.h"
#include "upgrade/bootloader.h"

using namespace wrx::upgrade;

namespace {

// Every byte of a frame is counted, those beyond the array too, so that a frame too long to be
// checked is known at its end.
void keep(uint8_t byte) {
  uint16_t& count = upgrade_param.usb_recv_cnt;
  if (count < kMaxFrame) upgrade_param.usb_recv_data[count] = byte;
  if (count < std::numeric_limits<uint16_t>::max()) ++count;
}

void store_data(UP_PROT_PACKET& p, uint8_t byte) {
  if (p.prot_data_cnt < kMaxFrame) p.prot_data[p.prot_data_cnt] = byte;
  ++p.prot_data_cnt;
  if (p.prot_data_cnt >= p.prot_size) p.prot_state = kWaitCheck;
}

bool frame_is_good(const UP_PROT_PACKET& p) {
  const uint16_t count = upgrade_param.usb_recv_cnt;
  return p.prot_end == kFrameEnd && count <= kMaxFrame &&
         Check_BCC(upgrade_param.usb_recv_data, count) == 0;
}

// Ends a frame. True when it is good.
bool end_frame(UP_PROT_PACKET& p, wrx::CallSite site) {
  if (frame_is_good(p)) {
    p.prot_respond = 0;
    upgrade_param.usb_recv_cnt = 0;
    p.prot_state = kComplete;
    return true;
  }
  WRX_LOG(site, "Recv data from device error!!!\n");
  p.prot_state = kBroken;
  return false;
}

// One step of the parser. True for the byte that completes a good frame.
bool parse_byte(UP_PROT_PACKET& p, uint8_t byte, wrx::CallSite site) {
  switch (p.prot_state) {
    case kWaitHead:
      if (byte != kFrameStart) return false;
      p.prot_head = byte;
      upgrade_param.usb_recv_cnt = 0;
      p.prot_state = kWaitType;
      break;
    case kWaitType:
      p.prot_type = byte;
      p.prot_state = kWaitLengthLow;
      break;
    case kWaitLengthLow:
      p.prot_size = byte;
      p.prot_state = kWaitLengthHigh;
      break;
    case kWaitLengthHigh:
      p.prot_size = static_cast<uint16_t>(p.prot_size | byte << 8);
      p.prot_data_cnt = 0;
      p.prot_state = p.prot_size != 0 ? kWaitData : kWaitCheck;
      break;
    case kWaitData:
      store_data(p, byte);
      break;
    case kWaitCheck:
      p.prot_bcc = byte;
      p.prot_state = kWaitEnd;
      break;
    case kWaitEnd:
      p.prot_end = byte;
      keep(byte);
      return end_frame(p, site);
    default:
      return false;
  }
  keep(byte);
  return false;
}

}  // namespace

uint8_t Check_BCC(const uint8_t* data, int32_t len) {
  if (data == nullptr || len <= 0) {
    WRX_LOG(here(), "the param is error!!!\n");
    return 0xFF;
  }
  uint8_t check = 0;
  for (int32_t i = 0; i < len; ++i)
    check ^= data[i];
  return check;
}

int32_t parseProtocal(const uint8_t* data, int32_t len) {
  for (int32_t i = 0; data != nullptr && i < len; ++i) {
    if (parse_byte(upgrade_param.prot_packet_usb, data[i], here())) return 0;
  }
  return -1;
}
