// SPDX-License-Identifier: LGPL-2.1-or-later
// The service log. A line goes to the hook, or, without one, to standard error when it is weighty
// enough; never to standard output, which belongs to the program that hosts the library.

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "events.h"

namespace wrx::framework {
namespace {

enum Level : int { kDebug = 0, kInfo, kError, kNothing };

std::atomic<int> stderr_level = kError;

struct Freed {
  void operator()(char* text) const { g_free(text); }
};

void write_line(Level level, const char* format, va_list arguments) {
  if (QuietLog::active()) return;
  const std::unique_ptr<char, Freed> line(g_strdup_vprintf(format, arguments));
  if (emit(nullptr, BIO_EVENT_LOG, level, line.get())) return;
  if (level < stderr_level) return;
  const std::size_t length = std::strlen(line.get());
  const bool ended = length > 0 && line.get()[length - 1] == '\n';
  std::fprintf(stderr, "%s%s", line.get(), ended ? "" : "\n");
}

}  // namespace
}  // namespace wrx::framework

using wrx::framework::write_line;

extern "C" {

void bio_print_debug(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(wrx::framework::kDebug, format, arguments);
  va_end(arguments);
}

void bio_print_info(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(wrx::framework::kInfo, format, arguments);
  va_end(arguments);
}

void bio_print_error(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(wrx::framework::kError, format, arguments);
  va_end(arguments);
}

void bio_host_set_log_level(int level) {
  wrx::framework::stderr_level =
      std::clamp<int>(level, wrx::framework::kDebug, wrx::framework::kNothing);
}

}  // extern "C"
