// SPDX-License-Identifier: LGPL-2.1-or-later
// The framework's words, set in one place.
#include "operations/host_words.h"

#include <glib.h>
#include <libintl.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "base/stop_flags.h"
#include "protocol/packet.h"
#include "protocol/procedures.h"
#include "records/driver_info.h"

namespace wrx::operations {

bool disabled(const bio_dev* dev) {
  return dev->enable == 0;
}

int32_t operation_timeout(bio_dev* dev) {
  return std::min(info_of(dev).timeoutMS, static_cast<int32_t>(bio_get_ops_timeout_ms()));
}

// Notifications carry the numbers of the results they go with.
static_assert(int{NOTIFY_ENROLL_SUCCESS} == OPS_ENROLL_SUCCESS &&
              int{NOTIFY_ENROLL_FAIL} == OPS_ENROLL_FAIL &&
              int{NOTIFY_ENROLL_ERROR} == OPS_ENROLL_ERROR &&
              int{NOTIFY_ENROLL_TIMEOUT} == OPS_ENROLL_TIMEOUT &&
              int{NOTIFY_VERIFY_MATCH} == OPS_VERIFY_MATCH &&
              int{NOTIFY_VERIFY_TIMEOUT} == OPS_VERIFY_TIMEOUT &&
              int{NOTIFY_IDENTIFY_MATCH} == OPS_IDENTIFY_MATCH &&
              int{NOTIFY_SEARCH_MATCH} == OPS_SEARCH_MATCH &&
              int{NOTIFY_CLEAN_SUCCESS} == OPS_CLEAN_SUCCESS);

void report(bio_dev* dev, int outcome) {
  bio_set_ops_abs_result(dev, outcome);
  bio_set_notify_abs_mid(dev, outcome);
}

void report_absent(bio_dev* dev) {
  bio_set_ops_result(dev, OPS_COMM_ERROR);
  bio_set_notify_abs_mid(dev, NOTIFY_COMM_DISABLE);
}

void tell_text(bio_dev* dev, const char* text) {
  g_strlcpy(info_of(dev).extra_info, text, kExtraInfoSize);
  bio_set_notify_abs_mid(dev, MID_EXTENDED_MESSAGE);
  show_notification(dev);
}

void tell(bio_dev* dev, const char* format, ...) {
  char text[kExtraInfoSize];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, gettext(format), arguments);
  va_end(arguments);
  tell_text(dev, text);
}

const char* notification_text(bio_dev* dev) {
  const char* text = bio_get_notify_mid_mesg(dev);
  return text != nullptr ? text : "(null)";
}

void show_notification(bio_dev* dev) {
  bio_print_debug("%s\n", notification_text(dev));
}

void report_failed_wait(bio_dev* dev, const FailedWait& outcomes) {
  const int32_t flag = fp_get_ctrlFlag();
  if (flag == FP_CONTROL_FLAG_DEV_NOT_EXIST) {
    report_absent(dev);
    return;
  }
  fp_cancel();
  if (flag == FP_CONTROL_FLAG_STOPPED) {
    bio_set_ops_result(dev, OPS_COMM_STOP_BY_USER);
    bio_set_notify_mid(dev, NOTIFY_COMM_STOP_BY_USER);
  } else if (flag == FP_CONTROL_FLAG_TIMEOUT) {
    report(dev, outcomes.timeout);
  } else if (outcomes.other != 0) {
    report(dev, outcomes.other);
  }
}

void acknowledge_stop(bio_dev* dev) {
  turn_flag(info_of(dev).ctrlFlag, kStopRequested, kStopAcknowledged);
}

}  // namespace wrx::operations
