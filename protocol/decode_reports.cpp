// SPDX-License-Identifier: LGPL-2.1-or-later
// Decoding of what the module reports step by step: enrolment, identification, and the answers to
// a version request, among them the identification that it ran by itself at power-up.
#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "base/log.h"
#include "protocol/command_set.h"
#include "protocol/decoders.h"
#include "protocol/packet.h"
#include "records/fp_device_param.h"

namespace wrx::protocol {

namespace {

using Enroll = FP_AUTOENROLL_PARAM_STRUCT;

constexpr std::size_t kStageOffset = 1;
constexpr std::size_t kPressOffset = 2;
constexpr uint8_t kSingleResult = 0x05;
constexpr uint8_t kListResult = 0xF5;
constexpr std::size_t kListCountOffset = 2;
constexpr std::size_t kListOffset = 3;
constexpr std::size_t kVersionPayload = 26;  // confirm code and 25 characters
constexpr std::size_t kSinglePowerupPayload = 6;

/// What an enrolment report of one stage stores: a result of the whole procedure, or one of the
/// press it names.
struct EnrollStage {
  bool logged;
  const char* text;
  uint8_t Enroll::*result = nullptr;
  uint8_t (Enroll::*pressResult)[kMaxPresses] = nullptr;
  uint8_t Enroll::*raised = nullptr;  ///< flag set by the report
};

constexpr EnrollStage kEnrollStages[] = {
    {false, "validity_check_result = 0x%02x.\r\n", &Enroll::validity_check_result},
    {false, "capture_result[%d] = 0x%02x.\r\n", nullptr, &Enroll::capture_result},
    {false, "create_feature_result[%d] = 0x%02x.\r\n", nullptr, &Enroll::create_feature_result},
    {false, "enroll_result[%d] = 0x%02x.\r\n", nullptr, &Enroll::enroll_result,
     &Enroll::current_enroll_flag},
    {false, "merge_template_result = 0x%02x.\r\n", &Enroll::merge_template_result},
    {true, "enroll_conflict_result = 0x%02x.\r\n", &Enroll::enroll_conflict_result},
    {true, "store_template_result = 0x%02x.\r\n", &Enroll::store_template_result, nullptr,
     &Enroll::enroll_finish_flag},
};

// False for a report that names no press, which is dropped.
bool store_press_result(const EnrollStage& stage, const Payload& payload, CallSite site) {
  Enroll& enroll = fp_device_param.auto_enroll_param;
  if (!payload.store(kPressOffset, enroll.current_enroll_time)) {
    WRX_LOG(site, "report of stage %d names no press, dropped.\r\n", payload.byte(kStageOffset));
    return false;
  }
  const uint8_t press = enroll.current_enroll_time;
  print_text(site, stage.text, press, payload.confirm());
  if (press < kMaxPresses) {
    (enroll.*stage.pressResult)[press] = payload.confirm();
  } else {
    WRX_LOG(site, "press number %d is out of range, its result is dropped.\r\n", press);
  }
  return true;
}

// How many slots of a list result count: what the packet says, but not more than it carries or the
// records hold. Called only when the count itself is there.
int32_t list_count(const Payload& payload, CallSite site) {
  const int32_t said = payload.byte(kListCountOffset);
  const auto carried = static_cast<int32_t>(payload.size() - kListOffset);
  const int32_t count = std::min({said, carried, int32_t{kMaxMatches}});
  if (count < said) {
    WRX_LOG(site, "list of %d slots is cut to %d.\r\n", said, count);
  }
  return count;
}

void copy_list(const Payload& payload, int32_t count, uint16_t* slots) {
  for (int32_t i = 0; i < count; ++i) {
    slots[i] = payload.byte(kListOffset + static_cast<std::size_t>(i));
  }
}

void store_single_match(const Payload& payload, CallSite site) {
  FP_AUTOIDENTIFY_PARAM_STRUCT& identify = fp_device_param.auto_identify_param;
  identify.validity_check_result = 0;
  identify.search_result = payload.confirm();
  identify.search_num = 1;
  payload.store(2, identify.search_id[0]);
  payload.store(4, identify.score);
  identify.identify_finish_flag = 1;
  WRX_LOG(site, "05 search_result = 0x%02x, search_id[0] = 0x%04x.\n", identify.search_result,
          identify.search_id[0]);
}

void store_match_list(const Payload& payload, CallSite site) {
  FP_AUTOIDENTIFY_PARAM_STRUCT& identify = fp_device_param.auto_identify_param;
  identify.search_result = payload.confirm();
  if (payload.has(kListCountOffset)) {
    identify.search_num = list_count(payload, site);
    copy_list(payload, identify.search_num, identify.search_id);
  }
  identify.identify_finish_flag = 1;
  WRX_LOG(site, "f5 search_result = 0x%02x, search_num = %d.\r\n", identify.search_result,
          identify.search_num);
}

void store_version(const Payload& payload, CallSite site) {
  FP_DEVICE_PARAM_STRUCT& state = fp_device_param;
  state.onekey_powerup.continue_read_fw_version_flag = 0;
  std::memcpy(state.firmware_version, payload.at(1), kVersionPayload - 1);
  // One place further than the text: the byte between keeps the 0 it was born with.
  state.firmware_version[kVersionPayload] = '\0';
  print_text(site, "len-1 =  %d\n", static_cast<int>(kVersionPayload - 1));
  WRX_LOG(site, "firmware_version is %s\n", state.firmware_version);
  int number = 0;
  if (std::sscanf(state.firmware_version, "acm32_btl_zelta_pc_%d", &number) == 1) {
    state.firmware_version_num = static_cast<uint32_t>(number);
  }
  WRX_LOG(site, "firmware_version num is %d\n", static_cast<int>(state.firmware_version_num));
}

// Files a power-up result; `count` slots of it have been copied to the record.
void hold_powerup_result(const Payload& payload, int32_t count, CallSite site) {
  FP_ONEKEY_POWERUP_STRUCT& held = fp_device_param.onekey_powerup;
  set_onekey_powerup_flag(1);
  gettimeofday(&held.tv_current_time, nullptr);
  if (payload.confirm() != PROT_RESP_OK) {
    WRX_LOG(site, "identify failed!\n");
    count = 0;
  }
  held.search_num = count;
  if (count < kMaxMatches) held.search_id[count] = kNoSlot;
}

void store_powerup_result(const Payload& payload, CallSite site) {
  FP_ONEKEY_POWERUP_STRUCT& held = fp_device_param.onekey_powerup;
  held.continue_read_fw_version_flag = 1;
  WRX_LOG(site, "not received firmware_version!!!\n");
  const uint8_t kind = payload.has(kStageOffset) ? payload.byte(kStageOffset) : uint8_t{0};
  if (payload.size() == kSinglePowerupPayload && kind == kSingleResult) {
    payload.store(2, held.search_id[0]);
    hold_powerup_result(payload, 1, site);
    WRX_LOG(site, "search_num = %d, search_id[0] = 0x%04x.\n", held.search_num, held.search_id[0]);
  } else if (payload.size() >= kSinglePowerupPayload && kind == kListResult) {
    int32_t count = 0;
    if (payload.confirm() == PROT_RESP_OK) {
      count = list_count(payload, site);
      copy_list(payload, count, held.search_id);
    }
    hold_powerup_result(payload, count, site);
    WRX_LOG(site, "search_num = %d, search_id[0] = %d.\n", held.search_num, held.search_id[0]);
  }
}

}  // namespace

void decode_enroll_step(const Payload& payload, CallSite site) {
  if (!payload.has(kStageOffset)) return;
  const uint8_t number = payload.byte(kStageOffset);
  if (number >= std::size(kEnrollStages)) {
    WRX_LOG(site, "param buf[1] = 0x%02x, error!!!\r\n", number);
    return;
  }
  const EnrollStage& stage = kEnrollStages[number];
  Enroll& enroll = fp_device_param.auto_enroll_param;
  if (stage.pressResult != nullptr) {
    if (!store_press_result(stage, payload, site)) return;
  } else {
    enroll.*stage.result = payload.confirm();
    if (stage.logged) {
      WRX_LOG(site, stage.text, payload.confirm());
    } else {
      print_text(site, stage.text, payload.confirm());
    }
  }
  if (stage.raised != nullptr) enroll.*stage.raised = 1;
}

void decode_identify_step(const Payload& payload, CallSite site) {
  if (!payload.has(kStageOffset)) return;
  FP_AUTOIDENTIFY_PARAM_STRUCT& identify = fp_device_param.auto_identify_param;
  switch (payload.byte(kStageOffset)) {
    case 0:
      identify.validity_check_result = payload.confirm();
      print_text(site, "00 validity_check_result = 0x%02x.\r\n", identify.validity_check_result);
      return;
    case 1:
      identify.validity_check_result = 0;
      identify.capture_result = payload.confirm();
      print_text(site, "01 capture_result = 0x%02x.\r\n", identify.capture_result);
      return;
    case kSingleResult:
      store_single_match(payload, site);
      return;
    case kListResult:
      store_match_list(payload, site);
      return;
    default:
      WRX_LOG(site, "param buf[1] = 0x%02x, error!!!\r\n", payload.byte(kStageOffset));
  }
}

void decode_test_type(const Payload& payload, CallSite site) {
  if (prot_packet_usb.current_sub_cmd_code != PROT_SUBCMD_READ_FW) return;
  if (payload.size() == kVersionPayload) {
    store_version(payload, site);
  } else {
    store_powerup_result(payload, site);
  }
}

}  // namespace wrx::protocol

int32_t set_onekey_powerup_flag(uint8_t flag) {
  fp_device_param.onekey_powerup.onekey_powerup_flag = flag;
  return 0;
}
