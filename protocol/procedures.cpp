// SPDX-License-Identifier: LGPL-2.1-or-later
// Skins of the command procedures over the engine, with what a few do besides.
#include "protocol/procedures.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "base/pause.h"
#include "base/units.h"
#include "protocol/engine.h"

using wrx::CallSite;
using wrx::protocol::Command;
using wrx::protocol::command;
using wrx::protocol::exchange;
using wrx::protocol::here;
using wrx::protocol::judge;
using wrx::protocol::Outcome;
using wrx::protocol::Parameters;
using wrx::protocol::result_of;
using wrx::protocol::run;

namespace {

constexpr int32_t kImageRead = 92180;
constexpr int32_t kFlashInfoPageRead = 148;
constexpr int32_t kVersionRead = 64;
constexpr int kVersionReads = 5;
constexpr uint32_t kVersionPauseMs = 20;
constexpr int32_t kCancelDrain = 3;
constexpr std::size_t kModeSize = 64;  // longest mode word that is sent
// Must accompany the reboot command.
constexpr std::array<uint8_t, 8> kRebootKey = {0xC3, 0x3C, 0x96, 0x69, 0x4B, 0x52, 0x54, 0x4D};

int32_t simple(const Command& row, Parameters parameters, CallSite site) {
  return result_of(row, run(row, parameters, site));
}

// Runs a command behind whose response a data packet of `length` bytes follows.
int32_t with_data(const Command& row, uint8_t expected, int32_t length, CallSite site) {
  const Outcome outcome = run(row, {}, site);
  if (outcome != Outcome::done) return result_of(row, outcome);
  prot_packet_usb.current_cmd_code = expected;
  if (fp_read_and_parse_prot(length) == 0) return 0;
  WRX_LOG(site, "fp_read_and_parse_prot failed!!!\r\n");
  return -1;
}

// Reads on while what arrived was not the version.
void read_until_version() {
  uint8_t& goOn = fp_device_param.onekey_powerup.continue_read_fw_version_flag;
  for (int i = 0; i < kVersionReads; ++i) {
    wrx::pause_ms(kVersionPauseMs);
    if (goOn != 1) break;
    if (fp_read_and_parse_prot(kVersionRead) != 0) break;
  }
  goOn = 0;
}

}  // namespace

int32_t fp_get_firmware_version(void) {
  static constexpr const Command& row = command(PROT_CMD_TEST_TYPE, PROT_SUBCMD_READ_FW);
  const uint8_t sub = PROT_SUBCMD_READ_FW;
  prot_packet_usb.current_sub_cmd_code = sub;
  const bool answered = exchange(row, {&sub, 1}, here());
  read_until_version();
  return answered ? result_of(row, judge(row, here())) : -1;
}

char* fp_return_firmware_version(void) {
  return fp_device_param.firmware_version;
}

uint32_t fp_return_firmware_version_num(void) {
  return fp_device_param.firmware_version_num;
}

int32_t fp_get_fprint_img(void) {
  static constexpr const Command& row = command(PROT_CMD_GETIMAGE);
  const Outcome outcome = run(row, {}, here());
  if (outcome == Outcome::done) fp_upload_fprint_img();
  return result_of(row, outcome);
}

int32_t fp_upload_fprint_img(void) {
  return with_data(command(PROT_CMD_UPIMAGE), PORT_CMD_ACQUIRE_IMAGEDATA, kImageRead, here());
}

int32_t fp_force_get_fprint_img(void) {
  return with_data(command(PORT_CMD_STARTCAPIMAGE), PORT_CMD_ACQUIRE_IMAGEDATA, kImageRead, here());
}

int32_t fp_read_sys_param(void) {
  return simple(command(PROT_CMD_READSYSPARA), {}, here());
}

int32_t fp_set_chip_addr(uint32_t chip_addr) {
  const std::array<uint8_t, 4> address = {
      static_cast<uint8_t>(chip_addr >> 24), static_cast<uint8_t>(chip_addr >> 16),
      static_cast<uint8_t>(chip_addr >> 8), static_cast<uint8_t>(chip_addr)};
  return simple(command(PROT_CMD_SETCHIPADDR), address, here());
}

int32_t fp_read_flash_info_page(void) {
  return with_data(command(PROT_CMD_READINFOPAGE), PROT_CMD_READINFOPAGE, kFlashInfoPageRead,
                   here());
}

int32_t fp_read_index_table(uint8_t index_page) {
  return simple(command(PROT_CMD_READINDEXTABLE), {&index_page, 1}, here());
}

int32_t fp_get_chip_serial_num(void) {
  static constexpr const Command& row = command(PROT_CMD_GETCHIPSN);
  const Outcome outcome = run(row, {}, here());
  if (outcome == Outcome::done) {
    WRX_LOG(here(), "chip_serial_num: ");
    const std::size_t length = std::min<std::size_t>(fp_device_param.chip_serial_num_len,
                                                     sizeof fp_device_param.chip_serial_num);
    wrx::dump(fp_device_param.chip_serial_num, length, {true, false, false, "\n"});
  }
  return result_of(row, outcome);
}

int32_t fp_handshake(void) {
  static constexpr const Command& row = command(PROT_CMD_HANDSHAKE);
  fp_device_param.handshake_state = 0;
  const Outcome outcome = run(row, {}, here());
  if (outcome == Outcome::done) {
    wrx::print_text(here(), "handshake_state = %d.\n", fp_device_param.handshake_state);
  }
  return result_of(row, outcome);
}

int32_t fp_cancel(void) {
  const int32_t result = simple(command(PROT_CMD_CANCEL), {}, here());
  fp_read_invalid_pkg(kCancelDrain);
  return result;
}

int32_t fp_sleep(void) {
  return simple(command(PROT_CMD_SLEEP), {}, here());
}

int32_t fp_get_valid_template_num(void) {
  static constexpr const Command& row = command(PROT_CMD_VALIDTEMPLATENUM);
  fp_device_param.valid_template_num = 0xFFFF;
  const Outcome outcome = run(row, {}, here());
  if (outcome == Outcome::done) {
    wrx::print_line(here(), "valid_template_num = %d.\r\n", fp_device_param.valid_template_num);
  }
  return result_of(row, outcome);
}

int32_t fp_get_bright(void) {
  return simple(command(PORT_CMD_GET_BRIGHTNESS), {}, here());
}

int32_t fp_set_mode(const char* mode, int32_t len) {
  if (mode == nullptr || len < 0 || len > static_cast<int32_t>(kModeSize)) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  std::array<uint8_t, 1 + kModeSize> parameters = {PROT_SUBCMD_SET_MODE};
  std::memcpy(parameters.data() + 1, mode, static_cast<std::size_t>(len));
  return simple(command(PROT_CMD_TEST_TYPE, PROT_SUBCMD_SET_MODE),
                {parameters.data(), 1 + static_cast<std::size_t>(len)}, here());
}

int32_t fp_reboot(void) {
  return simple(command(PROT_CMD_RTBOOT), kRebootKey, here());
}

int32_t fp_set_pc_state(uint8_t pc_state) {
  return simple(command(PROT_CMD_PS_PC_STATE), {&pc_state, 1}, here());
}
