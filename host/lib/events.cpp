// SPDX-License-Identifier: LGPL-2.1-or-later
// The host's hook.

#include "events.h"

#include <mutex>

namespace wrx::framework {
namespace {

struct Hook {
  bio_hook call = nullptr;
  void* context = nullptr;
};

std::mutex hook_guard;
Hook hook;

Hook current_hook() {
  const std::lock_guard lock(hook_guard);
  return hook;
}

thread_local int quiet_depth = 0;

}  // namespace

bool emit(bio_dev* dev, bio_event event, int number, const char* text) {
  const Hook to = current_hook();
  if (to.call == nullptr) return false;
  to.call(to.context, dev, event, number, text);
  return true;
}

QuietLog::QuietLog() {
  ++quiet_depth;
}
QuietLog::~QuietLog() {
  --quiet_depth;
}
bool QuietLog::active() {
  return quiet_depth > 0;
}

}  // namespace wrx::framework

extern "C" void bio_host_set_hook(bio_hook hook, void* context) {
  using namespace wrx::framework;
  const std::lock_guard lock(hook_guard);
  wrx::framework::hook = {hook, context};
}
