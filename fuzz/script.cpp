// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's little language: any text is a script or an error with a place.
#include "module/script.h"
#include "fuzz/scratch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const wrx_module::ParsedScript parsed =
      wrx_module::parse_script({reinterpret_cast<const char*>(data), size});
  if (parsed.error && (parsed.error->line < 1 || parsed.error->column < 1 ||
                       parsed.error->message.empty() || !parsed.script.steps.empty())) {
    std::abort();
  }
  return 0;
}
