// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's little language: any text is a script or an error with a place, and a script that
// is one can be played.
#include "fuzz/scratch.h"
#include "module/play/stand.h"
#include "support/virtual_clock.h"

namespace {

constexpr int64_t kPlayedUs = 120'000'000;

void play(wrx_module::Script script) {
  wrx_test::VirtualClock clock;
  wrx_module::Stand stand(clock, {}, wrx_module::factory_memory(100));
  stand.play(std::move(script));
  while (stand.next_event_us() < kPlayedUs) {
    clock.sleep_us(std::max<int64_t>(stand.next_event_us() - clock.now_us(), 1000));
    stand.advance();
  }
  stand.report();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  wrx_module::ParsedScript parsed =
      wrx_module::parse_script({reinterpret_cast<const char*>(data), size});
  if (parsed.error && (parsed.error->line < 1 || parsed.error->column < 1 ||
                       parsed.error->message.empty() || !parsed.script.steps.empty())) {
    std::abort();
  }
  if (!parsed.error) play(std::move(parsed.script));
  return 0;
}
