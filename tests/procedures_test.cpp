// SPDX-License-Identifier: LGPL-2.1-or-later
// The module-side procedures and their records, called directly.
#include <gtest/gtest.h>

#include "fp_device_param.h"
#include "operations/module_procedures.h"
#include "operations/operations.h"
#include "powerup_flag.h"
#include "protocol/packet.h"
#include "support/rig.h"

namespace wrx_test {
namespace {

TEST(Procedures, AnEnrolmentResetKeepsTheLastPress) {
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
}

TEST(Procedures, APressBeyondTheRecordHasNoResult) {
  Recorder trace;
  EXPECT_EQ(fp_get_enroll_create_feature_result(16), 0xFF);
  EXPECT_EQ(fp_get_enroll_result(255), 0xFF);
  EXPECT_EQ(trace.lines(), (std::vector<std::string>{
                               "[operations:#:fp_get_enroll_create_feature_result] "
                               "enroll_time = 16, error!!!\\r",
                               "[operations:#:fp_get_enroll_result] enroll_time = 255, error!!!\\r",
                           }));
}

TEST(Procedures, AnIdentificationResetClearsTwoSlotsOnly) {
  FP_AUTOIDENTIFY_PARAM_STRUCT& identify = fp_device_param.auto_identify_param;
  std::fill(std::begin(identify.search_id), std::end(identify.search_id), uint16_t{5});
  identify.search_num = 3;
  EXPECT_EQ(fp_auto_identify_param_init(&identify, 3, 0xFFFF, 1), 0);
  EXPECT_EQ(identify.search_id[0] & identify.search_id[1], 0xFFFF);
  EXPECT_EQ(identify.search_id[2], 5);
  EXPECT_EQ(identify.search_num, 0);
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

}  // namespace
}  // namespace wrx_test
