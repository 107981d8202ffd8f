// SPDX-License-Identifier: LGPL-2.1-or-later
// Every operation takes exactly the waits it is made of, to the millisecond, at a module that does
// everything at once; and so does a user's stop.
//
// What the sums below consist of, for a module that answers empty reads at once (A) and for one
// that lets them run into their limit of 1000 ms (B):
//
//   exchange     20                 A and B: the answer is there after the first wait
//   drain        A: 0               B: 1000; the first read that fails ends it
//   cancel       A: 20              B: 20 + 1000: an exchange and a drain
//   empty pass   A: its pause       B: 1000 + its pause
#include <gtest/gtest.h>
#include <sys/time.h>

#include <array>
#include <csignal>
#include <thread>

#include "base/pause.h"
#include "operations/module_procedures.h"
#include "protocol/packet.h"
#include "protocol/procedures.h"
#include "support/rig.h"

namespace wrx_test {
namespace {

using wrx_module::Batch;
using wrx_module::EmptyRead;

struct Row {
  const char* what;
  Batch batch;
  const char* script;
  void (*call)(Rig&);
  int64_t at_once_ms;
  int64_t times_out_ms;
};

constexpr Batch kReport = Batch::one_report, kStep = Batch::one_step;
constexpr auto verify = [](Rig& rig) { rig.verify(); };
constexpr auto identify = [](Rig& rig) { rig.identify(); };
constexpr auto search = [](Rig& rig) { rig.search(); };
constexpr auto enroll = [](Rig& rig) { rig.enroll(); };
constexpr auto start = [](Rig& rig) { rig.close(), rig.start(); };
constexpr auto clean = [](Rig& rig) {
  rig.store({Rig::kUser, 0, {20, 21}});
  rig.store({Rig::kUser, 1, {22}});
  rig.clean();
};
constexpr auto cancel = [](Rig&) { fp_cancel(); };
constexpr auto erase = [](Rig&) { fp_delete_template(20, 1); };
constexpr auto index_table = [](Rig&) { fp_read_index_table(0); };

constexpr Row kRows[] = {
    {"exchange", kReport, "", erase, 20, 20},
    {"cancel", kReport, "", cancel, 20, 20 + 1000},
    // wait + 5 attempts, the pause after the last one included; the module answers too late.
    {"unanswered exchange", kReport, "set response-delay 3600s", erase, 20 + 5 * 20,
     20 + 5 * (1000 + 20)},
    {"unanswered index table", kReport, "set response-delay 3600s", index_table, 20 + 10 * 20,
     20 + 10 * (1000 + 20)},
    // drain + start + cancel; one pass more when the capture is reported by itself.
    {"verify", kStep, "press", verify, 0 + 20 + 20, 1000 + 20 + 1020},
    {"verify with a capture report", kReport, "press", verify, 20 + 20 + 20, 1000 + 20 + 20 + 1020},
    {"search", kStep, "press", search, 20 + 20, 1000 + 20 + 1020},
    {"identify", kStep, "press", identify, 20 + 20, 20 + 1020},
    // drain, index table, start and end of the duplicate check, index table, start, presses,
    // cancel.
    {"enrolment, a press a read", kStep, "press x13", enroll, 20 + 40 + 20 + 20 + 0 + 20,
     1000 + 20 + 1040 + 20 + 20 + 0 + 1020},
    // Three reads a press and three at the end, a pause of 30 between those of a press; one more
    // pass of 20 in the duplicate check.
    {"enrolment, a report a read", kReport, "press x13", enroll, 20 + 60 + 40 + 12 * 60 + 60 + 20,
     1000 + 20 + 1060 + 40 + 12 * 60 + 60 + 1020},
    // The limit of 5000 has passed after 251 pauses of 20 (5 passes of 1020); it is tested before
    // the read.
    {"verify without a finger", kReport, "", verify, 20 + 251 * 20 + 20,
     1000 + 20 + 5 * 1020 + 1020},
    // 167 pauses of 30 (4 passes of 1030 and the fifth read): here it is tested after the read.
    {"enrolment without a finger", kReport, "press", enroll, 20 + 60 + 40 + 167 * 30 + 20,
     1000 + 20 + 1060 + 40 + 4 * 1030 + 1000 + 1020},
    {"refusal at a full library", kStep, "press; refuse 49 31", enroll,
     20 + 40 + 20 + 20 + 2000 + 20, 1000 + 20 + 1040 + 20 + 20 + 2000 + 1020},
    // drain, start, 5 polls, cancel, version and the pause behind it.
    {"start", kReport, "", start, 20 + 5 * 20 + 20 + 20 + 20,
     1000 + 20 + 5 * 1020 + 1020 + 20 + 20},
    {"clean of three templates", kReport, "", clean, 3 * 20, 3 * 20},
    {"open and close", kReport, "", [](Rig& rig) { rig.close(), rig.open(); }, 0, 0},
};

TEST(Waits, OfEveryOperationAddUp) {
  for (const EmptyRead empty : {EmptyRead::answers_empty, EmptyRead::times_out}) {
    for (const Row& row : kRows) {
      SCOPED_TRACE(row.what);
      wrx_module::Settings settings;
      settings.link = {.empty_read = empty, .batch = row.batch};
      Rig rig(settings);
      rig.ready();
      rig.play(row.script);
      const bool at_once = empty == EmptyRead::answers_empty;
      EXPECT_EQ(rig.time_of([&] { row.call(rig); }), at_once ? row.at_once_ms : row.times_out_ms);
    }
  }
}

TEST(Waits, TheModulesOwnTimeEndsWithThePassThatSeesIt) {
  wrx_module::Settings settings = Rig::instant();
  settings.link.batch = kStep;
  settings.procedure.search_us = 333'000;  // from the start's 20 on: passes at 20, 40 … 340
  Rig rig(settings);
  rig.ready();
  rig.play("press");
  EXPECT_EQ(rig.time_of([&] { rig.verify(); }), 340 + 20);
}

TEST(Stop, WaitsTenMillisecondsAPassUpToItsLimitOrAnAnswer) {
  const struct {
    int status, waiting_ms, answer, waited_ms;  // the answer comes at 45 ms
  } rows[] = {{DEVS_COMM_IDLE, 3000, kStopIdle, 0},
              {DEVS_CLEAN_DOING, 5000, kStopRequested, 3000},  // is none
              {DEVS_CLEAN_DOING, 95, kStopRequested, 100},
              {DEVS_CLEAN_DOING, 11, kStopRequested, 20},
              {DEVS_CLEAN_DOING, 0, kStopRequested, 0},
              {DEVS_CLEAN_DOING, 3000, kStopIdle, 50},
              {DEVS_CLEAN_DOING, 3000, kStopAcknowledged, 50},
              {DEVS_CLEAN_DOING, 3000, kStopEnded, 50}};
  for (const auto& row : rows) {
    Rig rig;
    rig.ready();
    bio_set_dev_status(&rig.dev, row.status);
    if (row.answer != kStopRequested)
      rig.clock.at(rig.clock.now_us() + 45'000, [&] { rig.info().ctrlFlag = row.answer; });
    int result = -1;
    EXPECT_EQ(rig.time_of([&] { result = rig.dev.ops_stop_by_user(&rig.dev, row.waiting_ms); }),
              row.waited_ms);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(rig.trace.saw("wrx7700_ops_stop_by_user] end."), row.answer == kStopRequested);
    EXPECT_EQ(fp_get_ctrlFlag(),
              row.status == DEVS_COMM_IDLE ? FP_CONTROL_FLAG_IDLE : FP_CONTROL_FLAG_STOPPED);
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

TEST(Waits, AreNotCutShortByTheHostsSignals) {
  Rig rig;
  rig.ready();
  rig.clock.retire();
  bio_set_dev_status(&rig.dev, DEVS_CLEAN_DOING);
  signal(SIGALRM, [](int) {});
  const itimerval often = {{0, 2000}, {0, 2000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  const int64_t start_us = wrx::monotonic_us();
  rig.dev.ops_stop_by_user(&rig.dev, 30);
  EXPECT_GE(wrx::monotonic_us() - start_us, 30'000);
}

TEST(Procedures, RefuseNullRecordsAndPressesBeyondThem) {
  VirtualClock clock;
  Recorder trace;
  const std::array<uint8_t, 128> nobodys{};
  EXPECT_EQ(fp_delete_invalid_template(nobodys.data()), 0) << "no index table";
  trace.clear();
  EXPECT_EQ(fp_auto_enroll_param_init(nullptr, 21, 12), -1);
  EXPECT_EQ(fp_auto_identify_param_init(nullptr, 3, 0xFFFF, 1), -1);
  EXPECT_EQ(fp_get_increment_of_time_ms(nullptr), 0);
  EXPECT_EQ(fp_delete_invalid_template(nullptr), -1);
  EXPECT_EQ(fp_get_enroll_create_feature_result(15), 0);
  EXPECT_EQ(fp_get_enroll_create_feature_result(16), 0xFF);
  EXPECT_EQ(fp_get_enroll_result(255), 0xFF);
  EXPECT_EQ(trace.count("error!!!"), 6);
}

TEST(Procedures, ElapsedTimeIsCutTowardsZero) {
  VirtualClock clock;
  const struct {
    int64_t start_us, passed_us;
    int32_t ms;
  } rows[] = {{0, 999, 0}, {999'999, 1001, 1}, {1, 14'999'999, 14'999}, {2'000'000, -999, 0}};
  for (const auto& row : rows) {
    const int64_t at_us = clock.now_us() + row.start_us - std::min<int64_t>(row.passed_us, 0);
    struct timeval tv = {VirtualClock::kEpoch + at_us / 1'000'000, at_us % 1'000'000};
    clock.sleep_us(at_us + row.passed_us - clock.now_us());
    EXPECT_EQ(fp_get_increment_of_time_ms(&tv), row.ms);
  }
}

}  // namespace
}  // namespace wrx_test
