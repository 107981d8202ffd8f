// SPDX-License-Identifier: LGPL-2.1-or-later
// The framework's events, sorted.

#include "host/service/reader/driver_events.h"

#include <cstdio>

namespace wrx::service {
namespace {

constexpr int kDriversOwnText = 9;

void write_log(int level, const std::string& line) {
  static constexpr const char* kLevels[] = {"debug", "info", "error"};
  std::printf("<%s> %s%s", kLevels[level], line.c_str(), line.ends_with('\n') ? "" : "\n");
}

}  // namespace

DriverEvents::DriverEvents() {
  bio_host_set_hook(&DriverEvents::hear, this);
}

DriverEvents::~DriverEvents() {
  bio_host_set_hook(nullptr, nullptr);
}

void DriverEvents::during(const Listener& listener, const std::function<void()>& operation) {
  listener_ = &listener;
  operation();
  listener_ = nullptr;
}

void DriverEvents::hear(void* self, bio_dev*, bio_event event, int number, const char* text) {
  const auto& events = *static_cast<DriverEvents*>(self);
  switch (event) {
    case BIO_EVENT_STATUS:
    case BIO_EVENT_RESULT:
      break;  // asked for when the operation has ended
    case BIO_EVENT_NOTIFY:
      if (number == kDriversOwnText && events.listener_ != nullptr) events.listener_->message(text);
      break;
    case BIO_EVENT_PROGRESS:
      if (events.listener_ != nullptr) events.listener_->progress(number);
      break;
    case BIO_EVENT_STORE_ERROR:
      std::fprintf(stderr, "wrxd: database: %s\n", text);
      break;
    case BIO_EVENT_LOG:
      write_log(number, text);
      break;
  }
}

}  // namespace wrx::service
