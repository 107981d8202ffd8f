// SPDX-License-Identifier: LGPL-2.1-or-later
// Whole scenarios as golden traces: every transfer, framework call, wait and line, in order. A file
// of endings holds one operation several times, from its begin to its end, each under a headline
// and without the lines with which it repeats the first.
#include <gtest/gtest.h>

#include <algorithm>

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

struct Ending {
  const char* headline;
  void (*arrange)(Rig&);
};

// An operation that is asked for after each of the arrangements, with a time limit of 50 ms.
std::vector<std::string> endings(const std::vector<Ending>& all, void (*operation)(Rig&)) {
  std::vector<std::string> lines, first;
  for (const Ending& ending : all) {
    Rig rig(step_by_step());
    bio_host_set_ops_timeout_ms(50);
    rig.ready();
    ending.arrange(rig);
    rig.trace.clear();
    operation(rig);
    rig.clock.join();
    const std::vector<std::string> trace = rig.trace.lines();
    const auto differs =
        std::mismatch(trace.begin(), trace.end(), first.begin(), first.end()).first;
    lines.push_back(std::string("== ") + ending.headline);
    if (differs != trace.begin()) {
      lines.push_back("… " + std::to_string(differs - trace.begin()) + " lines as above");
    }
    lines.insert(lines.end(), differs, trace.end());
    if (first.empty()) first = trace;
  }
  return lines;
}

// Features of a user, with a template each in the next slots.
void store(Rig& rig, int uid, int count) {
  for (int i = 0; i < count; ++i) {
    const auto slot = static_cast<uint16_t>(20 + rig.slots().size());
    rig.store({uid, i, {slot}});
    rig.device.memory().templates[slot] = "finger" + std::to_string(slot);
  }
}

// The module refuses a search that it had begun.
void refuse_late(Rig& rig) {
  rig.clock.at(rig.clock.now_us() + 35'000, [&rig] {
    wrx_module::bus().locked([&] { rig.device.say(std::vector<uint8_t>{27, 0}); });
  });
}

constexpr Ending kStopped = {"stopped by the user", [](Rig& rig) { rig.stop_at(30); }};
constexpr Ending kTimedOut = {"timed out", [](Rig&) {}};
constexpr Ending kRefused = {"refused by the module", [](Rig& rig) { rig.play("refuse 50 27"); }};

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

TEST(Golden, EnrolmentWithEveryKindOfBadPress) {
  Rig rig(step_by_step());
  rig.device.memory().templates = {{20, "index"}, {30, "nobody"}};
  rig.store({2000, 0, {20}});
  rig.ready();
  rig.play(
      "finger thumb; press; press x3; press smudged; press repeated; press x3; press small;"
      "press duplicate; press x3; press dry; press rejected; press x3");
  EXPECT_EQ(rig.enroll(Rig::kUser, -1, "right thumb"), 0);
  EXPECT_EQ(golden_difference("enroll", rig.trace.lines()), "");
}

// The press that woke the module matched as many templates as it can report, all of them nobody's.
// The first identify takes that result and no other does. The finger on the sensor when the
// enrolment begins is known.
TEST(Golden, OneOfEachAfterAPowerUpPress) {
  wrx_module::Settings settings = step_by_step();
  settings.power_up.outcome = wrx_module::PowerUpOutcome::match;
  settings.power_up.form = wrx_module::ResultForm::list;
  for (uint16_t slot = 40; slot < 60; ++slot)
    settings.power_up.slots.push_back(slot);
  Rig rig(settings);
  store(rig, Rig::kUser, 2);
  rig.start();
  rig.open();
  rig.play("press finger21; press finger20 x2; press finger21; press x13");
  rig.identify();
  rig.identify();
  rig.verify();
  rig.search();
  rig.enroll(Rig::kUser, -1);
  rig.list();
  rig.clean();
  EXPECT_EQ(golden_difference("one-of-each", rig.trace.lines()), "");
}

TEST(Golden, EnrolmentsThatFail) {
  // The first press passes the check for duplicates; the wait for presses begins at 100 ms. The
  // handle is lost in the payload of its second read.
  const std::vector<Ending> all = {
      {"stopped by the user", [](Rig& rig) { rig.play("press"), rig.stop_at(110); }},
      {"timed out", [](Rig& rig) { rig.play("press"); }},
      {"module vanished", [](Rig& rig) { rig.play("press"), rig.lose_handle_at(62); }},
      {"start refused", [](Rig& rig) { rig.play("press; refuse 49 27"); }},
      {"library full", [](Rig& rig) { rig.play("press; refuse 49 31"); }},
      {"slot refused", [](Rig& rig) { rig.play("press; refuse 49 11"); }},
      {"no database",
       [](Rig& rig) { rig.write_file("feature.db", "nobody's"), rig.play("press"); }},
      {"no index table", [](Rig& rig) { rig.play("refuse 31 27 x2; press late"); }},
      {"no slot free", [](Rig& rig) { store(rig, 2000, 10), store(rig, 3000, 10); }},
      {"tenth finger of the user", [](Rig& rig) { store(rig, Rig::kUser, 10); }},
  };
  EXPECT_EQ(golden_difference("enroll-endings", endings(all, [](Rig& rig) { rig.enroll(); })), "");
}

TEST(Golden, VerifiesThatFail) {
  const std::vector<Ending> all = {
      kStopped,
      kTimedOut,
      {"module vanished", [](Rig& rig) { rig.lose_handle_at(26); }},
      kRefused,
      {"refused late", refuse_late},
      {"start not sent", [](Rig& rig) { rig.play("fault at 16 stall"); }},
      {"unplugged", [](Rig& rig) { rig.play("at 30ms; unplug"); }},
  };
  EXPECT_EQ(golden_difference("verify-endings", endings(all, [](Rig& rig) { rig.verify(); })), "");
}

TEST(Golden, IdentifiesThatFail) {
  const std::vector<Ending> all = {
      kStopped,
      // Without a limit of its own it times out only by what an earlier operation left behind.
      {"refused with the flag of an old time-out",
       [](Rig& rig) { rig.play("refuse 50 27"), fp_set_ctrlFlag(FP_CONTROL_FLAG_TIMEOUT); }},
      {"module vanished", [](Rig& rig) { rig.lose_handle_at(11); }},
      kRefused,
      {"matched nothing", [](Rig& rig) { rig.play("press stranger"); }}};
  EXPECT_EQ(golden_difference("identify-endings", endings(all, [](Rig& rig) { rig.identify(); })),
            "");
}

TEST(Golden, SearchesThatFail) {
  const std::vector<Ending> all = {
      kStopped,
      kTimedOut,
      {"module vanished", [](Rig& rig) { rig.lose_handle_at(26); }},
      kRefused,
      {"no module", [](Rig& rig) { rig.device.unplug(); }},
  };
  EXPECT_EQ(golden_difference("search-endings", endings(all, [](Rig& rig) { rig.search(); })), "");
}

TEST(Golden, CleansThatDoNotSucceed) {
  // A clean has no limit and does not look for a stop, which therefore waits in vain.
  const std::vector<Ending> all = {
      {"stopped by the user", [](Rig& rig) { rig.stop_at(10, 50); }},
      {"not answered", [](Rig& rig) { rig.play("set response-delay 1s"); }},
      {"module vanished", [](Rig& rig) { rig.lose_handle_at(2); }},
      {"second template refused", [](Rig& rig) { rig.play("at 10ms; refuse 12 27"); }}};
  const auto operation = [](Rig& rig) {
    rig.store({Rig::kUser, 0, {20, 22}});
    rig.store({Rig::kUser, 1, {21}});
    rig.trace.clear();
    rig.clean();
  };
  EXPECT_EQ(golden_difference("clean-endings", endings(all, operation)), "");
}

}  // namespace
}  // namespace wrx_test
