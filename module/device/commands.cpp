// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The application's commands: a handler and a row each.
#include <algorithm>
#include <array>

#include "module/device/application.h"
#include "module/device/image.h"

namespace wrx_module {
namespace {

// Confirm codes of the module.
constexpr uint8_t kOk = 0, kNoFinger = 2, kOutOfRange = 11, kNoLowPower = 18, kCommandError = 19,
                  kNoPicture = 21, kBadValue = 27, kLibraryFull = 31, kWrongAddress = 32,
                  kSlotTaken = 34, kPressesWrong = 37;

constexpr uint16_t kSlotsPerPage = 256;
constexpr uint8_t kPages = 4;
constexpr uint8_t kMostPresses = 15;
constexpr uint16_t kAnySlot = 0xFFFF;
constexpr uint32_t kEveryAddress = 0xFFFFFFFF;
constexpr size_t kShortestListReport = 6;
constexpr std::array<uint8_t, 8> kRebootKey = {0xC3, 0x3C, 0x96, 0x69, 0x4B, 0x52, 0x54, 0x4D};

uint16_t word(std::span<const uint8_t> bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

void put(std::vector<uint8_t>& out, uint32_t value, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
    out.push_back(static_cast<uint8_t>(value >> shift));
  }
}

using Params = std::span<const uint8_t>;

std::vector<uint8_t> power_up_report(const PowerUpSettings& found) {
  const bool match = found.outcome == PowerUpOutcome::match;
  auto payload = search_report(found.form, match ? found.slots : std::vector<uint16_t>{});
  // Shorter than this it would not be told from an answer of another kind.
  if (payload.size() < kShortestListReport) payload.resize(kShortestListReport);
  return payload;
}

}  // namespace

/// The handlers. Each answers through reply, and what comes after the answer through follow.
struct CommandSet {
  using App = Application;

  static void picture(App& app, std::optional<std::string> finger) {
    app.captured_ = std::move(finger);
    app.reply(kOk);
  }
  static void upload(App& app) {
    const bool marker = app.settings_.identity.image_check == ImageCheck::marker;
    app.follow(image_packet(finger_image(*app.captured_), marker));
  }

  static void get_image(App& app, Params) {
    auto finger = app.sensor_.finger_seen();
    const int64_t ready = app.sensor_.ready_us(app.now_us_, 0);
    if (!finger && ready <= app.now_us_) finger = app.sensor_.take().finger;
    if (!finger) return app.reply(kNoFinger);
    picture(app, std::move(finger));
  }
  static void up_image(App& app, Params) {
    if (!app.captured_) return app.reply(kNoPicture);
    app.reply(kOk);
    upload(app);
  }
  static void start_capture(App& app, Params) {
    picture(app, app.sensor_.finger_seen());
    upload(app);
  }

  static void del_char(App& app, Params p) {
    const uint32_t first = word(p, 0), count = word(p, 2);
    if (count == 0 || first + count > app.settings_.identity.capacity) {
      return app.reply(kOutOfRange);
    }
    std::erase_if(app.memory_.templates, [&](const auto& entry) {
      return entry.first >= first && entry.first < first + count;
    });
    app.reply(kOk);
  }
  static void empty(App& app, Params) {
    app.memory_.templates.clear();
    app.reply(kOk);
  }
  static void valid_template_num(App& app, Params) {
    std::vector<uint8_t> result;
    put(result, static_cast<uint32_t>(app.memory_.templates.size()), 2);
    app.reply(kOk, result);
  }
  static void read_index_table(App& app, Params p) {
    if (p[0] >= kPages) return app.reply(kOutOfRange);
    std::array<uint8_t, kSlotsPerPage / 8> page{};
    for (const auto& [slot, finger] : app.memory_.templates) {
      if (slot / kSlotsPerPage != p[0]) continue;
      uint8_t& byte = page[slot % kSlotsPerPage / 8];
      byte = static_cast<uint8_t>(byte | 1U << slot % 8);
    }
    app.reply(kOk, page);
  }

  static void read_sys_para(App& app, Params) {
    std::vector<uint8_t> result;
    put(result, app.settings_.identity.sensor_type, 2);
    put(result, app.settings_.identity.capacity, 2);
    put(result, app.settings_.identity.security_level, 2);
    put(result, app.memory_.chip_address, 4);
    app.reply(kOk, result);
  }
  static void set_chip_addr(App& app, Params p) {
    app.memory_.chip_address = uint32_t{word(p, 0)} << 16 | word(p, 2);
    app.reply(kOk);
  }
  static void read_info_page(App& app, Params) {
    app.reply(kOk);
    app.follow(packet(kTypeEnd, app.settings_.identity.info_page));
  }
  static void get_chip_sn(App& app, Params) { app.reply(kOk, app.settings_.identity.serial); }
  static void handshake(App& app, Params) { app.reply(kOk); }
  static void get_brightness(App& app, Params) {
    app.reply(kOk, std::array{app.settings_.identity.brightness});
  }
  static void set_brightness(App& app, Params p) {
    app.settings_.identity.brightness = p[0];
    app.reply(kOk);
  }
  static void pc_state(App& app, Params p) {
    app.pc_state_ = p[0];
    app.reply(kOk);
  }
  static void sleep(App& app, Params) {
    if (!app.procedure_.idle()) return app.reply(kNoLowPower);
    app.asleep_ = true;
    app.reply(kOk);
  }

  static void cancel(App& app, Params) {
    app.procedure_.abort();
    app.answers_.clear();
    app.reply(kOk);
  }
  static void auto_enroll(App& app, Params p) {
    const uint16_t slot = word(p, 0);
    const auto& library = app.memory_.templates;
    uint8_t validity = kOk;
    if (slot >= app.settings_.identity.capacity) {
      validity = kOutOfRange;
    } else if (library.size() >= app.settings_.identity.capacity) {
      validity = kLibraryFull;
    } else if (library.contains(slot)) {
      validity = kSlotTaken;
    } else if (p[2] == 0 || p[2] > kMostPresses) {
      validity = kPressesWrong;
    }
    app.reply(validity, std::array{uint8_t{0}});
    app.procedure_.abort();
    if (validity == kOk) app.procedure_.start_enrol(procedure_start(app), slot, p[2]);
  }
  static void auto_identify(App& app, Params p) {
    const uint16_t slot = word(p, 1);
    if (slot != kAnySlot && slot >= app.settings_.identity.capacity) {
      return app.reply(kOutOfRange, std::array{uint8_t{0}});
    }
    app.reply(kOk, std::array{uint8_t{0}});
    app.procedure_.abort();
    if (const auto found = power_up(app, app.settings_.power_up.answers_identify)) {
      return app.follow(packet(kTypeResponse, *found));
    }
    app.procedure_.start_identify(procedure_start(app), slot);
  }
  // The identification of power-up, if this request may have it; it is given once.
  static std::optional<std::vector<uint8_t>> power_up(App& app, bool wanted) {
    PowerUpSettings& found = app.settings_.power_up;
    if (!wanted || found.outcome == PowerUpOutcome::none) return std::nullopt;
    auto report = power_up_report(found);
    found.outcome = PowerUpOutcome::none;
    return report;
  }
  static int64_t procedure_start(const App& app) {
    return app.now_us_ + app.settings_.link.response_delay_us;
  }

  static void test_type(App& app, Params p) {
    constexpr uint8_t kReadFirmware = 16, kSetMode = 189;
    if (p[0] == kReadFirmware) return read_firmware(app);
    if (p[0] != kSetMode) return app.reply(kCommandError);
    const std::string mode(p.begin() + 1, p.end());
    if (mode != "TEST" && mode != "USER") return app.reply(kBadValue);
    app.mode_ = mode;
    app.reply(kOk);
  }
  static void read_firmware(App& app) {
    if (const auto found = power_up(app, app.settings_.power_up.answers_version)) {
      app.follow(packet(kTypeResponse, *found));
    }
    const std::string text = version_text(app.memory_.version);
    app.reply(kOk, std::vector<uint8_t>(text.begin(), text.end()));
  }
  static void reboot(App& app, Params p) {
    if (!std::equal(p.begin(), p.end(), kRebootKey.begin(), kRebootKey.end())) {
      return app.reply(kBadValue);
    }
    app.procedure_.abort();
    app.reboot_asked_us_ = app.now_us_;
    app.reply(kOk);
  }
};

namespace {

struct Row {
  uint8_t code;
  size_t params;  // fewer are refused
  void (*handler)(Application&, Params);
};

constexpr Row kCommands[] = {
    {1, 0, CommandSet::get_image},
    {10, 0, CommandSet::up_image},
    {12, 4, CommandSet::del_char},
    {13, 0, CommandSet::empty},
    {15, 0, CommandSet::read_sys_para},
    {21, 4, CommandSet::set_chip_addr},
    {22, 0, CommandSet::read_info_page},
    {29, 0, CommandSet::valid_template_num},
    {31, 1, CommandSet::read_index_table},
    {48, 0, CommandSet::cancel},
    {49, 5, CommandSet::auto_enroll},
    {50, 5, CommandSet::auto_identify},
    {51, 0, CommandSet::sleep},
    {52, 0, CommandSet::get_chip_sn},
    {53, 0, CommandSet::handshake},
    {80, 1, CommandSet::pc_state},
    {175, 1, CommandSet::test_type},
    {176, 1, CommandSet::set_brightness},
    {177, 0, CommandSet::get_brightness},
    {184, 0, CommandSet::start_capture},
    {255, 8, CommandSet::reboot},
};

}  // namespace

bool Application::refused(uint8_t code) {
  const auto found = settings_.refuse.find(code);
  if (found == settings_.refuse.end() || found->second.times == 0) return false;
  Refusal& refusal = found->second;
  if (refusal.times > 0) --refusal.times;
  // The stage byte lets a procedure's refusal pass for its validity answer.
  reply(refusal.code, std::array{uint8_t{0}});
  return true;
}

void Application::execute(const Packet& command) {
  const uint8_t code = command.payload[0];
  const Params params = Params(command.payload).subspan(1);
  commands_.push_back({now_us_, code, {params.begin(), params.end()}, 0xFF});
  asleep_ = false;
  if (command.address != kEveryAddress && command.address != memory_.chip_address) {
    return reply(kWrongAddress);
  }
  if (refused(code)) return;
  const auto row = std::find_if(std::begin(kCommands), std::end(kCommands),
                                [code](const Row& r) { return r.code == code; });
  if (row == std::end(kCommands) || params.size() < row->params) return reply(kCommandError);
  row->handler(*this, params);
}

}  // namespace wrx_module
