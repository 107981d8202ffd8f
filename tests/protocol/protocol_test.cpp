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

// Each procedure answered well, refused, not answered, and without the module; then its log file.
TEST(Procedures, InEveryEndingAsATrace) {
  std::vector<std::string> lines;
  for (const Procedure& row : kProcedures) {
    const std::string name = row.name;
    wrx_module::Settings settings = Rig::instant();
    settings.reboot.leave_us = 10'000'000;
    Opened rig(settings);
    fp_force_get_fprint_img();  // a picture to upload
    rig.play("press thumb good");
    enable_printf_log(1);
    rig.trace.clear();
    EXPECT_EQ(rig.step(name, row.call), 0);
    rig.device.settings().refuse[row.code] = {0x13, 1};
    rig.step(name + ", refused", row.call);
    rig.device.settings().link.response_delay_us = 60'000'000;
    rig.step(name + ", not answered", row.call);
    fp_device_param.sys_param.sensor_type = 77;
    rig.device.unplug();
    rig.step(name + ", no module", row.call);
    EXPECT_EQ(fp_device_param.sys_param.sensor_type, 77);
    rig.show_file(kLogFile);
    const std::vector<std::string> trace = rig.trace.lines();
    lines.insert(lines.end(), trace.begin(), trace.end());
  }
  EXPECT_EQ(golden_difference("procedures", lines), "");
}

// Calls with every byte of their arguments in use, and calls that are refused or find no module.
TEST(Procedures, ArgumentsAndRefusalsAsATrace) {
  Opened rig(Rig::instant());
  std::array<uint16_t, wrx::kMaxMatches> matches{};
  FP_AUTOIDENTIFY_PARAM_STRUCT& identify = fp_device_param.auto_identify_param;
  FP_AUTOENROLL_PARAM_STRUCT& enroll = fp_device_param.auto_enroll_param;
  std::memset(&identify, 0x5A, sizeof identify);
  std::memset(&enroll, 0x5A, sizeof enroll);
  const Procedure calls[] = {
      {"fp_auto_enroll_start", [] { return fp_auto_enroll_start(0x1234, 9, 0xABCD); }},
      {"fp_auto_enroll", [] { return fp_auto_enroll(50); }},
      {"fp_auto_identify", [] { return fp_auto_identify(5, 0x1234, 0xABCD, nullptr, 50); }},
      {"fp_delete_template", [] { return fp_delete_template(0x1234, 0x5678); }},
      {"fp_get_empty_enroll_id", [] { return int32_t{fp_get_empty_enroll_id()}; }},
      {"fp_set_mode, longest",
       [] { return fp_set_mode(reinterpret_cast<char*>(fp_device_param.img_data), 64); }},
      {"fp_set_mode, too long", [] { return fp_set_mode("TEST", 100); }},
      {"fp_send_cmd, too long",
       [] {
         return fp_send_cmd(53, &prot_packet_usb.prot_type, 93160, {64, 20, 3, 20});
       }},
      {"fp_send_cmd, nothing behind the code",
       [] {
         return fp_send_cmd(53, nullptr, 0, {64, 20, 3, 20});
       }},
      {"read_fw_version, no selection", read_fw_version},
  };
  for (const Procedure& row : calls)
    rig.step(row.name, row.call);
  for (const int type : {1, 2, 7, 8, 9}) {
    prot_packet_usb.prot_type = static_cast<uint8_t>(type);
    rig.step("fp_parse_prot_head " + std::to_string(type), [] {
      fp_resp_init(PROT_CMD_READINFOPAGE);
      return fp_parse_prot_head(reinterpret_cast<uint8_t*>(&prot_packet_usb),
                                sizeof prot_packet_usb);
    });
  }
  const auto powerup = [&] { return fp_onekey_powerup_identify(3, 1, 2, matches.data(), 10); };
  rig.step("fp_onekey_powerup_identify", powerup);
  std::strcpy(new_firmware_version, "another");
  rig.info().config.upgrade_mode = DONT_UPGRADE;
  const auto check = [&] { return wrx7700_check_firmware_version(&rig.dev); };
  rig.step("wrx7700_check_firmware_version, not due", check);
  rig.open();
  rig.lose_handle_at(9);
  rig.step("fp_onekey_powerup_identify, closed meanwhile", powerup);
  rig.open();
  rig.device.unplug();
  for (const Procedure& row : {calls[0], calls[2]})
    rig.step(row.name, row.call);
  rig.step("fp_onekey_powerup_identify, no module", powerup);
  usb_dev_close();
  const auto start = [&] { return wrx7700_onekey_powerup_identify(&rig.dev); };
  rig.step("wrx7700_onekey_powerup_identify, no module", start);
  rig.step("wrx7700_check_firmware_version, no module", check);
  EXPECT_EQ(golden_difference("arguments", rig.trace.lines()), "");
}

class Protocol : public testing::Test {
 protected:
  Opened rig{Rig::instant()};
};

TEST_F(Protocol, ZeroInAPlanMeansNoReadAndNoSleep) {
  EXPECT_EQ(fp_send_cmd(53, nullptr, 5, {64, 0, 0, 20}), -1);
  EXPECT_EQ(transfers(rig, "out").size(), 2U);
  fp_read_invalid_pkg(1);
  rig.trace.clear();
  rig.device.settings().link.response_delay_us = 60'000'000;
  EXPECT_EQ(fp_send_cmd(53, nullptr, 0, {64, 0, 4, 0}), -1);
  EXPECT_EQ(rig.trace.count("usb-in ep=0x81 want=64"), 4);
  EXPECT_FALSE(rig.trace.saw("sleep"));
}

TEST_F(Protocol, ErasingReportsWhatIsBeyondTheLibraryAndEmptyingErasesAll) {
  rig.device.memory().templates = {{3, "a"}, {25, "b"}};
  EXPECT_EQ(fp_delete_template(258, 1), -1);
  EXPECT_EQ(rig.device.commands().back().params, (std::vector<uint8_t>{1, 2, 0, 1}));
  EXPECT_TRUE(rig.trace.saw("delete_template_result = 0x0b, error!!!"));
  EXPECT_EQ(fp_empty_template(), 0);
  EXPECT_TRUE(rig.slots().empty());
}

TEST_F(Protocol, FramingRefusesBadArgumentsAndSumsModulo65536) {
  const Bytes full(300, 0xFF);
  EXPECT_EQ(get_check_sum(full.data(), 300), 300 * 255 % 65536);
  Bytes message(302, 0xFF);
  EXPECT_EQ(fp_fill_msg_checksum(message.data(), 300), 0);
  EXPECT_EQ(hex(Bytes(message.end() - 2, message.end())), "2ad4");
  MSG_HEAD_STRUCT head;
  EXPECT_EQ(fp_fill_msg_head(&head, 8, 0x1234), 0);
  EXPECT_EQ(std::memcmp(&head, "\xEF\x01\xFF\xFF\xFF\xFF\x08\x12\x34", 9), 0);
  fp_resp_init(48);
  EXPECT_EQ(prot_packet_usb.current_cmd_code, 48);
  EXPECT_EQ(prot_packet_usb.current_resp_cmd, 0);
  EXPECT_EQ(fp_resp_type_get(), 0xFF);
  EXPECT_EQ(fp_fill_msg_head(nullptr, 1, 3), -1);
  EXPECT_EQ(fp_fill_msg_checksum(nullptr, 3), -1);
  EXPECT_EQ(fp_fill_msg_checksum(message.data(), 0), -1);
  EXPECT_EQ(get_check_sum(nullptr, 3), 0);
  EXPECT_EQ(fp_recv_param_init(nullptr, 64, 20, 3, 20), -1);
  EXPECT_EQ(rig.trace.count("error!!!\\r"), 5);
}

TEST_F(Protocol, ThePowerUpMatchBeforeTheVersionIsKeptAndReadOver) {
  rig.device.settings().power_up = {.outcome = wrx_module::PowerUpOutcome::match, .slots = {23}};
  int32_t result = -1;
  EXPECT_EQ(rig.time_of([&] { result = fp_get_firmware_version(); }), 60);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(fp_return_firmware_version_num(), 100U);
  EXPECT_STREQ(fp_return_firmware_version(), "acm32_btl_zelta_pc_000100");
  const FP_ONEKEY_POWERUP_STRUCT& held = fp_device_param.onekey_powerup;
  EXPECT_EQ(held.onekey_powerup_flag, 1);
  EXPECT_EQ(held.search_id[0], 23);
  EXPECT_EQ(held.continue_read_fw_version_flag, 0);
  // The request outlives itself: a mode switch behind it is decoded as a version.
  EXPECT_EQ(fp_set_mode("USER", 4), 0);
  EXPECT_EQ(held.continue_read_fw_version_flag, 1);
}

TEST_F(Protocol, TheVersionIsWaitedForThroughFiveOtherAnswersAndNoMore) {
  rig.device.settings().link.response_delay_us = 1000;
  for (const int others : {5, 6}) {
    rig.trace.clear();
    fp_device_param.firmware_version_num = 0;
    for (int i = 0; i < others; ++i)
      rig.device.say({{0, 9, 9}});
    EXPECT_EQ(fp_get_firmware_version(), 0);
    EXPECT_EQ(rig.trace.count("not received firmware_version"), others);
    EXPECT_EQ(fp_device_param.firmware_version_num, others == 5 ? 100U : 0U);
    EXPECT_EQ(fp_device_param.onekey_powerup.continue_read_fw_version_flag, 0);
  }
}

TEST_F(Protocol, AModuleWithAnAddressOfItsOwnIsStillSpokenToAsEveryModule) {
  EXPECT_EQ(fp_set_chip_addr(0x01020304), 0);
  EXPECT_EQ(rig.device.memory().chip_address, 0x01020304U);
  EXPECT_EQ(fp_read_sys_param(), 0);
  EXPECT_EQ(fp_device_param.sys_param.device_addr, 0x01020304U);
  EXPECT_EQ(fp_device_param.chip_addr, 0U);
}

TEST_F(Protocol, SerialNumbersOfOtherLengthsThan16And32AreARefusal) {
  for (const size_t size : {16U, 32U, 17U, 20U}) {
    rig.device.settings().identity.serial.assign(size, 'x');
    EXPECT_EQ(fp_get_chip_serial_num(), size % 16 == 0 ? 0 : -1) << size;
    EXPECT_EQ(fp_resp_type_get(), size % 16 == 0 ? 0 : 0xFF);
  }
}

TEST_F(Protocol, ImagesAndPagesThatDoNotComeFailThoughTheCommandWasTaken) {
  rig.play("press thumb good x9");
  for (const auto call : {fp_force_get_fprint_img, fp_upload_fprint_img, fp_read_flash_info_page,
                          fp_get_fprint_img}) {
    const bool forgives = call == fp_get_fprint_img;
    rig.trace.clear();
    rig.play(forgives ? "fault at 14 stall" : "fault at 8 stall");
    EXPECT_EQ(call(), forgives ? 0 : -1);
    EXPECT_EQ(rig.trace.count("fp_read_and_parse_prot failed!!!"), 1);
    while (fp_read_and_parse_prot(92180) == 0) {
    }
  }
}

}  // namespace
}  // namespace wrx_test
