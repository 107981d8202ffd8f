// SPDX-License-Identifier: LGPL-2.1-or-later
// Commands for the service engineer: one question each to the module, through the driver's own
// procedures. Most of these forgive a module that says nothing, so the confirm code of the last
// answer is looked at as well.

#include <algorithm>
#include <chrono>
#include <span>
#include <thread>

#include "commands.h"
#include "fingers.h"
#include "picture.h"
#include "protocol/packet.h"
#include "protocol/procedures.h"
#include "records/fp_device_param.h"
#include "slots.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Failure;
using host::Outcome;

constexpr std::chrono::milliseconds kLookAgain{100};
constexpr std::chrono::milliseconds kWaitForFinger{10000};
static_assert(wrx::kImageSize == std::size_t{kFrameWidth} * kFrameHeight);

/// An open module, asked through the plug-in. On the worker thread.
class Questions {
 public:
  explicit Questions(const host::PluginHost& plugin)
      : state(*plugin.function<FP_DEVICE_PARAM_STRUCT>("fp_device_param")), plugin_(plugin) {}

  /// The confirm code that the procedure ended with; kNoAnswer when none came.
  uint8_t ask(const char* procedure) const {
    const int32_t result = plugin_.function<int32_t()>(procedure)();
    const uint8_t code = plugin_.function<decltype(fp_resp_type_get)>("fp_resp_type_get")();
    return result != 0 && code == PROT_RESP_OK ? kNoAnswer : code;
  }
  /// Throws host::Failure unless the module answers and agrees.
  void demand(const char* procedure) const { check(ask(procedure)); }

  static void check(uint8_t code) {
    if (code == kNoAnswer) throw Failure(Outcome::Failed, tr("the module does not answer"));
    if (code != PROT_RESP_OK)
      throw Failure(Outcome::Failed, tr("the module refuses, with code {}", code));
  }

  FP_DEVICE_PARAM_STRUCT& state;

 private:
  const host::PluginHost& plugin_;
};

/// Puts questions to the module while it is open for them.
void ask_module(Client& client, const std::function<void(Questions&)>& questions) {
  client.run([&] {
    const host::OpenDevice opened(client.plugin());
    Questions asked(client.plugin());
    questions(asked);
  });
}

std::string hex(std::span<const uint8_t> bytes) {
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::string printable(std::span<const uint8_t> bytes) {
  std::string text;
  for (const uint8_t byte : bytes)
    text += byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '.';
  return text;
}

std::string hex_lines(std::span<const uint8_t> bytes) {
  constexpr std::size_t kLine = 16;
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += kLine) {
    const auto line = bytes.subspan(at, std::min(kLine, bytes.size() - at));
    text += fmt::format("  {:04x}  {:02x}  {}\n", at, fmt::join(line, " "), printable(line));
  }
  return text;
}

/// Looks again and again until a finger is on the sensor. Time-out and stop are exceptions.
void capture(Client& client, Questions& module) {
  using Clock = std::chrono::steady_clock;
  const auto limit = client.options().timeout_ms
                         ? std::chrono::milliseconds(*client.options().timeout_ms)
                         : kWaitForFinger;
  const auto end = Clock::now() + limit;
  for (;;) {
    const uint8_t code = module.ask("fp_get_fprint_img");
    if (code != PROT_RESP_NO_FINGER) return Questions::check(code);
    if (client.stopRequested()) throw Failure(Outcome::Stopped, tr("stopped"));
    if (Clock::now() >= end) throw Failure(Outcome::TimedOut, tr("no finger came in time"));
    std::this_thread::sleep_for(kLookAgain);
  }
}

}  // namespace

Report module_handshake(Client& client) {
  bool alive = false;
  ask_module(client, [&](Questions& module) {
    module.demand("fp_handshake");
    alive = module.state.handshake_state == 1;
  });
  if (!alive) return {Outcome::Failed, tr("the module does not answer"), "", {}};
  return {Outcome::Success, tr("The module answers."), "", {{"alive", true}}};
}

Report module_serial(Client& client) {
  std::vector<uint8_t> serial;
  ask_module(client, [&](Questions& module) {
    module.demand("fp_get_chip_serial_num");
    const auto& state = module.state;
    serial.assign(state.chip_serial_num, state.chip_serial_num + state.chip_serial_num_len);
  });
  return {Outcome::Success,
          tr("The serial number is {} ({}).", hex(serial), printable(serial)),
          "",
          {{"serial", hex(serial)}, {"text", printable(serial)}}};
}

Report module_parameters(Client& client) {
  FP_SYS_PARAM_STRUCT found{};
  ask_module(client, [&](Questions& module) {
    module.demand("fp_read_sys_param");
    found = module.state.sys_param;
  });
  return {Outcome::Success,
          tr("The module tells its parameters."),
          tr("Sensor:    type {}\nCapacity:  {} templates\nSecurity:  level {}\nAddress:   "
             "0x{:08x}\n",
             found.sensor_type, found.fp_database_size, found.security_level, found.device_addr),
          {{"sensor_type", found.sensor_type},
           {"capacity", found.fp_database_size},
           {"security_level", found.security_level},
           {"address", found.device_addr}}};
}

Report module_info_page(Client& client) {
  std::vector<uint8_t> page;
  ask_module(client, [&](Questions& module) {
    module.demand("fp_read_flash_info_page");
    page.assign(std::begin(module.state.flash_info_page), std::end(module.state.flash_info_page));
  });
  return {Outcome::Success,
          tr("The information page has {} bytes.", page.size()),
          hex_lines(page),
          {{"bytes", hex(page)}}};
}

Report module_count(Client& client) {
  int count = 0;
  ask_module(client, [&](Questions& module) {
    module.demand("fp_get_valid_template_num");
    count = module.state.valid_template_num;
  });
  return {Outcome::Success,
          tr_n("The module holds {} template.", "The module holds {} templates.",
               static_cast<std::size_t>(count), count),
          "",
          {{"count", count}}};
}

Report module_slots(Client& client) {
  const auto records = client.fingers(kEveryUser, 0, kNoUpperEnd);
  SlotMap occupied;
  ask_module(client, [&](Questions&) { occupied = read_slots(client.plugin()); });
  std::vector<std::size_t> taken_slots;
  for (std::size_t slot = 0; slot < kPageSlots; ++slot)
    if (occupied[slot]) taken_slots.push_back(slot);
  return {Outcome::Success,
          tr_n("{} slot is taken.", "{} slots are taken.", taken_slots.size(), taken_slots.size()),
          drawing(occupied, records),
          {{"taken", taken_slots}, {"first", kFirstSlot}, {"last", kLastSlot}}};
}

Report module_image(Client& client) {
  const std::string& path = client.options().output;
  std::vector<uint8_t> image;
  ask_module(client, [&](Questions& module) {
    // No frame is all black: one that is did not arrive.
    std::ranges::fill(module.state.img_data, uint8_t{0});
    if (client.options().at_once) {
      module.demand("fp_force_get_fprint_img");
    } else {
      client.output().note(tr("Touch the sensor."));
      capture(client, module);
    }
    image.assign(std::begin(module.state.img_data), std::end(module.state.img_data));
  });
  if (std::ranges::all_of(image, [](uint8_t grey) { return grey == 0; }))
    throw Failure(Outcome::Failed, tr("the image did not arrive"));
  write_picture(path, image);
  return {Outcome::Success,
          tr("The image is in {}; it shows a finger, so keep it to yourself.", path),
          "",
          {{"file", path}, {"width", kFrameWidth}, {"height", kFrameHeight}}};
}

}  // namespace wrx::client
