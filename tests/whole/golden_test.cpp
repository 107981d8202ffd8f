// SPDX-License-Identifier: LGPL-2.1-or-later
// Scenes that golden files hold in whole: "== " begins one, in a world of its own, "> " a step of
// it, and what follows is what came of the step: the trace of an operation, or its outcome in
// short.
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "operations/module_procedures.h"
#include "protocol/packet.h"
#include "support/rig.h"

namespace wrx_test {
namespace {

using Words = std::istringstream;

std::string in_words(const std::vector<Stored>& features) {
  std::string text;
  for (const Stored& feature : features)
    text += fmt::format(" {}/{}:{}", feature.uid, feature.index, fmt::join(feature.slots, ","));
  return text;
}

// The driver's own words to the user, which are not in English, and how often they were said.
std::string told(Rig& rig) {
  const std::string begin = "bio_print_debug \"";
  std::map<std::string, int> counts;
  for (const std::string& line : rig.trace.lines()) {
    const size_t at = line.find(begin);
    if (at == std::string::npos || static_cast<uint8_t>(line[at + begin.size()]) < 0x80) continue;
    ++counts[line.substr(at + begin.size(), line.find("\\n", at) - at - begin.size())];
  }
  std::string text;
  for (const auto& [words, count] : counts)
    text += fmt::format("\n     {} x {}", count, words);
  return text;
}

class Scene {
 public:
  /// With a trace of each operation, whose limit is 50 ms then, or the outcome of each.
  explicit Scene(bool traced) : traced_(traced) {
    if (!traced) return;
    rig_.device.settings().link.batch = wrx_module::Batch::one_step;
    bio_host_set_ops_timeout_ms(50);
  }

  /// An operation, an arrangement, or something that happens at the module; what came of it.
  std::vector<std::string> step(const std::string& text) {
    Words words(text);
    std::string verb;
    words >> verb;
    if (world_.contains(verb)) return world_.at(verb)(words), no_lines();
    if (rig_.dev.device_name == nullptr) rig_.ready();
    if (moments_.contains(verb)) return moments_.at(verb)(words), no_lines();
    const auto operation = operations_.find(verb);
    if (operation == operations_.end()) return rig_.play(text), no_lines();
    rig_.trace.clear();
    rig_.device.commands().clear();
    std::string result;
    const int64_t ms = rig_.time_of([&] { result = operation->second(words); });
    rig_.clock.join();
    rig_.trace.note(
        fmt::format("stop flag {}, handshake {}", fp_get_ctrlFlag(), rig_.info().ctrlFlag));
    return traced_ ? rig_.trace.lines() : outcome(result, ms);
  }

 private:
  using Lines = std::vector<std::string>;
  static Lines no_lines() { return {}; }
  // What both sides hold is said when it has changed.
  Lines outcome(const std::string& result, int64_t ms) {
    std::string text = fmt::format("={}; {} ms, result {}, notification {}, status {}, asked {}{}",
                                   result, ms, rig_.result(), rig_.notification(), rig_.status(),
                                   fmt::join(rig_.asked(), " "), told(rig_));
    std::string holds = fmt::format("\n     slots {}; records{}", fmt::join(rig_.slots(), " "),
                                    in_words(rig_.stored()));
    if (holds != held_) text += held_ = holds;
    Words words(text);
    Lines lines;
    for (std::string line; std::getline(words, line);)
      lines.push_back(line);
    return lines;
  }

  // UID START END
  template <typename Operation>
  std::function<std::string(Words&)> on_selection(Operation operation) {
    return [this, operation](Words& words) {
      int uid = 0, start = 0, end = 0;
      words >> uid >> start >> end;
      if constexpr (std::is_same_v<decltype((rig_.*operation)(uid, start, end)), int>) {
        return " " + std::to_string((rig_.*operation)(uid, start, end));
      } else {
        return in_words((rig_.*operation)(uid, start, end));
      }
    };
  }
  // UID INDEX [NAME]
  std::string enroll(Words& words) {
    int uid = 0, index = 0;
    std::string name;
    std::getline(words >> uid >> index >> std::ws, name);
    return " " + std::to_string(rig_.enroll(uid, index, name.empty() ? nullptr : name.c_str()));
  }
  // UID INDEX
  std::string verify(Words& words) {
    int uid = 0, index = 0;
    words >> uid >> index;
    return " " + std::to_string(rig_.verify(uid, index));
  }
  const std::map<std::string, std::function<std::string(Words&)>> operations_ = {
      {"enroll", [this](Words& words) { return enroll(words); }},
      {"verify", [this](Words& words) { return verify(words); }},
      {"identify", on_selection(&Rig::identify)},
      {"search", on_selection(&Rig::search)},
      {"clean", on_selection(&Rig::clean)},
      {"list", on_selection(&Rig::list)},
  };

  // SLOT FINGER …
  void templates(Words& words) {
    std::string finger;
    for (uint16_t slot = 0; words >> slot >> finger;)
      rig_.device.memory().templates[slot] = finger;
  }
  // UID/INDEX:SLOT,… …
  void records(Words& words) {
    char mark = 0;
    for (Stored feature = {}; words >> feature.uid >> mark >> feature.index; feature = {}) {
      for (int slot = 0; words.peek() != ' ' && words >> mark >> slot;)
        feature.slots.push_back(slot);
      rig_.store(feature);
    }
  }
  // UID COUNT: features with a template each in the next slots.
  void fingers(Words& words) {
    int uid = 0, count = 0;
    words >> uid >> count;
    for (int i = 0; i < count; ++i) {
      const auto slot = static_cast<uint16_t>(20 + rig_.slots().size());
      rig_.store({uid, i, {slot}});
      rig_.device.memory().templates[slot] = "finger" + std::to_string(slot);
    }
  }
  // The press of power-up matched these SLOTs, or none.
  void powered_up(Words& words) {
    wrx_module::PowerUpSettings& found = rig_.device.settings().power_up;
    found.form = wrx_module::ResultForm::list;
    for (uint16_t slot = 0; words >> slot;)
      found.slots.push_back(slot);
    found.outcome = found.slots.empty() ? wrx_module::PowerUpOutcome::no_match
                                        : wrx_module::PowerUpOutcome::match;
  }
  // Makes the power-up result MS old; below 0 the clock was set back after it.
  void age(Words& words) {
    int64_t ms = 0;
    words >> ms;
    const int64_t us = VirtualClock::kEpoch * 1'000'000 + rig_.clock.now_us() - ms * 1000;
    *get_onekey_powerup_tv_time() = {us / 1'000'000, us % 1'000'000};
  }
  // MS BYTE …: a response of the module's own accord.
  void say_after(Words& words) {
    int64_t ms = 0;
    words >> ms;
    std::vector<uint8_t> payload;
    for (int byte = 0; words >> byte;)
      payload.push_back(static_cast<uint8_t>(byte));
    rig_.clock.at(rig_.clock.now_us() + ms * 1000,
                  [this, payload] { wrx_module::bus().locked([&] { rig_.device.say(payload); }); });
  }
  template <typename Act>
  static std::function<void(Words&)> with_number(Act act) {
    return [act](Words& words) {
      int number = 0;
      words >> number;
      act(number);
    };
  }
  // What there is before the driver's start, which comes by itself.
  const std::map<std::string, std::function<void(Words&)>> world_ = {
      {"templates", [this](Words& words) { templates(words); }},
      {"records", [this](Words& words) { records(words); }},
      {"fingers", [this](Words& words) { fingers(words); }},
      {"powered-up", [this](Words& words) { powered_up(words); }},
      {"damage", [this](Words&) { rig_.write_file("feature.db", std::string(4096, 'x')); }},
      {"held-result", with_number([](int flag) { set_onekey_powerup_flag(flag != 0); })},
      {"limit", with_number([](int ms) { bio_host_set_ops_timeout_ms(ms); })},
  };
  const std::map<std::string, std::function<void(Words&)>> moments_ = {
      {"started", [](Words&) {}},
      {"started-again", [this](Words&) { rig_.close(), rig_.driver_init(), rig_.open(); }},
      {"age", [this](Words& words) { age(words); }},
      {"say-after", [this](Words& words) { say_after(words); }},
      {"stop-after", with_number([this](int ms) { rig_.stop_at(ms); })},
      {"short-stop-after", with_number([this](int ms) { rig_.stop_at(ms, 50); })},
      {"lose-handle-at", with_number([this](int transfer) { rig_.lose_handle_at(transfer); })},
      {"stop-flag", with_number([](int flag) { fp_set_ctrlFlag(flag); })},
  };

  const bool traced_;
  Rig rig_;
  std::string held_;
};

void expect_scenes(const std::string& name, bool traced) {
  std::vector<std::string> lines;
  std::unique_ptr<Scene> scene;
  for (const std::string& line : golden_lines(name)) {
    const bool begins = line.starts_with("== ");
    if (!begins && !line.starts_with("> ")) continue;
    lines.push_back(line);
    if (begins) {
      scene.reset();
      scene = std::make_unique<Scene>(traced);
    } else {
      std::ranges::copy(scene->step(line.substr(2)), std::back_inserter(lines));
    }
  }
  EXPECT_FALSE(lines.empty()) << name;
  EXPECT_EQ(golden_difference(name, without_repeats(lines)), "");
}

TEST(Scenes, OfOperationsThatFailAsTraces) {
  expect_scenes("endings", true);
}
TEST(Scenes, OfAnEnrolmentAsATrace) {
  expect_scenes("enroll", true);
}
TEST(Scenes, OfAllOperationsInTheirOutcomes) {
  expect_scenes("operations", false);
}

TEST(Golden, VerifyOfAnotherFingerOfTheUser) {
  wrx_module::Settings settings = Rig::instant();
  settings.usb.out_cost_us = 125;
  settings.usb.in_cost_us = 250;
  settings.procedure.search_us = 40'000;
  Rig rig(settings);
  rig.device.memory().templates = {{21, "thumb"}, {23, "thumb"}};
  rig.store({Rig::kUser, 0, {20}});
  rig.trace.clear();
  rig.start();
  rig.open();
  rig.play("at 300ms; press thumb good");
  rig.verify();
  rig.close();
  EXPECT_EQ(golden_difference("verify-no-match", rig.trace.lines()), "");
}

// The press that woke the module matched a template. A second one is answered with the version: it
// matched as many as the module can report, all of them nobody's. The first identify takes that
// result and no other does.
TEST(Golden, OneOfEachAfterTwoPowerUpPresses) {
  using wrx_module::PowerUpOutcome;
  wrx_module::Settings settings = Rig::instant();
  settings.link.batch = wrx_module::Batch::one_step;
  settings.power_up = {.outcome = PowerUpOutcome::match, .slots = {33}};
  wrx_module::PowerUpSettings second = {
      .outcome = PowerUpOutcome::match, .slots = {}, .form = wrx_module::ResultForm::list};
  for (uint16_t slot = 40; slot < 60; ++slot)
    second.slots.push_back(slot);
  Rig rig(settings);
  for (const uint16_t slot : {uint16_t{20}, uint16_t{21}}) {
    rig.store({Rig::kUser, slot - 20, {slot}});
    rig.device.memory().templates[slot] = "finger" + std::to_string(slot);
  }
  rig.trace.clear();
  rig.clock.at(30'000,
               [&] { wrx_module::bus().locked([&] { rig.device.settings().power_up = second; }); });
  rig.extra_config("AutoSuspend=1\n");
  rig.host_config("ModeFlag=7700\n");
  rig.write_file("sys/bus/usb/devices/1-2/power/control", "on\n");
  rig.start();
  rig.show_file("sys/bus/usb/devices/1-2/power/control");
  rig.open();
  rig.play("press finger21; press finger20 x2");
  rig.identify();
  rig.identify();
  rig.verify();
  rig.search();
  rig.list();
  rig.clean();
  EXPECT_EQ(golden_difference("one-of-each", without_repeats(rig.trace.lines())), "");
}

}  // namespace
}  // namespace wrx_test
