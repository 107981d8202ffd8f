// SPDX-License-Identifier: LGPL-2.1-or-later
//
// One module for a program that loads it at run time, with its memory in a file.
#include "module/usb/simulate.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "module/device/storage.h"
#include "module/play/script.h"
#include "module/usb/bus.h"

namespace {

namespace wm = wrx_module;

// A service that ends may still be saving when the next one is started already.
constexpr std::chrono::seconds kHandOver{3};

struct Simulation {
  std::unique_ptr<wm::Device> device;
  std::string memory_file;  // empty: forgotten at the end
  wm::MemoryLock lock;      // of that file
};

std::mutex mutex;
std::optional<Simulation> running;

void put(const std::string& text, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return;
  const size_t count = std::min(text.size(), size - 1);
  std::memcpy(buffer, text.data(), count);
  buffer[count] = '\0';
}

int fail(const std::string& message, char* error, size_t size) {
  put(message, error, size);
  return -1;
}

// No exception may reach a caller written in C.
template <typename F>
int guarded(char* error, size_t size, F work) {
  try {
    const std::lock_guard lock(mutex);
    return work();
  } catch (const std::exception& failure) {
    return fail(failure.what(), error, size);
  }
}

nlohmann::json report_of(wm::Device& device) {
  const wm::Memory& memory = device.memory();
  const auto presence = device.present();
  nlohmann::json slots = nlohmann::json::array();
  for (const auto& [slot, finger] : memory.templates) {
    slots.push_back({{"slot", slot}, {"finger", finger}});
  }
  nlohmann::json report = {
      {"present", presence.has_value()},
      {"version", memory.version},
      {"version_text", wm::version_text(memory.version)},
      {"capacity", device.settings().identity.capacity},
      {"slots", std::move(slots)},
      {"flash",
       {{"bytes", memory.flash.size()},
        {"crc", wm::flash_crc(memory.flash)},
        {"bootable", wm::bootable(memory)}}},
      {"presses_left", device.sensor().queued()},
      {"transfers", wm::bus().faults().count()},
  };
  report["mode"] = !presence                                 ? "absent"
                   : presence->mode == wm::Mode::application ? "application"
                                                             : "bootloader";
  return report;
}

}  // namespace

extern "C" {

int wrx_simulate_start(const char* script, const char* memory_file, char* error,
                       size_t error_size) {
  return guarded(error, error_size, [&]() -> int {
    if (running) return fail("a module is running already", error, error_size);
    wm::ParsedScript parsed = wm::parse_script(script == nullptr ? "" : script);
    if (parsed.error) return fail(parsed.error->text(), error, error_size);

    const wm::Settings settings = wm::Settings::lifelike();
    wm::Memory memory = wm::factory_memory(settings.identity.version);
    std::string reason;
    wm::MemoryLock lock;
    if (memory_file != nullptr &&
        (!lock.take(memory_file, reason, kHandOver) ||
         wm::load_memory(memory_file, memory, reason) == wm::LoadResult::failed)) {
      return fail(reason, error, error_size);
    }
    wm::bus().reset();
    running.emplace(Simulation{{}, memory_file == nullptr ? "" : memory_file, std::move(lock)});
    running->device = std::make_unique<wm::Device>(wm::bus().clock(), settings, std::move(memory));
    wm::bus().attach(*running->device);
    wm::bus().play(*running->device, std::move(parsed.script));
    return 0;
  });
}

int wrx_simulate_play(const char* script, char* error, size_t error_size) {
  return guarded(error, error_size, [&]() -> int {
    if (!running) return fail("no module is running", error, error_size);
    wm::ParsedScript parsed = wm::parse_script(script == nullptr ? "" : script);
    if (parsed.error) return fail(parsed.error->text(), error, error_size);
    wm::bus().play(*running->device, std::move(parsed.script));
    return 0;
  });
}

int wrx_simulate_report(char* text, size_t size) {
  return guarded(nullptr, 0, [&]() -> int {
    if (!running) return -1;
    std::string report;
    wm::bus().look([&] { report = report_of(*running->device).dump(); });
    put(report, text, size);
    return static_cast<int>(report.size());
  });
}

int wrx_simulate_finish(char* error, size_t error_size) {
  return guarded(error, error_size, [&]() -> int {
    if (!running) return fail("no module is running", error, error_size);
    wm::bus().detach(*running->device);
    const Simulation ended = std::move(*running);
    running.reset();
    std::string reason;
    if (!ended.memory_file.empty() &&
        !wm::save_memory(ended.memory_file, ended.device->memory(), reason)) {
      return fail(reason, error, error_size);
    }
    return 0;
  });
}

}  // extern "C"
