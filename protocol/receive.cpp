// SPDX-License-Identifier: LGPL-2.1-or-later
// The receive path: read, find and check packets in the byte stream, dispatch them.
#include <algorithm>
#include <cstring>

#include "base/log.h"
#include "base/stop_flags.h"
#include "base/units.h"
#include "protocol/packet.h"
#include "records/fp_device_param.h"
#include "transport/usb_device.h"

using wrx::protocol::here;

PROT_PACKET prot_packet_usb;
uint8_t usb_recv_data[wrx::kMaxPayload];
uint16_t usb_recv_cnt;
FP_DEVICE_PARAM_STRUCT fp_device_param;

namespace {

constexpr uint8_t kHeadFirst = 0xEF;
constexpr uint8_t kHeadSecond = 0x01;
constexpr uint16_t kImageLength = 0xFFFF;     // length field of an image's end packet
constexpr uint16_t kUncheckedImage = 0x55AA;  // checksum of an image that has none
constexpr std::size_t kKept = 0x10000;        // bytes of a packet after which its copy starts over
constexpr std::size_t kDumped = 64;           // bytes of a packet that are dumped
constexpr int32_t kDrainLength = 64;
constexpr wrx::DumpStyle kPacketDump = {true, true, true, "\n"};

enum State : uint8_t {
  kIdle = 0,     // before a packet; every byte but 0xEF is skipped
  kHead = 1,     // 0xEF was seen
  kAddress = 2,  // 2 to 5: the four address bytes
  kType = 6,     // packet type
  kLengthHigh = 7,
  kLengthLow = 8,
  kPayload = 9,  // until the length is reached
  kChecksumHigh = 10,
  kChecksumLow = 11,
};

void keep(uint8_t value) {
  usb_recv_data[usb_recv_cnt++] = value;
}

bool receiving_image(const PROT_PACKET& p) {
  return p.current_cmd_code == PORT_CMD_ACQUIRE_IMAGEDATA && p.prot_size == kImageLength;
}

// Payload bytes after which the packet's checksum follows.
uint32_t payload_size(const PROT_PACKET& p) {
  return receiving_image(p) ? static_cast<uint32_t>(wrx::kImageSize)
                            : static_cast<uint32_t>(p.prot_size) - 2U;
}

void begin_payload(PROT_PACKET& p) {
  p.prot_data_cnt = 0;
  if (p.prot_size > 2) {
    p.prot_state = kPayload;
  } else {
    p.prot_state = p.prot_size == 2 ? kChecksumHigh : kIdle;
  }
}

void store_payload(PROT_PACKET& p, uint8_t value) {
  if (p.prot_data_cnt < sizeof p.prot_data) p.prot_data[p.prot_data_cnt++] = value;
  keep(value);
  if (p.prot_data_cnt >= payload_size(p)) p.prot_state = kChecksumHigh;
}

// The count enters the sum as 16 bits: of an image only the first 26624 bytes are summed.
bool checksum_is_good(const PROT_PACKET& p, wrx::CallSite site) {
  const auto computed =
      static_cast<uint16_t>(p.prot_type + (p.prot_size >> 8) + (p.prot_size & 0xFF) +
                            get_check_sum(p.prot_data, static_cast<uint16_t>(p.prot_data_cnt)));
  if (computed == p.prot_checksum) return true;
  if (p.current_cmd_code == PORT_CMD_ACQUIRE_IMAGEDATA && p.prot_checksum == kUncheckedImage) {
    return true;
  }
  WRX_LOG(site, "p->prot_checksum = 0x%04x, checksum = 0x%04x, not equal!!!\r\n", p.prot_checksum,
          computed);
  return false;
}

int32_t complete_packet(PROT_PACKET& p, wrx::CallSite site) {
  p.prot_state = kIdle;
  if (!checksum_is_good(p, site)) return -1;
  p.prot_respond = 0;
  if (usb_recv_cnt != 0) {
    WRX_LOG(site, "Recv data from device: %d\n", usb_recv_cnt);
    wrx::dump(usb_recv_data, std::min<std::size_t>(usb_recv_cnt, kDumped), kPacketDump);
    fp_parse_prot_head(reinterpret_cast<const uint8_t*>(&p), sizeof p);
    usb_recv_cnt = 0;
  }
  return 0;
}

// Has the effect of keep() for each byte of a run. Of a run longer than the count's range only the
// end is copied: it lies over all that went before.
void keep_run(const uint8_t* bytes, std::size_t size) {
  const std::size_t overwritten = size - std::min(size, kKept);
  usb_recv_cnt = static_cast<uint16_t>(usb_recv_cnt + overwritten);
  for (std::size_t done = overwritten; done < size;) {
    const std::size_t piece = std::min(size - done, kKept - usb_recv_cnt);
    std::memcpy(usb_recv_data + usb_recv_cnt, bytes + done, piece);
    usb_recv_cnt = static_cast<uint16_t>(usb_recv_cnt + piece);
    done += piece;
  }
}

// Takes a whole run of payload bytes at once, up to the byte before the one that ends the payload,
// with the same effect as one step each. Returns how many were taken.
std::size_t take_payload_run(PROT_PACKET& p, const uint8_t* bytes, std::size_t available) {
  const uint32_t whole = payload_size(p);
  if (p.prot_state != kPayload || p.prot_data_cnt + 1 >= whole) return 0;
  const std::size_t run = std::min<std::size_t>(available, whole - p.prot_data_cnt - 1);
  std::memcpy(p.prot_data + p.prot_data_cnt, bytes, run);
  p.prot_data_cnt += static_cast<uint32_t>(run);
  keep_run(bytes, run);
  return run;
}

// Skips what an idle parser ignores. Returns how many bytes.
std::size_t skip_to_head(const PROT_PACKET& p, const uint8_t* bytes, std::size_t available) {
  if (p.prot_state != kIdle) return 0;
  const void* head = std::memchr(bytes, kHeadFirst, available);
  if (head == nullptr) return available;
  return static_cast<std::size_t>(static_cast<const uint8_t*>(head) - bytes);
}

}  // namespace

int32_t fp_module_init(void) {
  std::memset(&prot_packet_usb, 0, sizeof prot_packet_usb);
  std::memset(&fp_device_param, 0, sizeof fp_device_param);
  WRX_LOG(here(), "success.\r\n");
  return 0;
}

int32_t fp_recv_param_init(RECV_DATA_STRUCT* recv_param, int32_t recv_len, uint16_t wait_ms,
                           uint16_t cycle_times, uint16_t cycle_ms) {
  if (recv_param == nullptr) {
    WRX_LOG(here(), "the point recv_param is null, error!!!\r\n");
    return -1;
  }
  *recv_param = {recv_len, wait_ms, cycle_times, cycle_ms};
  return 0;
}

int32_t fp_read_and_parse_prot(int32_t len) {
  uint8_t buffer[wrx::kMaxPacket];
  if (len <= 0 || len > static_cast<int32_t>(sizeof buffer)) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  // What a short read leaves out is parsed as zeros, which an idle parser skips.
  std::memset(buffer, 0, static_cast<std::size_t>(len));
  int32_t received = 0;
  if (usb_read_data(buffer, len, &received) != 0) {
    WRX_LOG(here(), "usb_read_data failed!!!\r\n");
    return -1;
  }
  return fp_parse_prot(buffer, len);
}

int32_t fp_parse_prot(const uint8_t* buf, int32_t len) {
  if (buf == nullptr || len <= 0) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  PROT_PACKET& p = prot_packet_usb;
  const auto size = static_cast<std::size_t>(len);
  int32_t result = -1;
  for (std::size_t i = 0; i < size;) {
    std::size_t taken = skip_to_head(p, buf + i, size - i);
    if (taken == 0) taken = take_payload_run(p, buf + i, size - i);
    if (taken == 0) {
      taken = 1;
      if (fp_deal_usb_data(buf[i]) == 0) result = 0;
    }
    i += taken;
  }
  return result;
}

int32_t fp_deal_usb_data(uint8_t value) {
  PROT_PACKET& p = prot_packet_usb;
  switch (p.prot_state) {
    case kIdle:
      if (value != kHeadFirst) return -1;
      usb_recv_cnt = 0;
      break;
    case kHead:
      // The byte is dropped even if it is another 0xEF.
      if (value != kHeadSecond) {
        p.prot_state = kIdle;
        return -1;
      }
      p.prot_head = static_cast<uint16_t>(kHeadFirst << 8 | kHeadSecond);
      break;
    case kAddress:
      p.prot_addr = static_cast<uint32_t>(value) << 8;
      break;
    case kAddress + 1:
    case kAddress + 2:
      p.prot_addr = (p.prot_addr | value) << 8;
      break;
    case kAddress + 3:
      p.prot_addr |= value;
      break;
    case kType:
      p.prot_type = value;
      break;
    case kLengthHigh:
      p.prot_size = static_cast<uint16_t>(value << 8);
      break;
    case kLengthLow:
      p.prot_size = static_cast<uint16_t>(p.prot_size | value);
      keep(value);
      begin_payload(p);
      return -1;
    case kPayload:
      store_payload(p, value);
      return -1;
    case kChecksumHigh:
      p.prot_checksum = static_cast<uint16_t>(value << 8);
      break;
    case kChecksumLow:
      p.prot_checksum = static_cast<uint16_t>(p.prot_checksum | value);
      keep(value);
      return complete_packet(p, here());
    default:
      return -1;
  }
  keep(value);
  ++p.prot_state;
  return -1;
}

int32_t fp_parse_prot_head(const uint8_t* buf, int32_t len) {
  const PROT_PACKET& p = prot_packet_usb;
  if (buf != reinterpret_cast<const uint8_t*>(&p) || len != static_cast<int32_t>(sizeof p)) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  const auto count = static_cast<int32_t>(p.prot_data_cnt);
  switch (p.prot_type) {
    case PROT_TYPE_CMD:
    case PROT_TYPE_DATA:
      return 0;
    case PROT_TYPE_RESPOND:
      fp_parse_prot_response(p.prot_data, count);
      return 0;
    case PROT_TYPE_END:
      fp_parse_prot_data_end(p.prot_data, count);
      return 0;
    default:
      WRX_LOG(here(), "p->prot_type = 0x%02x is error!!!\r\n", p.prot_type);
      return -1;
  }
}

int32_t fp_read_invalid_pkg(int32_t count) {
  WRX_LOG(here(), "start.\n");
  uint8_t buffer[kDrainLength];
  for (int32_t i = 0; i < count; ++i) {
    int32_t received = 0;
    if (usb_read_data(buffer, kDrainLength, &received) != 0) return -1;
  }
  return 0;
}

int32_t fp_set_ctrlFlag(int32_t ctrlFlag) {
  wrx::store_flag(fp_device_param.ctrlFlag, ctrlFlag);
  return 0;
}

int32_t fp_get_ctrlFlag(void) {
  return wrx::load_flag(fp_device_param.ctrlFlag);
}
