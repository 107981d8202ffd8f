// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The stand, its report and the loop.
#include "module/play/stand.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

namespace wrx_module {
namespace {

const char* mode_name(const std::optional<Presence>& presence) {
  if (!presence) return "absent";
  return presence->mode == Mode::application ? "application" : "bootloader";
}

// The time until `at_us`, as ppoll takes it.
timespec span_until(int64_t at_us, int64_t now_us) {
  const int64_t us = std::max<int64_t>(0, at_us - now_us);
  return {static_cast<time_t>(us / 1'000'000), static_cast<long>(us % 1'000'000 * 1'000)};
}

}  // namespace

Served::~Served() = default;

Stand::Stand(Clock& clock, Settings settings, Memory memory)
    : clock_(clock), device_(clock, std::move(settings), std::move(memory)) {}

void Stand::play(Script script) {
  players_.emplace_back(device_, faults_, std::move(script), clock_.now_us());
  advance();
}

void Stand::advance() {
  const int64_t now = clock_.now_us();
  for (Player& player : players_)
    player.advance(now);
  players_.remove_if([](const Player& player) { return player.next_event_us() == kNever; });
  device_.advance();
}

int64_t Stand::next_event_us() {
  int64_t next = device_.next_event_us();
  for (const Player& player : players_)
    next = std::min(next, player.next_event_us());
  return next;
}

std::string Stand::report() {
  const auto presence = device_.present();
  const Memory& memory = device_.memory();
  nlohmann::json slots = nlohmann::json::array(), commands = nlohmann::json::array();
  for (const auto& [slot, finger] : memory.templates)
    slots.push_back({{"slot", slot}, {"finger", finger}});
  for (const CommandRecord& command : device_.commands())
    commands.push_back(command.code);
  const nlohmann::json report = {
      {"present", presence.has_value()},
      {"mode", mode_name(presence)},
      {"enumeration", presence ? presence->enumeration : 0},
      {"version", memory.version},
      {"version_text", version_text(memory.version)},
      {"capacity", device_.settings().identity.capacity},
      {"slots", std::move(slots)},
      {"flash",
       {{"bytes", memory.flash.size()},
        {"crc", flash_crc(memory.flash)},
        {"bootable", bootable(memory)}}},
      {"enrolling", device_.enrolling()},
      {"identifying", device_.identifying()},
      {"presses_left", device_.sensor().queued()},
      {"transfers", faults_.count()},
      {"commands", std::move(commands)},
  };
  return report.dump();
}

bool run_loop(Stand& stand, const std::vector<Served*>& parts, int stop) {
  std::vector<pollfd> set;
  for (;;) {
    stand.advance();
    for (Served* part : parts)
      part->serve();
    set = {{stop, POLLIN, 0}};
    int64_t next = stand.next_event_us();
    for (Served* part : parts) {
      part->watch(set);
      next = std::min(next, part->next_event_us());
    }
    const timespec span = span_until(next, stand.clock().now_us());
    if (ppoll(set.data(), set.size(), next == kNever ? nullptr : &span, nullptr) < 0 &&
        errno != EINTR)
      return false;
    if (set.front().revents != 0) return true;
  }
}

}  // namespace wrx_module
