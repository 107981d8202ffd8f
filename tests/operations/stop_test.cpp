// SPDX-License-Identifier: LGPL-2.1-or-later
// A user's stop: seen within a pass of the wait that runs, acknowledged after the cancel behind it,
// and the stop callback's own wait.
#include <gmock/gmock.h>

#include <thread>

#include "operations/module_procedures.h"
#include "protocol/packet.h"
#include "support/rig.h"

namespace wrx_test {
namespace {

constexpr int kCancelMs = 20;

// Runs `operation` with a stop after `at_ms`; the time from the stop to the operation's end, or
// nothing when the operation had ended before or went through.
std::optional<int64_t> stopped(Rig& rig, int64_t at_ms, const std::function<int()>& operation) {
  rig.trace.clear();
  rig.stop_at(at_ms);
  const int64_t begun = rig.clock.now_ms();
  const int result = operation();
  const int64_t answered = rig.clock.now_ms() - begun - at_ms;
  rig.clock.join();
  if (result == 0) return std::nullopt;
  EXPECT_EQ(rig.result(), OPS_COMM_STOP_BY_USER);
  EXPECT_EQ(rig.notification(), NOTIFY_COMM_STOP_BY_USER);
  EXPECT_EQ(rig.status(), DEVS_COMM_IDLE);
  EXPECT_EQ(rig.info().ctrlFlag, kStopAcknowledged);
  EXPECT_EQ(fp_get_ctrlFlag(), FP_CONTROL_FLAG_IDLE);
  EXPECT_FALSE(rig.trace.saw("wrx7700_ops_stop_by_user] end.")) << "the callback gave up";
  return answered;
}

TEST(Stop, EndsAMatchingOperationWithinAPassAndACancel) {
  Rig rig;
  rig.ready();
  const std::function<int()> operations[] = {[&] { return rig.verify(); },
                                             [&] { return rig.identify(); },
                                             [&] { return rig.search().empty() ? -1 : 0; }};
  for (const auto& operation : operations) {
    for (int64_t at_ms = 0; at_ms < 150; at_ms += 3) {
      const auto answered = stopped(rig, at_ms, operation);
      ASSERT_TRUE(answered);
      // The first 20 ms belong to the exchange that starts the search.
      EXPECT_LE(*answered, 20 + kCancelMs) << "stop at " << at_ms;
    }
  }
}

TEST(Stop, EndsAnEnrolmentAtAnyMomentAndStoresNothing) {
  wrx_module::Settings settings = Rig::instant();
  settings.procedure.press_gap_us = 50'000;
  Rig rig(settings);
  rig.ready();
  int went_through = 0;
  for (int64_t at_ms = 0; at_ms < 2000; at_ms += 17) {
    SCOPED_TRACE(at_ms);
    rig.play("press x13");
    const auto answered = stopped(rig, at_ms, [&] { return rig.enroll(); });
    // The duplicate check waits from 40 to 160. A stop ends it, but is acted on by the wait for
    // presses, which a cancel, the index table and the start keep back.
    const int64_t check = std::max<int64_t>(40 - at_ms, 20) + int64_t{3} * 20;
    if (answered) {
      EXPECT_LE(*answered, (at_ms < 160 ? check : 30) + kCancelMs);
      EXPECT_TRUE(rig.stored().empty());
    } else {
      ++went_through;
    }
    rig.device.sensor().clear_queue();
    rig.device.memory().templates.clear();
    rig.clean();
    rig.close();
    rig.open();
  }
  EXPECT_GT(went_through, 0) << "the sweep is to reach the end of an enrolment";
}

TEST(Stop, OfAnIdleDeviceTouchesNothing) {
  Rig rig;
  rig.ready();
  EXPECT_EQ(rig.time_of([&] { EXPECT_EQ(rig.dev.ops_stop_by_user(&rig.dev, 3000), 0); }), 0);
  EXPECT_EQ(rig.info().ctrlFlag, kStopIdle);
  EXPECT_EQ(fp_get_ctrlFlag(), FP_CONTROL_FLAG_IDLE);
  EXPECT_TRUE(rig.trace.saw("_Device wrx5300[7] received interrupt request"));
}

TEST(Stop, WaitsTenMillisecondsAPassUpToItsLimitOrAnAnswer) {
  const struct {
    int waiting_ms, answer, waited_ms;  // the answer comes at 45 ms; kStopRequested: none
  } rows[] = {{5000, kStopRequested, 3000},  {3000, kStopRequested, 3000},
              {95, kStopRequested, 100},     {0, kStopRequested, 0},
              {-7, kStopRequested, 0},       {3000, kStopIdle, 50},
              {3000, kStopAcknowledged, 50}, {3000, kStopEnded, 50}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.waiting_ms);
    Rig rig;
    rig.ready();
    bio_set_dev_status(&rig.dev, DEVS_CLEAN_DOING);  // busy with what looks for no stop
    if (row.answer != kStopRequested)
      rig.clock.at(rig.clock.now_us() + 45'000, [&] { rig.info().ctrlFlag = row.answer; });
    EXPECT_EQ(rig.time_of([&] { rig.dev.ops_stop_by_user(&rig.dev, row.waiting_ms); }),
              row.waited_ms);
    EXPECT_TRUE(rig.trace.saw("wrx7700_ops_stop_by_user: timeout = " +
                              std::to_string(std::min(row.waiting_ms, 3000)) + "."));
    EXPECT_EQ(rig.trace.saw("wrx7700_ops_stop_by_user] end."), row.answer == kStopRequested);
    EXPECT_EQ(rig.info().ctrlFlag, row.answer);
    EXPECT_EQ(fp_get_ctrlFlag(), FP_CONTROL_FLAG_STOPPED);
    rig.close();
    EXPECT_EQ(rig.info().ctrlFlag, kStopIdle);
    rig.open();
    EXPECT_EQ(fp_get_ctrlFlag(), FP_CONTROL_FLAG_IDLE);
  }
}

TEST(Stop, AndALimitLoseToAFinishAndAStopWinsOverAStep) {
  for (const bool stop : {true, false}) {
    Rig rig;
    rig.ready();
    rig.play("press x2");
    ASSERT_EQ(fp_auto_enroll_start(20, 2, 0), 0);
    for (int report = 0; report < 3 && stop; ++report)
      fp_read_and_parse_prot(64);
    if (stop) fp_set_ctrlFlag(FP_CONTROL_FLAG_STOPPED);
    EXPECT_EQ(fp_auto_enroll(stop ? 1000 : 0), -1);
    EXPECT_EQ(fp_get_ctrlFlag(), stop ? FP_CONTROL_FLAG_STOPPED : FP_CONTROL_FLAG_TIMEOUT);
    while (fp_get_enroll_finish_flag() == 0)
      fp_read_and_parse_prot(64);
    EXPECT_EQ(rig.time_of([&] { EXPECT_EQ(fp_auto_enroll(stop ? 1000 : 0), 0); }), 0);
    EXPECT_EQ(fp_device_param.auto_enroll_param.current_enroll_flag, 1) << "the step is not taken";
  }
}

// In real time, with nothing virtual between the two threads: for the sanitizers.
TEST(Stop, FromAThreadOfItsOwnInRealTime) {
  wrx_module::RealClock real;
  wrx_module::Device module(real, Rig::instant());
  Rig rig;
  rig.clock.retire();
  wrx_module::bus().detach(rig.device);
  wrx_module::bus().set_clock(real);
  wrx_module::bus().attach(module);
  rig.ready();
  for (int round = 0; round < 3; ++round) {
    std::thread user([&] {
      while (rig.status() != DEVS_VERIFY_DOING)
        usleep(1000);
      usleep(30'000);
      rig.dev.ops_stop_by_user(&rig.dev, 3000);
    });
    EXPECT_EQ(rig.verify(), -1);
    user.join();
    EXPECT_EQ(rig.result(), OPS_COMM_STOP_BY_USER);
    EXPECT_EQ(rig.info().ctrlFlag, kStopAcknowledged);
  }
}

}  // namespace
}  // namespace wrx_test
