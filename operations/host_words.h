// SPDX-License-Identifier: LGPL-2.1-or-later
// How outcomes reach the framework: its status, result and notification words, and the messages to
// the user. Hidden; shared by the operations.
#pragma once

#include <cstdint>

#include "records/framework.h"

namespace wrx::operations {

/// Whether the framework switched the device off.
bool disabled(const bio_dev* dev);

/// The time limit of an operation, milliseconds: the driver's, or the framework's if smaller.
int32_t operation_timeout(bio_dev* dev);

/// Sets result and notification to the same operation number.
void report(bio_dev* dev, int outcome);

/// The module is gone, or the device switched off: result 2 with notification 5.
void report_absent(bio_dev* dev);

/// Announces a text in the user's language as an extended notification.
void tell_text(bio_dev* dev, const char* text);

/// Translates and formats a message, and announces it likewise.
[[gnu::format(printf, 2, 3)]] void tell(bio_dev* dev, const char* format, ...);

/// The framework's text for the notification; never null.
const char* notification_text(bio_dev* dev);

/// Writes the message that the notification now stands for to the framework's logger.
void show_notification(bio_dev* dev);

/// What an operation reports when its wait for the module failed.
struct FailedWait {
  int timeout;
  int other;  ///< 0: nothing
};

/// Reports a failed wait by the control flag: 1 stopped, 2 timed out, 3 no module, else `other`.
/// The module's procedure is cancelled unless the module is gone.
void report_failed_wait(bio_dev* dev, const FailedWait& outcomes);

/// Tells a waiting stop callback that the operation has ended.
void acknowledge_stop(bio_dev* dev);

}  // namespace wrx::operations
