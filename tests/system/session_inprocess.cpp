// SPDX-License-Identifier: LGPL-2.1-or-later
// The session with the module behind libusb's names, and the wire written down: a line a transfer
// that moved anything, as the guest prints what the kernel's monitor saw. Direction, endpoint,
// bytes moved, and the first 32 of them, for the monitor shows no more:
//
//   out 1 8 5553424300…        in 1 12 ef01ffff…
#include <fmt/core.h>

#include <memory>

#include "module/usb/bus.h"
#include "session.h"

namespace wrx::system_test {
namespace {

namespace wm = wrx_module;

struct Closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

void write_record(std::FILE* file, const wm::TraceRecord& record) {
  const bool out = record.kind == wm::TraceKind::out;
  if ((!out && record.kind != wm::TraceKind::in) || record.moved == 0) return;
  fmt::print(file, "{} {} {} ", out ? "out" : "in", record.endpoint & 0xF, record.moved);
  for (size_t i = 0; i < record.bytes.size() && i < 32; ++i)
    fmt::print(file, "{:02x}", record.bytes[i]);
  fmt::print(file, "\n");
  std::fflush(file);
}

}  // namespace

bool place_module(const std::string& script, const std::string& wire) {
  static const std::unique_ptr<std::FILE, Closer> file(std::fopen(wire.c_str(), "w"));
  wm::ParsedScript parsed = wm::parse_script(script);
  if (file == nullptr || parsed.error) return false;
  wm::bus().set_trace([](const wm::TraceRecord& record) { write_record(file.get(), record); });
  static wm::Device device(wm::bus().clock(), wm::Settings{});
  wm::bus().attach(device);
  wm::bus().play(device, std::move(parsed.script));
  return true;
}

}  // namespace wrx::system_test
