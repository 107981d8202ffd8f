// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's automatic enrolment: it captures press after press, merges them, stores the
// template, and reports every step.
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
using wrx::operations::here;
using wrx::protocol::command;

namespace {

constexpr int32_t kReportRead = 128;
constexpr uint32_t kPassMs = 30;
constexpr std::size_t kPressesReset = 15;  // the last entry keeps what it held

FP_AUTOENROLL_PARAM_STRUCT& enrolment() {
  return fp_device_param.auto_enroll_param;
}

uint8_t press_result(const uint8_t (&results)[wrx::kMaxPresses], uint8_t press,
                     wrx::CallSite site) {
  if (press < wrx::kMaxPresses) return results[press];
  WRX_LOG(site, "enroll_time = %d, error!!!\r\n", press);
  return kNoAnswer;
}

}  // namespace

int32_t fp_auto_enroll_param_init(FP_AUTOENROLL_PARAM_STRUCT* auto_enroll_param, uint16_t enroll_id,
                                  uint8_t auto_enroll_times) {
  if (auto_enroll_param == nullptr) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return -1;
  }
  FP_AUTOENROLL_PARAM_STRUCT& param = *auto_enroll_param;
  param.enroll_id = enroll_id;
  param.auto_enroll_times = auto_enroll_times;
  param.validity_check_result = kNoAnswer;
  param.current_enroll_time = 0;
  param.current_enroll_flag = 0;
  std::fill_n(param.capture_result, kPressesReset, kNoAnswer);
  std::fill_n(param.create_feature_result, kPressesReset, kNoAnswer);
  std::fill_n(param.enroll_result, kPressesReset, kNoAnswer);
  param.merge_template_result = kNoAnswer;
  param.enroll_conflict_result = kNoAnswer;
  param.store_template_result = kNoAnswer;
  param.enroll_finish_flag = 0;
  return 0;
}

int32_t fp_auto_enroll_start(uint16_t enroll_id, uint8_t enroll_times, uint16_t param) {
  fp_auto_enroll_param_init(&enrolment(), enroll_id, enroll_times);
  const std::array<uint8_t, 5> parameters = {
      static_cast<uint8_t>(enroll_id >> 8), static_cast<uint8_t>(enroll_id), enroll_times,
      static_cast<uint8_t>(param >> 8), static_cast<uint8_t>(param)};
  if (!wrx::protocol::exchange(command(PROT_CMD_AUTOENROLL), parameters, here())) return -1;
  const uint8_t validity = enrolment().validity_check_result;
  switch (validity) {
    case PROT_RESP_OK:
      WRX_PRINT(here(), "received PROT_RESP_OK.");
      return 0;
    case PROT_RESP_ADDR_OUT_RANGE:
    case PROT_RESP_FPRINTLIB_FULL:
      fp_set_ctrlFlag(FP_CONTROL_FLAG_ENROLLID_OUT_RANGE);
      WRX_LOG(here(), "enroll id out of range!!!\n");
      return -1;
    default:
      wrx::print_text(here(), "validity_check_result = 0x%02x.\r\n", validity);
      WRX_LOG(here(), "not received PROT_RESP_OK!!!\n");
      return -1;
  }
}

// The order of the tests decides what wins in a pass that meets several: a finish report wins over
// everything, a step report loses to everything.
int32_t fp_auto_enroll(int32_t timeout_ms) {
  WRX_LOG(here(), "start.\n");
  struct timeval started {};
  gettimeofday(&started, nullptr);
  for (;; wrx::pause_ms(kPassMs)) {
    fp_read_and_parse_prot(kReportRead);
    if (enrolment().enroll_finish_flag != 0) {
      WRX_LOG(here(), "received enroll_finish_flag.\n");
      return 0;
    }
    if (fp_get_device_num() < 1) {
      fp_set_ctrlFlag(FP_CONTROL_FLAG_DEV_NOT_EXIST);
      return -1;
    }
    if (fp_get_ctrlFlag() == FP_CONTROL_FLAG_STOPPED) return -1;
    if (timeout_ms < fp_get_increment_of_time_ms(&started)) {
      WRX_LOG(here(), "enroll timeout!!!\n");
      fp_set_ctrlFlag(FP_CONTROL_FLAG_TIMEOUT);
      return -1;
    }
    if (enrolment().current_enroll_flag != 0) {
      enrolment().current_enroll_flag = 0;
      return 0;
    }
  }
}

int32_t fp_get_increment_of_time_ms(struct timeval* tv_old) {
  if (tv_old == nullptr) {
    WRX_LOG(here(), "the param is error!!!\r\n");
    return 0;
  }
  return static_cast<int32_t>(wrx::operations::elapsed_us(*tv_old) / 1000);
}

int64_t wrx::operations::elapsed_us(const struct timeval& then) {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  return (static_cast<int64_t>(now.tv_sec) - then.tv_sec) * 1000000 +
         (static_cast<int64_t>(now.tv_usec) - then.tv_usec);
}

uint8_t fp_get_current_enroll_time(void) {
  return enrolment().current_enroll_time;
}

uint8_t fp_get_enroll_finish_flag(void) {
  return enrolment().enroll_finish_flag;
}

uint8_t fp_get_store_template_result(void) {
  return enrolment().store_template_result;
}

uint8_t fp_get_enroll_create_feature_result(uint8_t enroll_time) {
  return press_result(enrolment().create_feature_result, enroll_time, here());
}

uint8_t fp_get_enroll_result(uint8_t enroll_time) {
  return press_result(enrolment().enroll_result, enroll_time, here());
}
