// SPDX-License-Identifier: LGPL-2.1-or-later
// The command procedures against the module: bytes out, waits, results and every line.
#include "protocol/procedures.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "base/log.h"
#include "operations/module_procedures.h"
#include "operations/operations.h"
#include "protocol/packet.h"
#include "records/fp_device_param.h"
#include "support/lower_rooms.h"
#include "transport/usb_device.h"
#include "upgrade/bootloader.h"
#include "upgrade/upgrade.h"

namespace wrx_test {
namespace {

struct Procedure {
  const char* name;
  int32_t (*call)();
  uint8_t code = 0;  ///< to have it refused
};
#define PROCEDURE(function, code) \
  { #function, function, code }
constexpr Procedure kProcedures[] = {
    PROCEDURE(fp_get_firmware_version, 175),
    PROCEDURE(fp_get_fprint_img, 1),
    PROCEDURE(fp_upload_fprint_img, 10),
    PROCEDURE(fp_force_get_fprint_img, 184),
    PROCEDURE(fp_read_sys_param, 15),
    {"fp_set_chip_addr", [] { return fp_set_chip_addr(0x01020304); }, 21},
    PROCEDURE(fp_read_flash_info_page, 22),
    {"fp_read_index_table", [] { return fp_read_index_table(3); }, 31},
    PROCEDURE(fp_get_chip_serial_num, 52),
    PROCEDURE(fp_handshake, 53),
    PROCEDURE(fp_cancel, 48),
    PROCEDURE(fp_sleep, 51),
    PROCEDURE(fp_get_valid_template_num, 29),
    PROCEDURE(fp_get_bright, 177),
    {"fp_set_mode", [] { return fp_set_mode("TEST", 4); }, 175},
    PROCEDURE(fp_reboot, 255),
    {"fp_set_pc_state", [] { return fp_set_pc_state(7); }, 80},
    {"fp_delete_template", [] { return fp_delete_template(255, 1); }, 12},
    PROCEDURE(fp_empty_template, 13),
};

struct Opened : Rig {
  explicit Opened(const wrx_module::Settings& settings) : Rig(settings) {
    configure();
    open();
    fp_device_param.index_table_page = 3;
    trace.clear();
  }
};

// What every exchange says besides, shown by the transport's own trace.
const std::vector<std::string> kTransport = {" 555342", "usb_prepare_send:", "usb_device:"};

// Each procedure answered well, with what the log file gets; then refused, not answered and without
// the module, of which only the exchange itself is left out.
TEST(Procedures, InEveryEndingAsATrace) {
  const std::vector<std::string> exchange = {"usb_", " usb-", " sleep ", "Recv data", "ef 01 ff"};
  std::vector<std::string> told;
  for (const Procedure& row : kProcedures) {
    const std::string name = row.name;
    wrx_module::Settings settings = Rig::instant();
    settings.reboot.leave_us = 10'000'000;
    Opened rig(settings);
    const auto tell = [&](const std::vector<std::string>& but_for) {
      const std::vector<std::string> lines = without(but_for, rig.trace.lines());
      told.insert(told.end(), lines.begin(), lines.end());
      rig.trace.clear();
    };
    fp_force_get_fprint_img();  // a picture to upload
    rig.play("press thumb good");
    enable_printf_log(1);
    rig.trace.clear();
    EXPECT_EQ(rig.step(name, row.call), 0);
    rig.show_file(kLogFile);
    tell(kTransport);
    enable_printf_log(0);
    rig.device.settings().refuse[row.code] = {0x13, 1};
    rig.step(name + ", refused", row.call);
    rig.device.settings().link.response_delay_us = 60'000'000;
    rig.step(name + ", not answered", row.call);
    fp_device_param.sys_param.sensor_type = 77;
    rig.device.unplug();
    rig.step(name + ", no module", row.call);
    EXPECT_EQ(fp_device_param.sys_param.sensor_type, 77);
    tell(exchange);
  }
  EXPECT_EQ(golden_difference("procedures", told), "");
}

using Calls = std::vector<std::pair<const char*, std::function<int()>>>;
#define CALL(...)                                               \
  {                                                             \
#__VA_ARGS__, [&] { return static_cast<int>(__VA_ARGS__); } \
  }

// Calls with every byte of their arguments in use, and calls that are refused or find no module.
TEST(Procedures, ArgumentsAndRefusalsAsATrace) {
  Opened rig(Rig::instant());
  const auto steps = [&](const Calls& calls) {
    for (const auto& [name, call] : calls)
      rig.step(name, call);
  };
  std::array<uint16_t, wrx::kMaxMatches> matches{};
  std::memset(&fp_device_param.auto_identify_param, 0x5A, sizeof(FP_AUTOIDENTIFY_PARAM_STRUCT));
  std::memset(&fp_device_param.auto_enroll_param, 0x5A, sizeof(FP_AUTOENROLL_PARAM_STRUCT));
  const std::string longest(64, '\0');
  uint8_t one_byte[] = {0xEF};
  int32_t moved = 0;
  steps({
      CALL(fp_auto_enroll_start(0x1234, 9, 0xABCD)),
      CALL(fp_auto_enroll(50)),
      CALL(fp_auto_identify(5, 0x1234, 0xABCD, nullptr, 50)),
      CALL(fp_delete_template(0x1234, 0x5678)),
      CALL(fp_get_empty_enroll_id()),
      CALL(fp_set_mode(longest.data(), 64)),
      CALL(fp_send_cmd(53, nullptr, 0, {64, 20, 3, 20})),
      CALL(fp_send_cmd(53, nullptr, 5, {64, 0, 0, 20})),  // read not once
      CALL(fp_read_invalid_pkg(1)),
      CALL(fp_set_mode("", 0)),
      CALL(usb_send_data(one_byte, 1, &moved)),
      CALL(fp_read_and_parse_prot(1)),
      CALL(fp_read_and_parse_prot(wrx::kMaxPacket)),
      CALL(read_fw_version()),  // no selection
      CALL(fp_set_chip_addr(0x01020304)),
      CALL(fp_read_sys_param()),
  });
  for (const uint8_t type : Bytes{1, 2, 7, 8, 9}) {
    prot_packet_usb.prot_type = type;
    auto* const record = reinterpret_cast<uint8_t*>(&prot_packet_usb);
    steps({CALL(fp_resp_init(PROT_CMD_READINFOPAGE)),
           CALL(fp_parse_prot_head(record, sizeof prot_packet_usb))});
  }
  // Data that does not come, of which one procedure says so and the other does not.
  rig.play("press thumb good; fault at 8 overflow; fault at 22 overflow");
  steps({CALL(fp_read_flash_info_page()), CALL(fp_get_fprint_img())});
  // A short read is parsed as if zeros followed, and the rest of the packet then is wrong.
  rig.device.say_raw({0xEF, 1, 255, 255, 255, 255, 7, 0, 13, 0, 0, 2});
  steps({CALL(fp_read_and_parse_prot(16)), CALL(fp_read_and_parse_prot(6))});
  // The version is waited for through five other answers.
  rig.device.settings().link.response_delay_us = 1000;
  for (int i = 0; i < 6; ++i)
    rig.device.say({{0, 9, 9}});
  steps({CALL(fp_get_firmware_version()), CALL(fp_read_invalid_pkg(1))});
  std::strcpy(new_firmware_version, "another");
  rig.info().config.upgrade_mode = DONT_UPGRADE;
  steps({CALL(fp_onekey_powerup_identify(3, 1, 2, matches.data(), 10)),
         CALL(wrx7700_check_firmware_version(&rig.dev))});  // not due
  usb_dev_open(&rig.dev);
  rig.play("refuse 50 27 x1");
  steps({CALL(fp_onekey_powerup_identify(3, 1, 2, matches.data(), 10)),
         CALL(wrx7700_ops_delete_invalid_feature(&rig.dev))});
  rig.lose_handle_at(9);
  steps({CALL(fp_onekey_powerup_identify(3, 1, 2, matches.data(), 0))});  // without a pause
  usb_dev_open(&rig.dev);
  rig.device.unplug();
  steps({CALL(fp_auto_enroll_start(0x1234, 9, 0xABCD)),
         CALL(fp_auto_identify(5, 0x1234, 0xABCD, nullptr, 50)),
         CALL(fp_onekey_powerup_identify(3, 1, 2, matches.data(), 10)),
         CALL(fp_read_invalid_pkg(3))});
  usb_dev_close();
  steps({CALL(wrx7700_onekey_powerup_identify(&rig.dev)),
         CALL(wrx7700_check_firmware_version(&rig.dev))});
  EXPECT_EQ(golden_difference("arguments", without(kTransport, rig.trace.lines())), "");
}

// What is said to arguments that make no sense, and returned; nothing goes over the wire.
TEST(Procedures, BadArgumentsAsATrace) {
  Opened rig(Rig::instant());
  uint8_t bytes[302] = {};
  std::fill_n(bytes, 300, uint8_t{0xFF});
  int32_t moved = 0;
  auto* const packet = reinterpret_cast<uint8_t*>(&prot_packet_usb);
  const auto* const text = reinterpret_cast<const char*>(bytes);
  const uint8_t displaced[] = {'S', 'U', 'S', 'B'}, third_of_four[] = {0, 0, 'B', 0};
  MSG_HEAD_STRUCT head;
  for (const auto& [name, call] : Calls{
           CALL(usb_send_data(nullptr, 5, &moved)),
           CALL(usb_send_data(bytes, 0, &moved)),
           CALL(usb_read_data(nullptr, 5, &moved)),
           CALL(usb_read_data(bytes, -1, &moved)),
           CALL(usb_prepare_send(0)),
           CALL(usb_prepare_read(-5)),
           CALL(usb_dev_ioctl(nullptr)),
           CALL(usb_check_bulk_io_ack(bytes, 3)),
           CALL(usb_check_bulk_io_ack(bytes, 5)),
           CALL(usb_check_bulk_io_ack(nullptr, 4)),
           CALL(usb_check_bulk_io_ack(displaced, 4)),
           CALL(usb_check_bulk_io_ack(third_of_four, 4)),  // is enough
           CALL(get_check_sum(nullptr, 3)),
           CALL(fp_fill_msg_head(nullptr, 1, 3)),
           CALL(fp_fill_msg_checksum(nullptr, 3)),
           CALL(fp_fill_msg_checksum(bytes, 0)),
           CALL(fp_recv_param_init(nullptr, 64, 20, 3, 20)),
           CALL(fp_send_cmd(53, packet, 93160, {64, 20, 3, 20})),
           CALL(fp_set_mode(text, 65)),
           CALL(fp_set_mode(text, -1)),
           CALL(fp_set_mode(nullptr, 4)),
           CALL(fp_parse_prot(nullptr, 1)),
           CALL(fp_parse_prot(bytes, 0)),
           CALL(fp_parse_prot_data_end(nullptr, 1)),
           CALL(fp_parse_prot_data_end(bytes, 0)),
           CALL(fp_parse_prot_response(nullptr, 1)),
           CALL(fp_parse_prot_response(bytes, 0)),
           CALL(fp_parse_prot_head(bytes, sizeof prot_packet_usb)),
           CALL(fp_parse_prot_head(packet, 4)),
           CALL(fp_read_and_parse_prot(0)),
           CALL(fp_read_and_parse_prot(93172)),
           CALL(fp_auto_enroll_param_init(nullptr, 21, 12)),
           CALL(fp_auto_identify_param_init(nullptr, 3, 0xFFFF, 1)),
           CALL(fp_get_increment_of_time_ms(nullptr)),
           CALL(fp_delete_invalid_template(nullptr)),
           CALL(Check_BCC(nullptr, 4)),
           CALL(Check_BCC(bytes, 0)),
           CALL(boot_write_usb(nullptr, 1)),
           CALL(boot_read_usb(bytes, 0)),
           CALL(boot_write_usb(bytes, 1)),
           CALL(boot_read_usb(bytes, 1)),
           CALL(downloadCodeToEFlash(0, text, 241)),
           CALL(get_file_size(nullptr)),
           CALL(get_file_size("")),
           CALL(get_file_size("nowhere")),
           // And what these return to good ones.
           CALL(fp_fill_msg_head(&head, 8, 0x1234)),
           CALL(fp_fill_msg_checksum(bytes, 300)),
           CALL(fp_fill_msg_checksum(bytes, 1)),
           CALL(fp_resp_init(48)),
           CALL(fp_set_ctrlFlag(0)),
           CALL(set_upgrade_state(0)),
           CALL(enable_printf_log(0)),
           CALL(usb_set_autosuspend_flag(0)),
           CALL(CRC16_X25(nullptr, 3)),
           CALL(usb_dev_close()),
           CALL(usb_dev_set_null()),
       }) {
    const int result = call();
    rig.trace.note(name + (" = " + std::to_string(result)));
  }
  EXPECT_EQ(golden_difference("bad-arguments", rig.trace.lines()), "");
  EXPECT_EQ(hex({bytes[300], bytes[301]}), "2ad4") << "300 * 255 modulo 65536";
  EXPECT_EQ(hex({bytes[1], bytes[2]}), "00ff");
}

}  // namespace
}  // namespace wrx_test
