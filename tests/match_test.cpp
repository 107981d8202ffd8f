// SPDX-License-Identifier: LGPL-2.1-or-later
// Verify, identify and search: from the slots that the module matched to the framework's features,
// and the result of the press that powered the machine on.
#include <gmock/gmock.h>

#include "operations/module_procedures.h"
#include "support/rig.h"

namespace wrx_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using wrx_module::PowerUpOutcome;

constexpr int kOther = 2000;
constexpr int kAutoIdentify = 50, kCancel = 48;

class Matching : public testing::Test {
 protected:
  // Two users; the thumb of the second lies in two slots, and one template has no feature.
  Matching() {
    rig.device.memory().templates = {
        {20, "left"}, {21, "thumb"}, {22, "right"}, {23, "thumb"}, {24, "nobody"}};
    rig.store({kOther, 3, {23}});
    rig.store({kOther, 1, {21}});
    rig.store({Rig::kUser, 0, {20}});
    rig.store({Rig::kUser, 7, {39, 22}});
  }
  void expect(int result, int status = DEVS_COMM_IDLE) {
    EXPECT_EQ(rig.result(), result);
    EXPECT_EQ(rig.notification(), result);
    EXPECT_EQ(rig.status(), status);
  }
  void power_up(PowerUpOutcome outcome, std::vector<uint16_t> slots) {
    rig.device.settings().power_up.outcome = outcome;
    rig.device.settings().power_up.slots = std::move(slots);
    rig.ready();
  }
  // Goes to `age_ms` after the power-up result was taken.
  void let_it_be_old(int64_t age_ms) {
    const timeval* taken = get_onekey_powerup_tv_time();
    const int64_t taken_us = (taken->tv_sec - VirtualClock::kEpoch) * 1'000'000 + taken->tv_usec;
    rig.clock.sleep_us(taken_us + age_ms * 1000 - rig.clock.now_us());
  }
  Rig rig;
};

TEST_F(Matching, VerifyIsAboutOneFeatureOfOneUser) {
  struct Row {
    const char* finger;
    int uid, index, result, slot;
  };
  constexpr Row kRows[] = {
      {"left", Rig::kUser, 0, OPS_VERIFY_MATCH, 20},
      {"right", Rig::kUser, 7, OPS_VERIFY_MATCH, 22},  // the second sample
      {"thumb", kOther, 3, OPS_VERIFY_MATCH, 23},
      {"left", Rig::kUser, 7, OPS_VERIFY_NO_MATCH, 65535},  // another finger of the user
      {"left", kOther, 1, OPS_VERIFY_NO_MATCH, 65535},      // another user's
      {"left", Rig::kUser, 5, OPS_VERIFY_NO_MATCH, 65535},  // no such feature
      {"stranger", Rig::kUser, 0, OPS_VERIFY_NO_MATCH, 65535},
      {"nobody", Rig::kUser, 0, OPS_VERIFY_NO_MATCH, 65535},
  };
  rig.ready();
  for (const Row& row : kRows) {
    SCOPED_TRACE(std::string(row.finger) + " against " + std::to_string(row.index));
    rig.trace.clear();
    rig.play(std::string("press ") + row.finger);
    EXPECT_EQ(rig.verify(row.uid, row.index), 0);
    expect(row.result);
    EXPECT_EQ(rig.trace.count("identify_result_id_final = " + std::to_string(row.slot) + "\\r"), 1);
  }
}

TEST_F(Matching, IdentifyNamesTheUserOfTheFirstStoredMatch) {
  struct Row {
    const char* finger;
    int uid, start, end, user, result;
  };
  constexpr Row kRows[] = {
      {"left", -1, 0, -1, Rig::kUser, OPS_IDENTIFY_MATCH},
      {"thumb", -1, 0, -1, kOther, OPS_IDENTIFY_MATCH},
      {"thumb", kOther, 2, 5, kOther, OPS_IDENTIFY_MATCH},
      // The module's match stands although the selection holds no such feature.
      {"thumb", kOther, 4, 9, -1, OPS_IDENTIFY_MATCH},
      {"left", kOther, 0, -1, -1, OPS_IDENTIFY_MATCH},
      {"nobody", -1, 0, -1, -1, OPS_IDENTIFY_MATCH},
      {"stranger", -1, 0, -1, -1, OPS_IDENTIFY_NO_MATCH},
  };
  rig.ready();
  for (const Row& row : kRows) {
    SCOPED_TRACE(std::string(row.finger) + " of " + std::to_string(row.uid));
    rig.trace.clear();
    rig.play(std::string("press ") + row.finger);
    EXPECT_EQ(rig.identify(row.uid, row.start, row.end), row.user);
    expect(row.result);
    EXPECT_TRUE(rig.trace.saw("bio_set_dev_status 4")) << "the kind of operation";
  }
}

TEST_F(Matching, IdentifyStopsLookingAtTheFirstMatch) {
  rig.ready();
  rig.play("press thumb");
  rig.identify(kOther);
  // Feature 1 comes first and holds the first of the two slots.
  EXPECT_EQ(rig.trace.count("identify_result_id[0] = 0x0015"), 1);
  EXPECT_EQ(rig.trace.count("identify_result_id["), 1);
}

TEST_F(Matching, SearchGivesAllMatchesInStoredOrder) {
  rig.ready();
  rig.play("press thumb x3; press left; press stranger");
  const Stored first = {kOther, 1, {21}}, second = {kOther, 3, {23}};
  EXPECT_THAT(rig.search(-1), ElementsAre(first, second));
  expect(OPS_SEARCH_MATCH);
  EXPECT_TRUE(rig.trace.saw("bio_set_dev_status 6")) << "the kind of operation";
  // Each is read again under the caller's uid and its own index.
  EXPECT_EQ(rig.trace.count("uid=-1 biotype=0 driver=\"wrx5300\" 1..1 = 1"), 1);
  EXPECT_EQ(rig.trace.count("uid=-1 biotype=0 driver=\"wrx5300\" 3..3 = 1"), 1);
  EXPECT_THAT(rig.search(kOther, 2), ElementsAre(second));
  EXPECT_THAT(rig.search(Rig::kUser), IsEmpty());
  expect(OPS_SEARCH_NO_MATCH);
  EXPECT_THAT(rig.search(Rig::kUser, 0, 0), ElementsAre(Stored{Rig::kUser, 0, {20}}));
  EXPECT_THAT(rig.search(-1), IsEmpty());
  expect(OPS_SEARCH_NO_MATCH);
}

TEST_F(Matching, ADisabledDeviceSetsItsStatusOnly) {
  rig.ready();
  rig.play("press left x3");
  rig.dev.enable = 0;
  EXPECT_EQ(rig.verify(), -1);
  EXPECT_EQ(rig.identify(), -1);
  EXPECT_THAT(rig.search(), IsEmpty());
  EXPECT_EQ(rig.trace.count("bio_set_dev_status 3"), 3);
  EXPECT_EQ(rig.trace.count("bio_set_"), 3);
  EXPECT_THAT(rig.asked(), IsEmpty());
}

TEST_F(Matching, AnUnplugAloneIsATimeOut) {
  rig.ready();
  rig.play("at 100ms; unplug");
  EXPECT_EQ(rig.verify(), -1);
  expect(OPS_VERIFY_TIMEOUT);
  EXPECT_TRUE(rig.search().empty());
  expect(OPS_SEARCH_ERROR);  // the search cannot even be started
}

TEST_F(Matching, IdentifyWaitsLongerThanAnyLimit) {
  rig.ready();
  rig.play("at 100s; press left");
  EXPECT_EQ(rig.identify(), Rig::kUser);
}

TEST_F(Matching, APowerUpResultServesTheFirstIdentifyWithinFifteenSeconds) {
  for (const int age_ms : {14999, 15000}) {
    power_up(PowerUpOutcome::match, {22});
    rig.play("press left");
    rig.verify(Rig::kUser, 0);  // neither uses it nor drops it
    rig.device.commands().clear();
    let_it_be_old(age_ms);
    rig.play("press thumb x2");
    const bool young = age_ms < 15000;
    EXPECT_EQ(rig.identify(), young ? Rig::kUser : kOther);
    EXPECT_EQ(rig.asked(), young ? std::vector{kCancel} : (std::vector{kAutoIdentify, kCancel}));
    EXPECT_EQ(rig.identify(), kOther) << "used up or dropped";
    rig.device.sensor().clear_queue();
    rig.close();
  }
}

TEST_F(Matching, AHeldPowerUpResultWithoutAMatchAnswersAtOnce) {
  power_up(PowerUpOutcome::no_match, {});
  EXPECT_EQ(get_onekey_powerup_flag(), 1);
  EXPECT_EQ(get_onekey_powerup_search_num(), 0);
  EXPECT_EQ(rig.time_of([&] { EXPECT_EQ(rig.identify(), -1); }), 50 + 20);
  expect(OPS_IDENTIFY_NO_MATCH);
  EXPECT_THAT(rig.asked(), ElementsAre(kCancel));
}

TEST_F(Matching, ASendThatFailedCountsAsNoAnswer) {
  rig.ready();
  rig.play("fault at 16 stall");  // the first transfer behind the drain
  EXPECT_EQ(rig.verify(), -1);
  expect(OPS_VERIFY_ERROR);
  EXPECT_TRUE(rig.trace.saw("fp_auto_identify] validity_check_result = 0xff !!!"));
  EXPECT_TRUE(rig.trace.saw("wrx7700_ops_verify] verify failed!!!"));
}

TEST_F(Matching, ALateRefusalEndsTheWait) {
  rig.ready();
  rig.clock.at(rig.clock.now_us() + 55'000, [&] {
    wrx_module::bus().locked([&] { rig.device.say(std::vector<uint8_t>{27, 0}); });
  });
  EXPECT_EQ(rig.time_of([&] { EXPECT_EQ(rig.verify(), -1); }), 60 + 20);
  expect(OPS_VERIFY_ERROR);
  EXPECT_TRUE(rig.trace.saw("fp_auto_identify] validity_check_result = 0x1b !!!"));
}

}  // namespace
}  // namespace wrx_test
