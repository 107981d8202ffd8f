// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's slots and the framework's records, over long sequences of operations that end in
// every way: a record never names a slot without a template, and a template without a record is
// gone once the next enrolment has begun.
#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <set>

#include "support/rig.h"

namespace wrx_test {
namespace {

class Agreement : public testing::Test {
 protected:
  static wrx_module::Settings settings() {
    wrx_module::Settings settings = Rig::instant();
    settings.link.batch = wrx_module::Batch::one_step;
    settings.procedure.press_gap_us = 20'000;
    return settings;
  }
  std::set<int> recorded() {
    std::set<int> slots;
    for (const Stored& feature : rig.stored()) {
      EXPECT_EQ(feature.slots.size(), 1u);
      EXPECT_TRUE(slots.insert(feature.slots.at(0)).second) << "a slot has two records";
    }
    return slots;
  }
  std::set<int> held() {
    const std::vector<int> slots = rig.slots();
    return {slots.begin(), slots.end()};
  }
  // An enrolment of a new finger, disturbed by `script`.
  int enroll(int uid, const std::string& script = "") {
    rig.device.sensor().clear_queue();
    rig.play("press finger" + std::to_string(++fingers) + " x13; " + script);
    return rig.enroll(uid, -1);
  }
  Rig rig{settings()};
  int fingers = 0;
};

TEST_F(Agreement, HoldsAfterEachOfManyOperations) {
  rig.ready();
  std::mt19937 random(5300);
  const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  int ends[2] = {};
  for (int round = 0; round < 200; ++round) {
    rig.trace.clear();
    const int user = 1000 + pick(3), at_ms = pick(400);
    switch (pick(6)) {
      case 0:
      case 1:
        ++ends[enroll(user) == 0];
        EXPECT_EQ(recorded(), held()) << "round " << round;
        break;
      case 2:
        rig.stop_at(at_ms);
        ++ends[enroll(user) == 0];
        rig.clock.join();
        break;
      case 3:
        rig.lose_handle_at(1 + pick(160));
        ++ends[enroll(user) == 0];
        wrx_module::bus().faults().clear();
        rig.device.power_cycle();  // as what vanished comes back
        break;
      case 4:
        rig.clean(user, pick(3), pick(2) == 0 ? -1 : 4);
        break;
      default:
        rig.play("at " + std::to_string(at_ms % 40) + "ms; refuse 12 27 x1");
        rig.clean(user);
        rig.clock.sleep_us(40'000);
        rig.device.settings().refuse.clear();
    }
    rig.close();
    rig.open();
    const std::set<int> slots = held(), records = recorded();
    EXPECT_TRUE(std::includes(slots.begin(), slots.end(), records.begin(), records.end()))
        << "round " << round;
    if (HasFailure()) return;
  }
  EXPECT_GT(ends[0], 20);
  EXPECT_GT(ends[1], 20);
}

}  // namespace
}  // namespace wrx_test
