// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's command set as the driver uses it: one row a command, both ways. A row says how the
// command is announced, read, judged and told about, and what its response means. To add a command
// is to add its row here, and, if it is called from outside, its skin in procedures.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "protocol/decoders.h"
#include "protocol/packet.h"
#include "records/fp_device_param.h"
#include "records/prot_codes.h"

namespace wrx::protocol {

/// A line of the log, and where it goes.
enum class Form : uint8_t {
  silent,
  logged,   ///< log file and standard output
  printed,  ///< standard output, behind the bracketed prefix; the line end is added
  lined,    ///< standard output, behind the colon prefix
};
struct Said {
  Form form = Form::silent;
  const char* text = nullptr;
};
constexpr Said logged(const char* text) {
  return {Form::logged, text};
}
constexpr Said printed(const char* text) {
  return {Form::printed, text};
}
constexpr Said lined(const char* text) {
  return {Form::lined, text};
}

inline constexpr int16_t kNoSub = -1;
/// Logged with the judged code as its only argument.
inline constexpr const char* kNotOk = "not received PROT_RESP_OK!!!\r\n";
inline constexpr const char* kSendFailed = "fp_send_cmd failed!!!\r\n";
inline constexpr const char* kSendFailedPlain = "fp_send_cmd failed!!!\n";

struct Command {
  uint8_t code;
  int16_t sub = kNoSub;  ///< sub-command of PROT_CMD_TEST_TYPE
  RECV_DATA_STRUCT plan = {64, 20, 3, 20};
  Said announced = {};  ///< before sending
  /// Field that the response's confirm code is filed in and judged by; set to 0xFF before sending.
  /// Without one the confirm code of the exchange is judged.
  uint8_t FP_DEVICE_PARAM_STRUCT::*verdict = nullptr;
  Said succeeded = {};
  const char* refused = kNotOk;      ///< logged when the judged code is not 0
  const char* unanswered = nullptr;  ///< logged when the exchange failed; null: that is forgiven
  Said received = {};                ///< when a response arrives
  void (*decode)(const Payload&, CallSite) = nullptr;
  bool accepted = true;  ///< a response marks the command as answered
};

using Param = FP_DEVICE_PARAM_STRUCT;

inline constexpr Command kCommands[] = {
    {.code = PROT_CMD_GETIMAGE,
     .plan = {64, 100, 10, 20},
     .announced = printed("send PROT_CMD_GETIMAGE command."),
     .succeeded = logged("received PROT_RESP_OK.\r\n"),
     .received = lined("received PROT_CMD_GETIMAGE response.\r\n")},
    {.code = PROT_CMD_UPIMAGE,
     .plan = {64, 20, 5, 20},
     .announced = logged("send PROT_CMD_UPIMAGE command.\n"),
     .succeeded = printed("received PROT_RESP_OK."),
     .received = lined("received PROT_CMD_UPIMAGE response.\r\n")},
    // Announced by its procedure, together with the slots.
    {.code = PROT_CMD_DELCHAR,
     .plan = {64, 20, 5, 20},
     .verdict = &Param::delete_template_result,
     .succeeded = printed("received PROT_RESP_OK.\r"),
     .refused = "delete_template_result = 0x%02x, error!!!\r\n",
     .unanswered = kSendFailed,
     .received = lined("received PROT_CMD_DELCHAR response.\r\n")},
    {.code = PROT_CMD_EMPTY,
     .plan = {64, 20, 5, 20},
     .announced = logged("send PROT_CMD_EMPTY command.\n"),
     .verdict = &Param::empty_template_result,
     .succeeded = lined("received PROT_RESP_OK.\r\n"),
     .refused = "empty_template_result = 0x%02x, error!!!\r\n",
     .received = lined("received PROT_CMD_EMPTY response.\r\n")},
    {.code = PROT_CMD_READSYSPARA,
     .announced = logged("send PROT_CMD_READSYSPARA command.\n"),
     .succeeded = printed("received PROT_RESP_OK.\r"),
     .received = lined("received PROT_CMD_READSYSPARA response.\r\n"),
     .decode = decode_system_parameters},
    {.code = PROT_CMD_SETCHIPADDR,
     .announced = logged("send PROT_CMD_SETCHIPADDR command.\n"),
     .succeeded = lined("received PROT_RESP_OK.\r\n"),
     .received = lined("received PROT_CMD_SETCHIPADDR response.\r\n")},
    {.code = PROT_CMD_READINFOPAGE,
     .plan = {64, 20, 5, 20},
     .announced = logged("send PROT_CMD_READINFOPAGE command.\n"),
     .succeeded = printed("received PROT_RESP_OK."),
     .received = lined("received PROT_CMD_READINFOPAGE response.\r\n")},
    {.code = PROT_CMD_VALIDTEMPLATENUM,
     .announced = logged("send PROT_CMD_VALIDTEMPLATENUM command.\r\n"),
     .succeeded = lined("received PROT_RESP_OK.\r\n"),
     .received = lined("received PROT_CMD_VALIDTEMPLATENUM response.\r\n"),
     .decode = decode_valid_count},
    {.code = PROT_CMD_READINDEXTABLE,
     .plan = {64, 20, 10, 20},
     .announced = logged("send PROT_CMD_READINDEXTABLE command.\n"),
     .succeeded = printed("received PROT_RESP_OK."),
     .unanswered = kSendFailed,
     .received = lined("received PROT_CMD_READINDEXTABLE response.\r\n"),
     .decode = decode_index_table},
    {.code = PROT_CMD_CANCEL,
     .plan = {64, 20, 5, 20},
     .announced = logged("send PROT_CMD_CANCEL command.\n"),
     .verdict = &Param::cancel_result,
     .succeeded = printed("received PROT_RESP_OK.\r"),
     .refused = "cancel_result = 0x%02x, error!!!\r\n",
     .received = lined("received PROT_CMD_CANCEL response.\r\n")},
    // The two procedures that report step by step are judged where they are waited for.
    {.code = PROT_CMD_AUTOENROLL,
     .announced = logged("send PROT_CMD_AUTOENROLL command.\n"),
     .unanswered = kSendFailedPlain,
     .received = printed("received PROT_CMD_AUTOENROLL response.\r"),
     .decode = decode_enroll_step},
    {.code = PROT_CMD_AUTOIDENTIFY,
     .announced = logged("send PROT_CMD_AUTOIDENTIFY command.\n"),
     .received = printed("received PROT_CMD_AUTOIDENTIFY response.\r"),
     .decode = decode_identify_step},
    {.code = PROT_CMD_SLEEP,
     .announced = logged("send PROT_CMD_SLEEP command.\n"),
     .verdict = &Param::sleep_result,
     .succeeded = printed("received PROT_RESP_OK.\r"),
     .refused = "sleep_result = 0x%02x, error!!!\r\n",
     .received = printed("received PROT_CMD_SLEEP response.\r")},
    {.code = PROT_CMD_GETCHIPSN,
     .announced = logged("send PROT_CMD_GETCHIPSN command.\n"),
     .succeeded = printed("received PROT_RESP_OK."),
     .received = printed("received PROT_CMD_GETCHIPSN response.\r"),
     .decode = decode_serial_number},
    {.code = PROT_CMD_HANDSHAKE,
     .plan = {230, 20, 3, 20},
     .announced = logged("send PROT_CMD_HANDSHAKE command.\n"),
     .succeeded = printed("received PROT_RESP_OK."),
     .received = logged("received PROT_CMD_HANDSHAKE response.\r\n"),
     .decode = decode_handshake},
    {.code = PROT_CMD_PS_PC_STATE,
     .announced = logged("send PROT_CMD_PS_PC_STATE command.\n"),
     .succeeded = printed("received PROT_RESP_OK."),
     .refused = "not received PROT_RESP_OK!!!\n",
     .unanswered = kSendFailedPlain,
     .received = logged("received PROT_CMD_PS_PC_STATE response.\r\n")},
    // The first row of a code decodes for all its sub-commands: which one was answered is told by
    // prot_packet_usb.current_sub_cmd_code, which outlives the exchange that set it.
    {.code = PROT_CMD_TEST_TYPE,
     .sub = PROT_SUBCMD_READ_FW,
     .plan = {64, 20, 10, 20},
     .announced = logged("send PROT_CMD_TEST_TYPE PROT_SUBCMD_READ_FW command.\r\n"),
     .succeeded = lined("received PROT_RESP_OK.\r\n"),
     .unanswered = kSendFailed,
     .received = printed("received PROT_CMD_TEST_TYPE response."),
     .decode = decode_test_type},
    {.code = PROT_CMD_TEST_TYPE,
     .sub = PROT_SUBCMD_SET_MODE,
     .plan = {64, 20, 10, 20},
     .announced = logged("send PROT_CMD_SET_MODE command.\n"),
     .succeeded = printed("received PROT_RESP_OK."),
     .unanswered = kSendFailedPlain},
    // Its response is known but never accepted, so the exchange always counts as unanswered.
    {.code = PORT_CMD_GET_BRIGHTNESS,
     .succeeded = logged("received PROT_RESP_OK.\r\n"),
     .accepted = false},
    {.code = PORT_CMD_STARTCAPIMAGE,
     .plan = {64, 100, 5, 20},
     .succeeded = logged("received PROT_RESP_OK.\r\n"),
     .decode = decode_capture_start},
    // Announced as a mode switch, on purpose.
    {.code = PROT_CMD_RTBOOT,
     .plan = {64, 70, 1, 0},
     .announced = logged("send PROT_CMD_SET_MODE command.\n"),
     .succeeded = printed("received PROT_RESP_OK."),
     .unanswered = kSendFailedPlain,
     .received = logged("received PROT_CMD_RTBOOT response.\n")},
};

/// Codes of the module that the driver never sends; their responses are known and not accepted.
inline constexpr uint8_t kKnownOnly[] = {
    PROT_CMD_GENCHAR,
    PROT_CMD_MATCH,
    PROT_CMD_SEARCH,
    PROT_CMD_REGMODEL,
    PROT_CMD_STORECHAR,
    PROT_CMD_LOADCHAR,
    PROT_CMD_UPCHAR,
    PROT_CMD_DOWNCHAR,
    PROT_CMD_DOWNIMAGE,
    PROT_CMD_SETPWD,
    PROT_CMD_VFYPWD,
    PROT_CMD_HIGHSPEEDSEARCH,
    PROT_CMD_GETENROLLIMAGE,
    PROT_CMD_CHECKSENSOR,
    PROT_CMD_IIC_LED_CONTROL,
    PORT_CMD_SET_BRIGHTNESS,
    PORT_CMD_SET_CONTRAST,
    PORT_CMD_GET_CONTRAST,
    PORT_CMD_GET_MAXSIZEOFIMAGE,
    PORT_CMD_SET_SIZEOFIMAGE,
    PORT_CMD_GET_SIZEOFIMAGE,
    PORT_CMD_READYCAPIMAGE,
    PORT_CMD_ENDCAPIMAGE,
};

constexpr bool rows_ascend() {
  for (std::size_t i = 1; i < std::size(kCommands); ++i) {
    const Command& before = kCommands[i - 1];
    const Command& row = kCommands[i];
    if (row.code < before.code || (row.code == before.code && row.sub <= before.sub)) return false;
  }
  return true;
}
static_assert(rows_ascend(), "rows stand in order of code and sub-command, each once");

constexpr const Command* find_command(uint8_t code) {
  for (const Command& row : kCommands) {
    if (row.code == code) return &row;
  }
  return nullptr;
}

constexpr bool known_only(uint8_t code) {
  for (const uint8_t known : kKnownOnly) {
    if (known == code) return true;
  }
  return false;
}

constexpr bool known_only_codes_have_no_row() {
  for (const uint8_t known : kKnownOnly) {
    if (find_command(known) != nullptr) return false;
  }
  return true;
}
static_assert(known_only_codes_have_no_row());

/// The row of a command; a code without one does not compile.
consteval const Command& command(uint8_t code, int16_t sub = kNoSub) {
  const Command* row = nullptr;
  for (const Command& candidate : kCommands) {
    if (candidate.code == code && candidate.sub == sub) row = &candidate;
  }
  return *row;
}

}  // namespace wrx::protocol
