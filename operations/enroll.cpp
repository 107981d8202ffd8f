// SPDX-License-Identifier: LGPL-2.1-or-later
// The enrol operation: from the framework's request, press by press, to one stored feature whose
// only sample carries the module's slot.
#include <libintl.h>

#include <cstdio>

#include "base/log.h"
#include "base/pause.h"
#include "base/units.h"
#include "operations/features.h"
#include "operations/host_words.h"
#include "operations/module_procedures.h"
#include "operations/operations.h"
#include "protocol/packet.h"
#include "protocol/procedures.h"
#include "records/driver_info.h"

using wrx::operations::acknowledge_stop;
using wrx::operations::here;
using wrx::operations::report;
using wrx::operations::report_failed_wait;
using wrx::operations::tell;
using wrx::operations::tell_text;

namespace {

constexpr uint8_t kPresses = 12;
constexpr uint8_t kEdgePress = 6;  // after it the finger's edge is asked for
constexpr int32_t kMaxFeaturesOfUser = 10;
constexpr uint16_t kLastStorableSlot = 255;
constexpr uint32_t kReadingPauseMs = 2000;  // so that a refusal can be read
constexpr int32_t kStalePackets = 5;

constexpr char kFull[] = "注册失败,指纹存储空间已满.\n";
constexpr char kDuplicate[] = "按压的指纹与已有的指纹模版重复.\n";

/// One request of the framework.
struct Enrolment {
  bio_dev* dev;
  int32_t uid;
  int32_t index;
  char* name;  ///< never written to; some frameworks ask for it so
  int32_t timeout_ms;
  uint16_t slot;
};

/// What a press whose feature could not be made tells the user and the log.
struct BadPress {
  uint8_t code;
  const char* message;
  const char* logged;  ///< formatted with the press number and its result
};
constexpr BadPress kBadPresses[] = {
    {PROT_RESP_FPRINT_EXIST, kDuplicate,
     "Current fingerprint already exist, please press your finger again.\n"},
    {PROT_RESP_POSITION_REPEATED, "按压的指纹与已有的指纹位置重复.\n",
     "Current position repeated, please press your finger again.\n"},
    {PROT_RESP_FPRINT_QUALITY_BAD, "图像质量差,请再触摸指纹一次.\n",
     "The quality of current fingerprint is bad, please press your finger again.\n"},
    {PROT_RESP_FPRINT_AREA_TOO_SMALL, "图像面积小,请再触摸指纹一次.\n",
     "The area of current fingerprint is too small, please press your finger again.\n"},
};
constexpr BadPress kOtherBadPress = {0, "注册失败,请再触摸指纹一次.\n",
                                     "enroll_time%d result=0x%02x, error!!!\r\n"};

const BadPress& bad_press(uint8_t code) {
  for (const BadPress& row : kBadPresses) {
    if (row.code == code) return row;
  }
  return kOtherBadPress;
}

// Refuses for want of room, before the module was asked to enrol.
int32_t refuse_full(bio_dev* dev) {
  tell(dev, kFull);
  wrx::pause_ms(kReadingPauseMs);
  bio_set_ops_abs_result(dev, OPS_ENROLL_FAIL);
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  fp_cancel();
  return -1;
}

// The module rejected the start.
int32_t refuse_start(bio_dev* dev) {
  if (fp_get_ctrlFlag() == FP_CONTROL_FLAG_ENROLLID_OUT_RANGE) {
    std::snprintf(wrx::info_of(dev).extra_info, kExtraInfoSize, "%s", gettext(kFull));
    bio_set_ops_abs_result(dev, OPS_ENROLL_FAIL);
    bio_set_notify_abs_mid(dev, MID_EXTENDED_MESSAGE);
    wrx::operations::show_notification(dev);
    wrx::pause_ms(kReadingPauseMs);
  } else {
    report(dev, OPS_ENROLL_FAIL);
  }
  fp_set_ctrlFlag(FP_CONTROL_FLAG_IDLE);
  acknowledge_stop(dev);
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  fp_cancel();
  return -1;
}

// Asks for another finger for as long as the one on the sensor is already the user's. A check that
// fails ends the asking, not the enrolment: a stop met here is seen again by the wait for presses.
void check_duplicates(const Enrolment& enrolment, wrx::CallSite site) {
  while (check_finger_is_enrolled(enrolment.dev, enrolment.timeout_ms, enrolment.uid,
                                  enrolment.index) == 0) {
    tell(enrolment.dev, kDuplicate);
    WRX_LOG(site, "%s", wrx::info_of(enrolment.dev).extra_info);
  }
}

void tell_progress(bio_dev* dev, uint8_t press) {
  const int percent = press * 100 / kPresses;
  if (press == kEdgePress) {
    tell(dev, "采样进度:%d%%, 请您触摸手指边缘\n", percent);
  } else if (press == kPresses) {
    tell(dev, "采样进度:%d%%, 采样完成\n", percent);
  } else {
    tell(dev, "采样进度:%d%%, 正在进行下一次采样, 请按下并抬起您的手指.\n", percent);
  }
  bio_process_changed(dev, "enroll", percent, "enroll process");
}

// Tells the user what became of the press that the latest report is about.
void tell_press(bio_dev* dev, wrx::CallSite site) {
  const uint8_t press = fp_get_current_enroll_time();
  if (press == 0) return;
  const uint8_t feature = fp_get_enroll_create_feature_result(press);
  if (feature != PROT_RESP_OK) {
    const BadPress& row = bad_press(feature);
    tell_text(dev, gettext(row.message));
    if (&row == &kOtherBadPress) {
      WRX_LOG(site, row.logged, press, fp_get_enroll_result(press));
    } else {
      WRX_LOG(site, "%s", row.logged);
    }
  } else if (fp_get_enroll_result(press) != PROT_RESP_OK) {
    tell(dev, "注册失败,再触摸一次.\n");
  } else {
    tell_progress(dev, press);
  }
}

// Takes reports until the module finished. A bad press ends nothing: the module waits for another.
// 0, or -1 when the wait failed, which is then reported.
int32_t take_presses(const Enrolment& enrolment, wrx::CallSite site) {
  while (fp_auto_enroll(enrolment.timeout_ms) == 0) {
    if (fp_get_enroll_finish_flag() != 0) return 0;
    tell_press(enrolment.dev, site);
  }
  report_failed_wait(enrolment.dev, {.timeout = OPS_ENROLL_TIMEOUT, .other = OPS_ENROLL_ERROR});
  acknowledge_stop(enrolment.dev);
  fp_set_ctrlFlag(FP_CONTROL_FLAG_IDLE);
  bio_set_dev_status(enrolment.dev, DEVS_COMM_IDLE);
  return -1;
}

void store_feature(const Enrolment& enrolment) {
  const bio_dev* dev = enrolment.dev;
  const wrx::operations::FeatureList feature(bio_sto_new_feature_info(
      enrolment.uid, dev->bioinfo.biotype, dev->device_name, enrolment.index, enrolment.name));
  feature_sample* sample = bio_sto_new_feature_sample(-1, nullptr);
  char no_data[1024] = {};
  sample->no = enrolment.slot;
  sample->data = no_data;
  feature.head()->sample = sample;
  {
    const wrx::operations::Database db;
    bio_sto_set_feature_info(db.get(), feature.head());
  }
  sample->data = nullptr;  // not the list's to free
}

// From an enrolment that may go ahead to its end.
int32_t enroll_into_slot(const Enrolment& enrolment, wrx::CallSite site) {
  bio_dev* dev = enrolment.dev;
  if (fp_auto_enroll_start(enrolment.slot, kPresses, 0) != 0) return refuse_start(dev);
  tell(dev, "注册开始,请触摸指纹.\n");
  if (take_presses(enrolment, site) != 0) return -1;
  fp_cancel();
  store_feature(enrolment);
  report(dev, OPS_ENROLL_SUCCESS);
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  bio_print_debug("bio_drv_demo_ops_enroll end\n");
  return 0;
}

}  // namespace

int32_t wrx7700_ops_enroll(bio_dev* dev, [[maybe_unused]] OpsActions action, int32_t uid,
                           int32_t idx, char* bio_idx_name) {
  bio_print_debug("bio_drv_demo_ops_enroll start\n");
  if (wrx::operations::disabled(dev)) {
    bio_set_dev_status(dev, DEVS_COMM_DISABLE);
    wrx::operations::report_absent(dev);
    return -1;
  }
  const int32_t index = idx == -1 ? bio_common_get_empty_index(dev, uid, 0, -1) : idx;
  Enrolment enrolment = {dev, uid, index, bio_idx_name, wrx::operations::operation_timeout(dev), 0};
  bio_set_dev_status(dev, DEVS_ENROLL_DOING);
  WRX_LOG(here(), "uid = %d, idx = %d, bio_idx_name = %s\r\n", uid, index,
          bio_idx_name != nullptr ? bio_idx_name : "(null)");
  fp_read_invalid_pkg(kStalePackets);
  WRX_PRINT(here(), "wrx7700_ops_delete_invalid_feature.\r");
  wrx7700_ops_delete_invalid_feature(dev);
  if (wrx_get_current_user_fingerprint_num(dev, uid) >= kMaxFeaturesOfUser) return refuse_full(dev);
  check_duplicates(enrolment, here());
  enrolment.slot = fp_get_empty_enroll_id();
  WRX_LOG(here(), "enroll_id = %d\r\n", enrolment.slot);
  if (enrolment.slot > kLastStorableSlot) return refuse_full(dev);
  return enroll_into_slot(enrolment, here());
}
