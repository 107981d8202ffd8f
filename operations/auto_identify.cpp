// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's automatic identification: on request, and the one it makes by itself of the press
// that powered the machine on.
#include <sys/time.h>

#include <algorithm>
#include <array>

#include "base/log.h"
#include "base/pause.h"
#include "base/units.h"
#include "operations/module_procedures.h"
#include "protocol/engine.h"
#include "protocol/packet.h"
#include "transport/usb_device.h"

using wrx::kNoAnswer;
using wrx::kNoSlot;
using wrx::operations::here;
using wrx::protocol::command;

namespace {

constexpr int32_t kReportRead = 64;
constexpr uint32_t kPassMs = 20;
constexpr int kPowerupPasses = 5;
constexpr std::size_t kSlotsReset = 2;  // the others keep what they held; search_num counts

FP_AUTOIDENTIFY_PARAM_STRUCT& identification() {
  return fp_device_param.auto_identify_param;
}
FP_ONEKEY_POWERUP_STRUCT& held() {
  return fp_device_param.onekey_powerup;
}

struct Request {
  uint8_t security_level;
  uint16_t identify_id;
  uint16_t param;
};

enum class Start : uint8_t { unanswered, refused, accepted };

Start start(const Request& request, wrx::CallSite site) {
  fp_auto_identify_param_init(&identification(), request.security_level, request.identify_id,
                              request.param);
  const std::array<uint8_t, 5> parameters = {
      request.security_level, static_cast<uint8_t>(request.identify_id >> 8),
      static_cast<uint8_t>(request.identify_id), static_cast<uint8_t>(request.param >> 8),
      static_cast<uint8_t>(request.param)};
  if (!wrx::protocol::exchange(command(PROT_CMD_AUTOIDENTIFY), parameters, site)) {
    return Start::unanswered;
  }
  if (identification().validity_check_result != PROT_RESP_OK) {
    WRX_LOG(site, "not received PROT_RESP_OK!!!\r\n");
    return Start::refused;
  }
  WRX_LOG(site, "received PROT_RESP_OK.\n");
  return Start::accepted;
}

bool reported() {
  return identification().identify_finish_flag != 0 ||
         identification().validity_check_result != PROT_RESP_OK;
}

// Waits for the report of a search. 0, or -1 with the control flag saying why.
int32_t await_report(int32_t timeout_ms, wrx::CallSite site) {
  struct timeval started {};
  gettimeofday(&started, nullptr);
  for (;; wrx::pause_ms(kPassMs)) {
    if (fp_get_device_num() < 1) {
      fp_set_ctrlFlag(FP_CONTROL_FLAG_DEV_NOT_EXIST);
      return -1;
    }
    if (timeout_ms != 0 && timeout_ms < fp_get_increment_of_time_ms(&started)) {
      WRX_LOG(site, "identify timeout.\n");
      fp_set_ctrlFlag(FP_CONTROL_FLAG_TIMEOUT);
      return -1;
    }
    fp_read_and_parse_prot(kReportRead);
    if (reported()) return 0;
    if (fp_get_ctrlFlag() == FP_CONTROL_FLAG_STOPPED) return -1;
  }
}

// Polls for the report of the power-up search; at start-up there is nobody to stop it. 0, or -1
// when the module is gone.
int32_t poll_report(int32_t wait_ms) {
  for (int pass = 0; pass < kPowerupPasses; ++pass) {
    if (fp_get_device_num() < 1) return -1;
    fp_read_and_parse_prot(kReportRead);
    if (reported()) break;
    wrx::pause_ms(static_cast<uint32_t>(std::max(wait_ms, 0)));
  }
  return 0;
}

bool refused(wrx::CallSite site) {
  const uint8_t validity = identification().validity_check_result;
  if (validity == PROT_RESP_OK) return false;
  WRX_LOG(site, "validity_check_result = 0x%02x !!!\r\n", validity);
  return true;
}

void copy_matches(uint16_t* slots) {
  if (slots == nullptr) return;
  const FP_AUTOIDENTIFY_PARAM_STRUCT& found = identification();
  std::copy_n(found.search_id, std::clamp(found.search_num, 0, wrx::kMaxMatches), slots);
}

}  // namespace

int32_t fp_auto_identify_param_init(FP_AUTOIDENTIFY_PARAM_STRUCT* identify_param,
                                    uint8_t security_level, uint16_t identify_id, uint16_t param) {
  if (identify_param == nullptr) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  FP_AUTOIDENTIFY_PARAM_STRUCT& record = *identify_param;
  record.security_level = security_level;
  record.identify_id = identify_id;
  record.param = param;
  record.validity_check_result = kNoAnswer;
  record.capture_result = kNoAnswer;
  record.search_result = kNoAnswer;
  record.search_num = 0;
  std::fill_n(record.search_id, kSlotsReset, kNoSlot);
  record.score = 0;
  record.identify_finish_flag = 0;
  return 0;
}

int32_t fp_auto_identify(uint8_t security_level, uint16_t identify_id, uint16_t param,
                         uint16_t* identify_result_id, int32_t timeout_ms) {
  const Start started = start({security_level, identify_id, param}, here());
  if (started == Start::refused) return -1;
  if (started == Start::accepted && await_report(timeout_ms, here()) != 0) return -1;
  if (refused(here())) return -1;
  const FP_AUTOIDENTIFY_PARAM_STRUCT& found = identification();
  WRX_LOG(here(), "search_result = 0x%02x, search_num = %d, search_id[0] = 0x%04x !!!\r\n",
          found.search_result, found.search_num, found.search_id[0]);
  if (found.search_result != PROT_RESP_OK) {
    WRX_LOG(here(), "not search id %d !!!\n", identify_id);
    return 0;
  }
  copy_matches(identify_result_id);
  return 0;
}

int32_t fp_onekey_powerup_identify(uint8_t security_level, uint16_t identify_id, uint16_t param,
                                   uint16_t* identify_result_id, int32_t wait_ms) {
  const Start started = start({security_level, identify_id, param}, here());
  if (started == Start::refused) return -1;
  if (started == Start::accepted && poll_report(wait_ms) != 0) return -1;
  if (refused(here())) return -1;
  const FP_AUTOIDENTIFY_PARAM_STRUCT& found = identification();
  WRX_LOG(here(), "search_result = 0x%02x, search_id[0] = %d.\n", found.search_result,
          found.search_id[0]);
  if (found.identify_finish_flag != 0) {
    set_onekey_powerup_flag(1);
    gettimeofday(get_onekey_powerup_tv_time(), nullptr);
  }
  if (found.search_result != PROT_RESP_OK) {
    WRX_LOG(here(), "not search id %d !!!\r\n", identify_id);
    held().search_num = 0;
    return 0;
  }
  held().search_num = found.search_num;
  copy_matches(identify_result_id);
  return 0;
}

struct timeval* get_onekey_powerup_tv_time(void) {
  return &held().tv_current_time;
}

uint8_t get_onekey_powerup_flag(void) {
  return held().onekey_powerup_flag;
}

uint16_t* get_onekey_powerup_search_id(void) {
  return held().search_id;
}

int32_t init_onekey_powerup_search_id(void) {
  std::fill_n(held().search_id, wrx::kMaxMatches, kNoSlot);
  return 0;
}

int32_t get_onekey_powerup_search_num(void) {
  return held().search_num;
}
