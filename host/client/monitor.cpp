// SPDX-License-Identifier: LGPL-2.1-or-later
// The framework's events, sorted.

#include "monitor.h"

#include <libintl.h>

#include <cstdio>

#include "host/common/driver_texts.h"
#include "words.h"

namespace wrx::client {
namespace {

constexpr int kDriversOwnText = 9;

void write_log(int level, const char* text) {
  static constexpr const char* kLevels[] = {"debug", "info", "error"};
  const std::string line = text;
  std::printf("<%s> %s%s", kLevels[level], line.c_str(), line.ends_with('\n') ? "" : "\n");
}

}  // namespace

Monitor::Monitor(Output& output) : output_(output) {
  bio_host_set_hook(&Monitor::hear, this);
}

Monitor::~Monitor() {
  bio_host_set_hook(nullptr, nullptr);
}

std::string Monitor::storeError() const {
  const std::lock_guard lock(guard_);
  return store_error_;
}

void Monitor::hear(void* self, bio_dev*, bio_event event, int number, const char* text) {
  auto& monitor = *static_cast<Monitor*>(self);
  switch (event) {
    case BIO_EVENT_STATUS:
    case BIO_EVENT_RESULT:
      break;  // asked for when the operation has ended
    case BIO_EVENT_NOTIFY:
      if (number == kDriversOwnText) monitor.driverSays(number, text);
      break;
    case BIO_EVENT_PROGRESS:
      monitor.output_.progress(N_("press"), (number * host::kEnrolStages + 99) / 100,
                               host::kEnrolStages);
      break;
    case BIO_EVENT_STORE_ERROR: {
      const std::lock_guard lock(monitor.guard_);
      if (monitor.store_error_.empty()) monitor.store_error_ = text;
      break;
    }
    case BIO_EVENT_LOG:
      write_log(number, text);
      break;
  }
}

void Monitor::driverSays(int number, const std::string& text) {
  output_.driverSays(number, text);
  if (text == gettext(host::driver_text::kEnrolStarted)) enrolling_ = true;
  if (text == gettext(host::driver_text::kFull))
    (unanswered_ && unanswered_() ? silent_ : full_) = true;
  if (!enrolling_ && !duplicate_ && text == gettext(host::driver_text::kDuplicate)) {
    duplicate_ = true;
    if (on_duplicate_) on_duplicate_();
  }
}

}  // namespace wrx::client
