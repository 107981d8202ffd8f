// SPDX-License-Identifier: LGPL-2.1-or-later
// The bootloader's commands: a row each, one engine.
#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <span>

#include "base/log.h"
#include "base/units.h"
#include "upgrade/bootloader.h"

using namespace wrx::upgrade;

namespace {

constexpr std::size_t kRequestSize = 500;
constexpr int32_t kPaddedWrite = 250;  // what the bootloader takes in one piece
constexpr int32_t kResponseSize = 64;
constexpr int32_t kReadFlashOverhead = 10;

enum class Success : uint8_t { statusFrame, frameOfItsType, anyFrame };

struct BootCommand {
  uint8_t code;
  bool padded;     ///< zeros follow the frame up to 250 bytes in the same write
  bool saysCount;  ///< says how many bytes were answered
  Success success;
};

constexpr BootCommand kReadSerial = {0xA0, true, true, Success::anyFrame};
constexpr BootCommand kReadCrc = {0xA6, true, true, Success::frameOfItsType};
constexpr BootCommand kSecurityCode = {0xCC, false, false, Success::statusFrame};
constexpr uint8_t kReadFlash = 0xD0;  // the one command whose answer is not parsed
constexpr BootCommand kErase = {0xD3, false, false, Success::statusFrame};
constexpr BootCommand kDownload = {0xD7, true, false, Success::statusFrame};
constexpr BootCommand kStoreCrc = {0xD9, true, true, Success::statusFrame};
constexpr BootCommand kRunApplication = {0xE3, false, false, Success::statusFrame};

/// A request frame in a zeroed buffer.
class Request {
 public:
  explicit Request(uint8_t code) {
    bytes_[0] = kFrameStart;
    bytes_[1] = code;
  }

  /// Appends `count` bytes of a value, least significant first.
  Request& number(uint32_t value, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
      bytes_[size_++] = static_cast<uint8_t>(value >> 8 * i);
    return *this;
  }
  Request& data(const char* data, std::size_t count) {
    std::memcpy(bytes_.data() + size_, data, count);
    size_ += count;
    return *this;
  }

  /// Completes the frame; returns its size.
  int32_t seal() {
    const std::size_t count = size_ - kFrameHead;
    bytes_[2] = static_cast<uint8_t>(count);
    bytes_[3] = static_cast<uint8_t>(count >> 8);
    bytes_[size_ + 1] = kFrameEnd;
    const auto frame = static_cast<int32_t>(count + kFrameOverhead);
    bytes_[size_] = Check_BCC(bytes_.data(), frame);
    return frame;
  }
  uint8_t* bytes() { return bytes_.data(); }

 private:
  std::array<uint8_t, kRequestSize> bytes_{};
  std::size_t size_ = kFrameHead;
};

bool succeeded(const BootCommand& row) {
  const UP_PROT_PACKET& p = upgrade_param.prot_packet_usb;
  if (row.success == Success::anyFrame) return true;
  if (p.prot_type != row.code) return false;
  return row.success == Success::frameOfItsType || (p.prot_data_cnt == 1 && p.prot_data[0] == 0);
}

// Sends a request and judges the answer, whose data is left in the parser's record. A write that
// failed shows up as an answer that does not come.
int32_t run(const BootCommand& row, Request request, wrx::CallSite site) {
  UP_PROT_PACKET& p = upgrade_param.prot_packet_usb;
  p.prot_state = kWaitHead;
  const int32_t frame = request.seal();
  boot_write_usb(request.bytes(), row.padded ? kPaddedWrite : frame);
  std::array<uint8_t, kResponseSize> answer{};
  const int32_t received = boot_read_usb(answer.data(), kResponseSize);
  if (received < 1) {
    WRX_LOG(site, "read response failed!!!\n");
    return -1;
  }
  if (row.saysCount) wrx::print_text(site, "read %d byte.\n", received);
  const bool good = parseProtocal(answer.data(), received) == 0 && p.prot_state == kComplete;
  p.prot_state = kWaitHead;
  return good && succeeded(row) ? 0 : -1;
}

}  // namespace

int32_t readEFlash(uint32_t addr, uint8_t len) {
  Request request(kReadFlash);
  request.number(addr, 4).number(len, 1);
  const int32_t frame = request.seal();
  boot_write_usb(request.bytes(), frame);
  std::array<uint8_t, 0xFF + kReadFlashOverhead> answer{};
  if (boot_read_usb(answer.data(), len + kReadFlashOverhead) > 0) {
    WRX_PRINT(here(), "read eflash data.");
  }
  return 0;
}

int32_t eraseEFlash(void) {
  return run(kErase, Request(kErase.code), here());
}

int32_t downloadCodeToEFlash(uint32_t addr, const char* data, int32_t len) {
  if (data == nullptr || len < 0 || len > kBlockSize) {
    WRX_LOG(here(), "the param is error!!!\n");
    return -1;
  }
  return run(kDownload,
             Request(kDownload.code).number(addr, 4).data(data, static_cast<std::size_t>(len)),
             here());
}

int32_t readCRC(uint32_t addr, int32_t len) {
  upgrade_param.crc_value_dev = 0;
  const auto request = Request(kReadCrc.code).number(addr, 4).number(static_cast<uint32_t>(len), 4);
  if (run(kReadCrc, request, here()) != 0) return -1;
  const uint8_t* data = upgrade_param.prot_packet_usb.prot_data;
  upgrade_param.crc_value_dev = static_cast<uint16_t>(data[0] | data[1] << 8);
  return 0;
}

int32_t downloadCRCValue(uint32_t len, uint16_t crc, uint32_t addr) {
  return run(kStoreCrc, Request(kStoreCrc.code).number(len, 4).number(crc, 2).number(addr, 4),
             here());
}

int32_t securityCode(void) {
  if (run(kSecurityCode, Request(kSecurityCode.code), here()) != 0) return -1;
  WRX_LOG(here(), "securityCode SUCCESS\n");
  return 0;
}

int32_t runAPP(void) {
  return run(kRunApplication, Request(kRunApplication.code), here());
}

int32_t readSN(void) {
  std::memset(upgrade_param.dev_sn, 0, sizeof upgrade_param.dev_sn);
  if (run(kReadSerial, Request(kReadSerial.code), here()) != 0) return -1;
  const UP_PROT_PACKET& p = upgrade_param.prot_packet_usb;
  std::memcpy(upgrade_param.dev_sn, p.prot_data,
              std::min<std::size_t>(p.prot_data_cnt, sizeof upgrade_param.dev_sn));
  return 0;
}

int32_t checkCRC(void) {
  return 0;
}

int32_t selfTest(void) {
  return 0;
}
