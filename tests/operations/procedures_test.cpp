// SPDX-License-Identifier: LGPL-2.1-or-later
// The module-side procedures and their records, called directly.
#include <gtest/gtest.h>

#include <array>

#include "operations/module_procedures.h"
#include "operations/operations.h"
#include "protocol/packet.h"
#include "records/fp_device_param.h"
#include "support/rig.h"

namespace wrx_test {
namespace {

TEST(Procedures, ResetsKeepTheLastPressAndAllSlotsButTwo) {
  FP_AUTOIDENTIFY_PARAM_STRUCT& identify = fp_device_param.auto_identify_param;
  std::fill(std::begin(identify.search_id), std::end(identify.search_id), uint16_t{5});
  identify.search_num = 3;
  EXPECT_EQ(fp_auto_identify_param_init(&identify, 3, 0xFFFF, 1), 0);
  EXPECT_EQ(identify.search_id[0] & identify.search_id[1], 0xFFFF);
  EXPECT_EQ(identify.search_id[2], 5);
  EXPECT_EQ(identify.search_num, 0);
  FP_AUTOENROLL_PARAM_STRUCT& enroll = fp_device_param.auto_enroll_param;
  for (auto* results :
       {&enroll.capture_result, &enroll.create_feature_result, &enroll.enroll_result}) {
    std::fill(std::begin(*results), std::end(*results), uint8_t{7});
  }
  enroll.enroll_finish_flag = enroll.current_enroll_flag = enroll.current_enroll_time = 9;
  EXPECT_EQ(fp_auto_enroll_param_init(&enroll, 21, 12), 0);
  for (uint8_t press = 0; press < 15; ++press) {
    EXPECT_EQ(fp_get_enroll_create_feature_result(press), 0xFF);
    EXPECT_EQ(fp_get_enroll_result(press), 0xFF);
  }
  EXPECT_EQ(enroll.capture_result[15], 7);
  EXPECT_EQ(fp_get_enroll_create_feature_result(15), 7);
  EXPECT_EQ(fp_get_enroll_result(15), 7);
  EXPECT_EQ(fp_get_current_enroll_time() + fp_get_enroll_finish_flag(), 0);
  EXPECT_EQ(fp_get_store_template_result(), 0xFF);
  // A press beyond the record has no result.
  EXPECT_EQ(fp_get_enroll_create_feature_result(16), 0xFF);
  EXPECT_EQ(fp_get_enroll_result(255), 0xFF);
}

TEST(Procedures, NullRecordsAreRefused) {
  Recorder trace;
  EXPECT_EQ(fp_auto_enroll_param_init(nullptr, 21, 12), -1);
  EXPECT_EQ(fp_auto_identify_param_init(nullptr, 3, 0xFFFF, 1), -1);
  EXPECT_EQ(fp_get_increment_of_time_ms(nullptr), 0);
  EXPECT_EQ(fp_delete_invalid_template(nullptr), -1);
  EXPECT_EQ(trace.count("error!!!"), 4);
}

TEST(Procedures, ElapsedTimeIsCutTowardsZero) {
  VirtualClock clock;
  const struct {
    int64_t start_us, passed_us;
    int32_t ms;
  } rows[] = {{0, 999, 0}, {999'999, 1, 0}, {999'999, 1001, 1}, {1, 14'999'999, 14'999}};
  for (const auto& row : rows) {
    struct timeval start {};
    clock.sleep_us(row.start_us - clock.now_us() % 1'000'000 + 1'000'000);
    gettimeofday(&start, nullptr);
    clock.sleep_us(row.passed_us);
    EXPECT_EQ(fp_get_increment_of_time_ms(&start), row.ms);
  }
  struct timeval future {};
  gettimeofday(&future, nullptr);
  future.tv_sec += 1;
  future.tv_usec = 500;
  EXPECT_LT(fp_get_increment_of_time_ms(&future), 0);
}

TEST(Procedures, ThePowerUpPollTakesWhatTheModuleFoundAndNoMore) {
  wrx_module::Settings settings = Rig::instant();
  settings.power_up = {.outcome = wrx_module::PowerUpOutcome::match,
                       .slots = {21, 33},
                       .form = wrx_module::ResultForm::list};
  Rig rig(settings);
  rig.configure();
  EXPECT_EQ(init_onekey_powerup_search_id(), 0);
  EXPECT_EQ(get_onekey_powerup_search_id()[19], 0xFFFF);
  EXPECT_EQ(wrx7700_onekey_powerup_identify(&rig.dev), 0);
  EXPECT_EQ(get_onekey_powerup_flag(), 1);
  EXPECT_EQ(get_onekey_powerup_search_num(), 2);
  EXPECT_EQ(get_onekey_powerup_search_id()[1], 33);
  EXPECT_EQ(get_onekey_powerup_search_id()[2], 0xFFFF);
  // Asked once more, there is nothing left to hold: the poll ends without a report.
  EXPECT_EQ(set_onekey_powerup_flag(0), 0);
  EXPECT_EQ(wrx7700_onekey_powerup_identify(&rig.dev), 0);
  EXPECT_EQ(get_onekey_powerup_flag(), 0);
  EXPECT_EQ(get_onekey_powerup_search_num(), 0);
}

TEST(Procedures, CountingAndCheckingLookAtTheUserAlone) {
  Rig rig;
  rig.device.memory().templates = {{21, "thumb"}};
  rig.store({7, 0, {21, 22}});
  rig.store({8, 0, {23}});
  rig.ready();
  EXPECT_EQ(wrx_get_current_user_fingerprint_num(&rig.dev, 7), 1);
  EXPECT_EQ(wrx_get_current_user_fingerprint_num(&rig.dev, 9), 0);
  rig.play("press thumb x2");
  EXPECT_EQ(check_finger_is_enrolled(&rig.dev, 1000, 8, 0), -1);
  EXPECT_EQ(check_finger_is_enrolled(&rig.dev, 1000, 7, 0), 0);
}

// ---- the module's template slots: which one is chosen, which are erased

std::vector<int> range(int first, int last) {
  std::vector<int> slots;
  for (int slot = first; slot <= last; ++slot)
    slots.push_back(slot);
  return slots;
}

class Slots : public testing::Test {
 protected:
  Slots() { rig.ready(); }
  void occupy(const std::vector<int>& slots) {
    rig.device.memory().templates.clear();
    for (const int slot : slots)
      rig.device.memory().templates[static_cast<uint16_t>(slot)] = "f";
  }
  Rig rig;
};

TEST_F(Slots, TheLowestFreeOneOfTwentyIsChosen) {
  const std::pair<std::vector<int>, int> rows[] = {
      {{}, 20},           {{20}, 21},     {range(20, 38), 39},
      {range(0, 31), 32}, {{20, 22}, 21}, {range(20, 39), 65535},
      {{21, 22, 40}, 20},
  };
  for (const auto& [occupied, chosen] : rows) {
    occupy(occupied);
    EXPECT_EQ(fp_get_empty_enroll_id(), chosen);
  }
}

TEST_F(Slots, OccupiedOnesThatNobodyNamesAreErasedInTheirRange) {
  for (int named = 20; named < 40; ++named) {
    occupy({0, 5, 19, 20, 25, 31, 32, 39, 40, 45, 255});
    std::array<uint8_t, 128> list{};
    list[static_cast<size_t>(named / 8)] = static_cast<uint8_t>(1U << named % 8);
    EXPECT_EQ(fp_delete_invalid_template(list.data()), 0);
    std::vector<int> left = {0, 5, 19, 40, 45, 255};
    if (named == 20 || named == 25 || named == 31 || named == 32 || named == 39) {
      left.insert(left.begin() + 3, named);
    }
    EXPECT_EQ(rig.slots(), left);
  }
}

TEST_F(Slots, OneThatCannotBeErasedKeepsNoneBehindItFromIt) {
  occupy({21, 22, 23});
  rig.play("refuse 12 27 x1");
  const std::array<uint8_t, 128> list{};
  EXPECT_EQ(fp_delete_invalid_template(list.data()), 0);
  EXPECT_EQ(rig.slots(), std::vector{21});
  EXPECT_EQ(rig.device.commands().back().params, (std::vector<uint8_t>{0, 23, 0, 1}));
}

TEST_F(Slots, NothingIsChosenOrErasedWithoutAListOrAnIndexTable) {
  occupy({25});
  EXPECT_EQ(fp_delete_invalid_template(nullptr), -1);
  EXPECT_TRUE(rig.trace.saw("fp_delete_invalid_template] index_list = NULL, error!!!"));
  const std::array<uint8_t, 128> list{};
  // An OK to something else, as to a cancel, is read past.
  const auto late = [&] { rig.device.say(std::vector<uint8_t>{0}); };
  for (const char* script : {"refuse 31 27", "set response-delay 3600s"}) {
    rig.play(script);
    late();
    EXPECT_EQ(fp_delete_invalid_template(list.data()), 0);
    late();
    EXPECT_EQ(fp_get_empty_enroll_id(), 65535);
    EXPECT_EQ(rig.slots(), std::vector{25});
    rig.device.settings().refuse.clear();
  }
  rig.play("set response-delay 0s");
  late();
  EXPECT_EQ(fp_delete_invalid_template(list.data()), 0);
  EXPECT_EQ(rig.slots(), std::vector<int>{});
  late();
  EXPECT_EQ(fp_get_empty_enroll_id(), 20);
}

}  // namespace
}  // namespace wrx_test
