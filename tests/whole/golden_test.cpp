// SPDX-License-Identifier: LGPL-2.1-or-later
// Whole scenarios as golden traces: every transfer, framework call, wait and line, in order, but
// for passages that a file has shown already.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "operations/module_procedures.h"
#include "protocol/packet.h"
#include "support/rig.h"

namespace wrx_test {
namespace {

wrx_module::Settings paced() {
  wrx_module::Settings settings = Rig::instant();
  settings.usb.out_cost_us = 125;
  settings.usb.in_cost_us = 250;
  return settings;
}

// The steps of a press come in one read, which keeps the traces short.
wrx_module::Settings step_by_step() {
  wrx_module::Settings settings = Rig::instant();
  settings.link.batch = wrx_module::Batch::one_step;
  return settings;
}

// Features of a user, with a template each in the next slots.
void store(Rig& rig, int uid, int count) {
  for (int i = 0; i < count; ++i) {
    const auto slot = static_cast<uint16_t>(20 + rig.slots().size());
    rig.store({uid, i, {slot}});
    rig.device.memory().templates[slot] = "finger" + std::to_string(slot);
  }
}

// The module says something of its own.
void say_at(Rig& rig, int64_t at_ms, const std::vector<uint8_t>& payload) {
  rig.clock.at(rig.clock.now_us() + at_ms * 1000,
               [&rig, payload] { wrx_module::bus().locked([&] { rig.device.say(payload); }); });
}

TEST(Golden, VerifyOfAnotherFingerOfTheUser) {
  wrx_module::Settings settings = paced();
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

// The finger on the sensor when the enrolment begins is the user's already.
TEST(Golden, EnrolmentWithEveryKindOfBadPress) {
  Rig rig(step_by_step());
  rig.device.memory().templates = {{20, "index"}, {30, "nobody"}};
  rig.store({Rig::kUser, 0, {20}});
  rig.ready();
  rig.play(
      "press index; finger thumb; press; press x3; press smudged; press repeated; press x3;"
      "press small; press duplicate; press x3; press dry; press rejected; press x3");
  EXPECT_EQ(rig.enroll(Rig::kUser, -1, "right thumb"), 0);
  EXPECT_EQ(golden_difference("enroll", without_repeats(rig.trace.lines())), "");
}

// The press that woke the module matched a template. A second one is answered with the version: it
// matched as many as the module can report, all of them nobody's. The first identify takes that
// result and no other does.
TEST(Golden, OneOfEachAfterTwoPowerUpPresses) {
  using wrx_module::PowerUpOutcome;
  wrx_module::Settings settings = step_by_step();
  settings.power_up = {.outcome = PowerUpOutcome::match, .slots = {33}};
  wrx_module::PowerUpSettings second = {
      .outcome = PowerUpOutcome::match, .slots = {}, .form = wrx_module::ResultForm::list};
  for (uint16_t slot = 40; slot < 60; ++slot)
    second.slots.push_back(slot);
  Rig rig(settings);
  store(rig, Rig::kUser, 2);
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

constexpr auto verify = [](Rig& rig) { rig.verify(); };
constexpr auto identify = [](Rig& rig) { rig.identify(); };
constexpr auto search = [](Rig& rig) { rig.search(); };
constexpr auto enroll = [](Rig& rig) { rig.enroll(); };
constexpr auto clean = [](Rig& rig) { rig.clean(); };
constexpr auto nothing = [](Rig&) {};
template <int at_ms, int waiting_ms = 3000>
constexpr auto stop_at = [](Rig& rig) { rig.stop_at(at_ms, waiting_ms); };
constexpr auto refuse_search = [](Rig& rig) { rig.play("refuse 50 27"); };

// A limit met in the same pass wins over a stop in a search, and loses to it in an enrolment. Of an
// enrolment the first press passes the check for duplicates; the wait for presses begins at 100 ms.
// An identification has no limit and times out only by what an earlier operation left behind, a
// clean has none and does not look for a stop. A lost handle is lost in the payload of a read.
constexpr struct {
  const char* headline;
  void (*operation)(Rig&);
  void (*arrange)(Rig&);
} kEndings[] = {
    {"verify: stopped by the user", verify, stop_at<30>},
    {"verify: timed out", verify, nothing},
    {"verify: stopped and timed out", verify, stop_at<70>},
    {"verify: module vanished", verify, [](Rig& rig) { rig.lose_handle_at(26); }},
    {"verify: refused by the module", verify, refuse_search},
    {"verify: refused late", verify,
     [](Rig& rig) {
       say_at(rig, 35, {27, 0});
     }},
    {"verify: start not sent", verify, [](Rig& rig) { rig.play("fault at 16 stall"); }},
    {"verify: unplugged", verify, [](Rig& rig) { rig.play("at 30ms; unplug"); }},
    {"identify: stopped by the user", identify, stop_at<30>},
    {"identify: refused by the module", identify, refuse_search},
    {"identify: refused, with the flag of an old time-out", identify,
     [](Rig& rig) { refuse_search(rig), fp_set_ctrlFlag(FP_CONTROL_FLAG_TIMEOUT); }},
    {"identify: matched nothing, with an old result of the power-up press", identify,
     [](Rig& rig) { rig.play("press stranger"), set_onekey_powerup_flag(1); }},
    {"search: stopped by the user", search, stop_at<30>},
    {"search: timed out", search, nothing},
    {"search: refused by the module", search, refuse_search},
    {"clean: stopped by the user", clean, stop_at<10, 50>},
    {"clean: not answered", clean, [](Rig& rig) { rig.play("set response-delay 1s"); }},
    {"clean: module vanished", clean, [](Rig& rig) { rig.lose_handle_at(2); }},
    {"clean: second template refused", clean, [](Rig& rig) { rig.play("at 10ms; refuse 12 27"); }},
    {"enroll: stopped by the user", enroll, [](Rig& rig) { rig.play("press"), rig.stop_at(110); }},
    {"enroll: timed out", enroll, [](Rig& rig) { rig.play("press"); }},
    {"enroll: stopped and timed out", enroll,
     [](Rig& rig) { rig.play("press"), rig.stop_at(150); }},
    {"enroll: stopped in a press", enroll,
     [](Rig& rig) { rig.play("press; at 115ms; press"), rig.stop_at(120); }},
    {"enroll: module vanished", enroll,
     [](Rig& rig) { rig.play("press"), rig.lose_handle_at(62); }},
    {"enroll: start refused", enroll, [](Rig& rig) { rig.play("press; refuse 49 27"); }},
    {"enroll: library full", enroll, [](Rig& rig) { rig.play("press; refuse 49 31"); }},
    {"enroll: slot refused", enroll, [](Rig& rig) { rig.play("press; refuse 49 11"); }},
    {"enroll: no database", enroll,
     [](Rig& rig) { rig.write_file("feature.db", "nobody's"), rig.play("press"); }},
    {"enroll: no index table", enroll, [](Rig& rig) { rig.play("refuse 31 27 x2; press late"); }},
    {"enroll: no slot free", enroll, [](Rig& rig) { store(rig, 2000, 10), store(rig, 3000, 10); }},
    {"enroll: tenth finger of the user", enroll, [](Rig& rig) { store(rig, Rig::kUser, 10); }},
};

TEST(Golden, OperationsThatFail) {
  std::vector<std::string> lines;
  for (const auto& ending : kEndings) {
    Rig rig(step_by_step());
    bio_host_set_ops_timeout_ms(50);
    rig.ready();
    if (ending.operation == +clean) {
      rig.store({Rig::kUser, 0, {20, 22}});
      rig.store({Rig::kUser, 1, {21}});
    }
    ending.arrange(rig);
    rig.trace.clear();
    ending.operation(rig);
    rig.clock.join();
    rig.trace.note(
        fmt::format("stop flag {}, handshake {}", fp_get_ctrlFlag(), rig.info().ctrlFlag));
    lines.push_back(std::string("== ") + ending.headline);
    std::ranges::copy(rig.trace.lines(), std::back_inserter(lines));
  }
  EXPECT_EQ(golden_difference("endings", without_repeats(lines)), "");
}

}  // namespace
}  // namespace wrx_test
