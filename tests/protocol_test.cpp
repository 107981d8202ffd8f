// SPDX-License-Identifier: LGPL-2.1-or-later
// The command procedures against the module: bytes out, waits, results and every line.
#include "protocol/procedures.h"

#include <gtest/gtest.h>

#include <cstring>

#include "fp_device_param.h"
#include "log.h"
#include "lower_rooms.h"
#include "protocol/packet.h"
#include "transport/usb_device.h"

namespace wrx_test {
namespace {

using std::string;

const string kOk = "[@] received PROT_RESP_OK.\n";
const string kOkReturn = "[@] received PROT_RESP_OK.\\r\n";
const string kOkLine = ":@: received PROT_RESP_OK.\\r\n";
const string kOkLogged = "+[@] received PROT_RESP_OK.\\r\n";
const string kNotOk = "+[@] not received PROT_RESP_OK!!!\\r\n";
const string kSendFailed = "+[@] fp_send_cmd failed!!!\\r\n";
const string kSendFailedPlain = "+[@] fp_send_cmd failed!!!\n";
const string kImage = ":fp_parse_prot_data_end: acquire image data:\\r\n";
const string kTestType = "[~] received PROT_CMD_TEST_TYPE response.\n";
const string kRebooting = "+[~] received PROT_CMD_RTBOOT response.\n";
const string kDrains = "+[fp_read_invalid_pkg] start.\n";
const string kDropped = "+[~] index table of 2 bytes is too short, dropped.\\r\n";
const string kNotMarked =
    "+[fp_send_cmd] current_cmd_code = 0xb1, current_resp_cmd = 0x00, ERROR!!!\\r\n";

string lined(const char* name) {
  return string(":~: received PROT_CMD_") + name + " response.\\r\n";
}
string printed(const char* name) {
  return string("[~] received PROT_CMD_") + name + " response.\\r\n";
}
string sends(const char* name) {
  return string("+[@] send PROT_CMD_") + name + " command.\n";
}

/// A procedure with all its texts: before sending, then when it is answered 0, answered 0x13,
/// not answered. "@" is its name, "~" the decoder's.
struct Procedure {
  const char* name;
  int32_t (*call)();
  Bytes command;
  RECV_DATA_STRUCT plan;
  std::string sends;
  std::string done;
  std::string refused;
  std::string unanswered = "";
  int32_t result_unanswered = 0;
  int32_t result_refused = -1;
  int more_ms = 0;     ///< waits besides the plan's
  int more_reads = 0;  ///< reads besides the plan's, the first of them as long as a read takes
};

// clang-format off
const Procedure kProcedures[] = {
    {"fp_get_firmware_version", fp_get_firmware_version, {175, 16}, {64, 20, 10, 20},
     "+[@] send PROT_CMD_TEST_TYPE PROT_SUBCMD_READ_FW command.\\r\n",
     kTestType + "[~] len-1 =  25\n+[~] firmware_version is acm32_btl_zelta_pc_000100\n"
     "+[~] firmware_version num is 100\n" + kOkLine,
     kTestType + "+[~] not received firmware_version!!!\n" + kNotOk, kSendFailed, -1, -1, 20},
    {"fp_get_fprint_img", fp_get_fprint_img, {1}, {64, 100, 10, 20},
     "[@] send PROT_CMD_GETIMAGE command.\n",
     lined("GETIMAGE") + kOkLogged + "+[fp_upload_fprint_img] send PROT_CMD_UPIMAGE command.\n" +
     lined("UPIMAGE") + "[fp_upload_fprint_img] received PROT_RESP_OK.\n" + kImage,
     lined("GETIMAGE") + kNotOk},
    {"fp_upload_fprint_img", fp_upload_fprint_img, {10}, {64, 20, 5, 20}, sends("UPIMAGE"),
     lined("UPIMAGE") + kOk + kImage, lined("UPIMAGE") + kNotOk},
    {"fp_force_get_fprint_img", fp_force_get_fprint_img, {184}, {64, 100, 5, 20}, "",
     "[~] start capture.\\r\n" + kOkLogged + kImage, "[~] capture failed!!!\\r\n" + kNotOk},
    {"fp_read_sys_param", fp_read_sys_param, {15}, {64, 20, 3, 20}, sends("READSYSPARA"),
     lined("READSYSPARA") + ":~: sensor_type = 0x0002, fp_database_size = 0x0100, "
     "security_level = 0x0003, device_addr = 0xffffffff.\\r\n" + kOkReturn,
     lined("READSYSPARA") + ":~: sensor_type = 0x0000, fp_database_size = 0x0000, "
     "security_level = 0x0000, device_addr = 0x00000000.\\r\n" + kNotOk},
    {"fp_set_chip_addr", [] { return fp_set_chip_addr(0x01020304); }, {21, 1, 2, 3, 4},
     {64, 20, 3, 20}, sends("SETCHIPADDR"), lined("SETCHIPADDR") + kOkLine,
     lined("SETCHIPADDR") + kNotOk},
    {"fp_read_flash_info_page", fp_read_flash_info_page, {22}, {64, 20, 5, 20},
     sends("READINFOPAGE"),
     lined("READINFOPAGE") + kOk + "+[fp_parse_prot_data_end] acquire flash_info_page data:\\r\n",
     lined("READINFOPAGE") + kNotOk},
    {"fp_read_index_table", [] { return fp_read_index_table(3); }, {31, 3}, {64, 20, 10, 20},
     sends("READINDEXTABLE"), lined("READINDEXTABLE") + kOk,
     lined("READINDEXTABLE") + kDropped + kNotOk, kSendFailed, -1},
    {"fp_get_chip_serial_num", fp_get_chip_serial_num, {52}, {64, 20, 3, 20}, sends("GETCHIPSN"),
     printed("GETCHIPSN") + kOk +
     "+[@] chip_serial_num: 57 52 58 35 33 30 30 2d 30 30 30 30 30 30 30 31 \n",
     printed("GETCHIPSN") + kNotOk},
    {"fp_handshake", fp_handshake, {53}, {230, 20, 3, 20}, sends("HANDSHAKE"),
     "+" + printed("HANDSHAKE") + kOk + "[@] handshake_state = 1.\n",
     "+" + printed("HANDSHAKE") + kNotOk},
    {"fp_cancel", fp_cancel, {48}, {64, 20, 5, 20}, sends("CANCEL"),
     lined("CANCEL") + kOkReturn + kDrains,
     lined("CANCEL") + "+[@] cancel_result = 0x13, error!!!\\r\n" + kDrains, kDrains, 0, -1, 0, 3},
    {"fp_sleep", fp_sleep, {51}, {64, 20, 3, 20}, sends("SLEEP"), printed("SLEEP") + kOkReturn,
     printed("SLEEP") + "+[@] sleep_result = 0x13, error!!!\\r\n"},
    {"fp_get_valid_template_num", fp_get_valid_template_num, {29}, {64, 20, 3, 20},
     "+[@] send PROT_CMD_VALIDTEMPLATENUM command.\\r\n",
     lined("VALIDTEMPLATENUM") + kOkLine + ":@: valid_template_num = 0.\\r\n",
     lined("VALIDTEMPLATENUM") + kNotOk},
    {"fp_get_bright", fp_get_bright, {177}, {64, 20, 3, 20}, "", kNotMarked, kNotMarked, "", 0, 0},
    {"fp_set_mode", [] { return fp_set_mode("TEST", 4); }, {175, 189, 'T', 'E', 'S', 'T'},
     {64, 20, 10, 20}, sends("SET_MODE"), kTestType + kOk, kTestType + kNotOk,
     kSendFailedPlain, -1},
    {"fp_reboot", fp_reboot, {255, 0xC3, 0x3C, 0x96, 0x69, 0x4B, 0x52, 0x54, 0x4D}, {64, 70, 1, 0},
     sends("SET_MODE"), kRebooting + kOk, kRebooting + kNotOk, kSendFailedPlain, -1},
    {"fp_set_pc_state", [] { return fp_set_pc_state(7); }, {80, 7}, {64, 20, 3, 20},
     sends("PS_PC_STATE"), "+" + printed("PS_PC_STATE") + kOk,
     "+" + printed("PS_PC_STATE") + "+[@] not received PROT_RESP_OK!!!\n", kSendFailedPlain, -1},
};
// clang-format on

std::string texts(const Procedure& row, std::string text) {
  for (const auto& [mark, name] :
       {std::pair{'@', row.name}, std::pair{'~', "fp_parse_prot_response"}}) {
    for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos;)
      text.replace(at, 1, name);
  }
  return text;
}

/// What one call of a procedure did.
struct Ran {
  int32_t result;
  std::string said;
  std::string sent;  ///< the command packet
  int reads;         ///< payloads asked for
  int64_t ms;
};

Ran run(const Procedure& row, wrx_module::Settings settings,
        const std::function<void(Rig&)>& prepare = {}) {
  settings.reboot.leave_us = 10'000'000;
  Rig rig(std::move(settings));
  rig.configure();
  rig.open();
  fp_device_param.index_table_page = 3;
  enable_printf_log(1);
  rig.trace.clear();
  if (prepare) prepare(rig);
  Ran ran{};
  ran.ms = rig.time_of([&] { ran.result = row.call(); });
  ran.said = said(rig, {"usb_", "fp_deal_usb_data"});
  const std::vector<std::string> out = transfers(rig, "out");
  ran.sent = out.size() > 1 ? out[1] : "";
  ran.reads = rig.trace.count("usb-out ep=0x01 len=8 ") - 1;
  return ran;
}

TEST(Procedures, AnsweredTheySayWhatIsWrittenAndReturn0) {
  for (const Procedure& row : kProcedures) {
    SCOPED_TRACE(row.name);
    const Ran ran = run(row, Rig::instant(), [](Rig& rig) {
      fp_force_get_fprint_img();  // a picture to upload
      rig.play("press thumb good");
      rig.trace.clear();
      rig.write_file(kLogFile, "");
    });
    EXPECT_EQ(ran.result, 0);
    EXPECT_EQ(ran.said, texts(row, row.sends + row.done));
    EXPECT_EQ(ran.sent, hex(packet(row.command, 1)));
  }
}

TEST(Procedures, RefusedTheySayTheCodeAndFail) {
  for (const Procedure& row : kProcedures) {
    SCOPED_TRACE(row.name);
    wrx_module::Settings settings = Rig::instant();
    settings.refuse[row.command[0]] = {0x13, -1};
    const Ran ran = run(row, settings);
    EXPECT_EQ(ran.result, row.result_refused);
    EXPECT_EQ(ran.said, texts(row, row.sends + row.refused));
  }
}

TEST(Procedures, UnansweredTheyReadAsPlannedAndMostForgiveIt) {
  for (const Procedure& row : kProcedures) {
    SCOPED_TRACE(row.name);
    wrx_module::Settings silent = Rig::instant();
    silent.link.response_delay_us = 60'000'000;
    const RECV_DATA_STRUCT& plan = row.plan;
    const int64_t planned = plan.wait_ms + plan.cycle_times * plan.cycle_ms + row.more_ms;
    Ran ran = run(row, silent);
    EXPECT_EQ(ran.result, row.result_unanswered);
    EXPECT_EQ(ran.said, texts(row, row.sends + row.unanswered));
    EXPECT_EQ(ran.reads, plan.cycle_times + row.more_reads);
    EXPECT_EQ(ran.ms, planned);
    // A module that lets reads run into their limit costs a second each; a drain ends with its
    // first such read.
    silent.link.empty_read = wrx_module::EmptyRead::times_out;
    ran = run(row, silent);
    EXPECT_EQ(ran.result, row.result_unanswered);
    EXPECT_EQ(ran.ms, planned + 1000 * (plan.cycle_times + (row.more_reads > 0 ? 1 : 0)));
  }
}

TEST(Procedures, WithoutTheModuleTheyReadNothingAndChangeNothing) {
  for (const Procedure& row : kProcedures) {
    SCOPED_TRACE(row.name);
    const Ran ran = run(row, Rig::instant(), [](Rig& rig) {
      fp_device_param.sys_param.sensor_type = 77;
      rig.device.unplug();
    });
    EXPECT_EQ(ran.result, row.result_unanswered);
    EXPECT_EQ(ran.said, texts(row, row.sends + "+[fp_send_cmd] usb_send_data failed!!!\\r\n" +
                                       row.unanswered));
    EXPECT_EQ(ran.ms, row.more_ms);
    EXPECT_EQ(fp_device_param.sys_param.sensor_type, 77);
  }
}

class Protocol : public testing::Test {
 protected:
  Protocol() {
    rig.configure();
    rig.open();
    rig.trace.clear();
  }
  Rig rig;
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

TEST_F(Protocol, FramingRefusesBadArgumentsAndSumsModulo65536) {
  const Bytes full(300, 0xFF);
  EXPECT_EQ(get_check_sum(full.data(), 300), 300 * 255 % 65536);
  Bytes message(302, 0xFF);
  EXPECT_EQ(fp_fill_msg_checksum(message.data(), 300), 0);
  EXPECT_EQ(hex(Bytes(message.end() - 2, message.end())), "2ad4");
  MSG_HEAD_STRUCT head;
  EXPECT_EQ(fp_fill_msg_head(&head, 8, 0x1234), 0);
  EXPECT_EQ(std::memcmp(&head, "\xEF\x01\xFF\xFF\xFF\xFF\x08\x12\x34", 9), 0);
  EXPECT_EQ(fp_fill_msg_head(nullptr, 1, 3), -1);
  EXPECT_EQ(fp_fill_msg_checksum(nullptr, 3), -1);
  EXPECT_EQ(fp_fill_msg_checksum(message.data(), 0), -1);
  EXPECT_EQ(get_check_sum(nullptr, 3), 0);
  fp_resp_init(48);
  EXPECT_EQ(prot_packet_usb.current_cmd_code, 48);
  EXPECT_EQ(prot_packet_usb.current_resp_cmd, 0);
  EXPECT_EQ(fp_resp_type_get(), 0xFF);
  EXPECT_EQ(fp_recv_param_init(nullptr, 64, 20, 3, 20), -1);
  EXPECT_EQ(said(rig),
            "[fp_fill_msg_head] the param is error!!!\\r\n"
            "[fp_fill_msg_checksum] the param is error!!!\\r\n"
            "[fp_fill_msg_checksum] the param is error!!!\\r\n"
            "[get_check_sum] the point buf is null, error!!!\\r\n"
            "[fp_recv_param_init] the point recv_param is null, error!!!\\r\n");
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
