// SPDX-License-Identifier: LGPL-2.1-or-later
// Preloaded into the service: its sleeps cost no time, and are written down, a line each: who
// sleeps (the library's or program's file) and how many microseconds. Their sum is the virtual time
// that has passed.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

void note(const void* caller, long long us) {
  static const char* const path = std::getenv("WRX_SLEEPS");
  if (path == nullptr) std::abort();
  static const int file = open(path, O_WRONLY | O_CREAT | O_APPEND, 0600);
  Dl_info who = {};
  const char* name = dladdr(caller, &who) != 0 ? who.dli_fname : "?";
  if (const char* slash = std::strrchr(name, '/')) name = slash + 1;
  char line[128];
  const int length = std::snprintf(line, sizeof line, "%s %lld\n", name, us);
  if (write(file, line, static_cast<size_t>(length)) != length) std::abort();
}

long long us_of(const timespec* span) {
  return span->tv_sec * 1'000'000LL + span->tv_nsec / 1000;
}

}  // namespace

extern "C" {

int usleep(useconds_t us) {
  note(__builtin_return_address(0), us);
  return 0;
}

int nanosleep(const timespec* span, timespec*) {
  note(__builtin_return_address(0), us_of(span));
  return 0;
}

int clock_nanosleep(clockid_t, int, const timespec* span, timespec*) {
  note(__builtin_return_address(0), us_of(span));
  return 0;
}

}  // extern "C"
