// SPDX-License-Identifier: LGPL-2.1-or-later
// The log: a file that is opened, appended to and closed for every line, so that it stays whole if
// the process dies and may be removed while the service runs; and standard output.
#include "base/log.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "base/paths.h"
#include "base/units.h"

using wrx::frame::here;

namespace {

constexpr std::size_t kLineBuffer = wrx::kMaxLine + 1;
constexpr std::size_t kTimeBuffer = 100;
constexpr std::size_t kBytesPerRow = 32;
constexpr char kDigits[] = "0123456789abcdef";

// The switch and the descriptor of the file while a write is in progress; 0 is "not open". The
// stop callback logs from its own thread, so the descriptor belongs to whoever holds the lock.
std::atomic<int32_t> ENABLE_LOG_FILE{0};
int32_t logfileFD = 0;
pthread_mutex_t logfile_lock = PTHREAD_MUTEX_INITIALIZER;

class LogFileLock {
 public:
  LogFileLock() { pthread_mutex_lock(&logfile_lock); }
  ~LogFileLock() { pthread_mutex_unlock(&logfile_lock); }
  LogFileLock(const LogFileLock&) = delete;
  LogFileLock& operator=(const LogFileLock&) = delete;
};

int32_t open_locked() {
  if (logfileFD > 0) close(logfileFD);
  logfileFD = open(wrx::paths::kLogFile, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (logfileFD >= 0) return 0;
  std::printf("%s open fail \n", wrx::paths::kLogFile);
  logfileFD = 0;
  return -1;
}

void close_locked() {
  close(logfileFD);
  logfileFD = 0;
}

// A descriptor numbered 0 counts as not open.
bool descriptor_missing(wrx::CallSite site) {
  if (logfileFD != 0 && logfileFD != -1) return false;
  WRX_PRINT(site, "the logfileFD not open, ERROR !!!");
  logfileFD = 0;
  return true;
}

// "HH:MM:SS ", local time; empty if the clock cannot be read.
void format_time(char (&text)[kTimeBuffer]) {
  const time_t now = time(nullptr);
  struct tm local {};
  text[0] = '\0';
  tzset();  // a service outlives a change of the time zone, which localtime_r does not look for
  if (localtime_r(&now, &local) == nullptr) return;
  std::snprintf(text, sizeof text, "%02d:%02d:%02d ", local.tm_hour, local.tm_min, local.tm_sec);
}

// Appends the time, if wanted, and the bytes in one write.
int32_t append(const uint8_t* buf, int32_t len, bool withTime, wrx::CallSite site) {
  const LogFileLock lock;
  if (ENABLE_LOG_FILE == 0) return 0;
  if (open_locked() != 0) return -1;
  char text[kTimeBuffer] = "";
  if (withTime) format_time(text);
  if (buf == nullptr || len <= 0) {
    WRX_PRINT(site, "the param is ERROR !!!");
    close_locked();
    return -1;
  }
  if (descriptor_missing(site)) return -1;
  const struct iovec pieces[] = {
      {text, std::strlen(text)},
      {const_cast<uint8_t*>(buf), static_cast<std::size_t>(len)},
  };
  // A full disk must not stop an operation: the console has the line in any case.
  [[maybe_unused]] const ssize_t written = writev(logfileFD, pieces, 2);
  close_locked();
  return 0;
}

std::size_t format_prefix(char (&line)[kLineBuffer], wrx::CallSite site) {
  const int length =
      std::snprintf(line, sizeof line, "[%s:%d:%s] ", site.unit, site.line, site.function);
  return std::min(static_cast<std::size_t>(std::max(length, 0)), wrx::kMaxLine);
}

// One dump as text, written out a buffer at a time.
class DumpText {
 public:
  explicit DumpText(bool breaks) : breaks_(breaks) {}

  // Text of up to `count` bytes from `bytes[first]`; returns how many bytes it holds.
  std::size_t fill(const uint8_t* bytes, std::size_t first, std::size_t count) {
    length_ = 0;
    std::size_t done = 0;
    for (; done < std::min(count, kBytesPerRow); ++done) {
      const uint8_t byte = bytes[first + done];
      text_[length_++] = kDigits[byte >> 4];
      text_[length_++] = kDigits[byte & 0xF];
      text_[length_++] = ' ';
    }
    if (breaks_ && done == kBytesPerRow) text_[length_++] = '\n';
    return done;
  }
  const char* text() const { return text_; }
  std::size_t length() const { return length_; }

 private:
  bool breaks_;
  char text_[kBytesPerRow * 3 + 2];
  std::size_t length_ = 0;
};

void dump_to_log(const uint8_t* bytes, std::size_t count, const wrx::DumpStyle& style) {
  const LogFileLock lock;
  if (ENABLE_LOG_FILE == 0 || open_locked() != 0) return;
  if (descriptor_missing(here(__builtin_LINE(), "wrx_print_log"))) return;
  DumpText row(style.breaksInLog);
  [[maybe_unused]] ssize_t written = 0;
  for (std::size_t done = 0; done < count;) {
    done += row.fill(bytes, done, count - done);
    written = write(logfileFD, row.text(), row.length());
  }
  written = write(logfileFD, style.end, std::strlen(style.end));
  close_locked();
}

}  // namespace

int32_t enable_printf_log(int32_t flag) {
  ENABLE_LOG_FILE = flag;
  return 0;
}

int32_t wrx_open_log_file(void) {
  const LogFileLock lock;
  return ENABLE_LOG_FILE == 0 ? 0 : open_locked();
}

int32_t wrx_print_log(const uint8_t* buf, int32_t len) {
  return append(buf, len, false, here());
}

int32_t wrx_print_log_time(const uint8_t* buf, int32_t len) {
  return append(buf, len, true, here());
}

void WRX_LOG(wrx::CallSite site, const char* format, ...) {
  char line[kLineBuffer];
  const std::size_t prefix = format_prefix(line, site);
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line + prefix, sizeof line - prefix, format, arguments);
  va_end(arguments);
  wrx_print_log_time(reinterpret_cast<const uint8_t*>(line),
                     static_cast<int32_t>(std::strlen(line)));
  std::fputs(line, stdout);
}

void WRX_PRINT(wrx::CallSite site, const char* message) {
  std::printf("[%s:%d:%s] %s\n", site.unit, site.line, site.function, message);
}

namespace wrx {

namespace {

// Prefix and text leave in one call, so that a line of the other thread cannot come between.
void print_behind(const char* prefix, const char* format, va_list arguments) {
  flockfile(stdout);
  std::fputs(prefix, stdout);
  std::vprintf(format, arguments);
  funlockfile(stdout);
}

}  // namespace

void print_text(CallSite site, const char* format, ...) {
  char prefix[kLineBuffer];
  format_prefix(prefix, site);
  va_list arguments;
  va_start(arguments, format);
  print_behind(prefix, format, arguments);
  va_end(arguments);
}

void print_line(CallSite site, const char* format, ...) {
  char prefix[kLineBuffer];
  std::snprintf(prefix, sizeof prefix, "%s:%d:%s: ", site.unit, site.line, site.function);
  va_list arguments;
  va_start(arguments, format);
  print_behind(prefix, format, arguments);
  va_end(arguments);
}

void print_function(CallSite site, const char* format, ...) {
  char prefix[kLineBuffer];
  std::snprintf(prefix, sizeof prefix, "%s: ", site.function);
  va_list arguments;
  va_start(arguments, format);
  print_behind(prefix, format, arguments);
  va_end(arguments);
}

void print_piece(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
}

void dump(const uint8_t* bytes, std::size_t count, const DumpStyle& style) {
  if (style.toLogFile) dump_to_log(bytes, count, style);
  flockfile(stdout);
  DumpText row(style.breaksOnConsole);
  for (std::size_t done = 0; done < count;) {
    done += row.fill(bytes, done, count - done);
    std::fwrite(row.text(), 1, row.length(), stdout);
  }
  std::fputs(style.end, stdout);
  funlockfile(stdout);
}

}  // namespace wrx
