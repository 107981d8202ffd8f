// SPDX-License-Identifier: LGPL-2.1-or-later
// The enrol operation: what the user is told, what is refused, what is stored and erased.
#include <gmock/gmock.h>

#include "protocol/packet.h"
#include "support/rig.h"

namespace wrx_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char kFull[] = "注册失败,指纹存储空间已满.";
constexpr char kDuplicate[] = "按压的指纹与已有的指纹模版重复.";
constexpr int kErase = 12;

class Enrolment : public testing::Test {
 protected:
  // A message to the user as the framework's logger gets it.
  int told(const std::string& message) {
    return rig.trace.count("bio_print_debug \"" + message + "\\n\\n\"");
  }
  // `count` features of a user with their templates, from slot 20 + `first` on.
  void store_with_templates(int uid, int first, int count) {
    for (int i = first; i < first + count; ++i) {
      rig.store({uid, i, {20 + i}});
      rig.device.memory().templates[static_cast<uint16_t>(20 + i)] = "f" + std::to_string(i);
    }
  }
  void expect_refused_as_full() {
    EXPECT_EQ(rig.result(), OPS_ENROLL_FAIL);
    EXPECT_EQ(rig.notification(), MID_EXTENDED_MESSAGE);
    EXPECT_EQ(rig.status(), DEVS_COMM_IDLE);
    EXPECT_STREQ(bio_get_notify_mid_mesg(&rig.dev), (std::string(kFull) + "\n").c_str());
    EXPECT_EQ(told(kFull), 1);
    EXPECT_EQ(rig.trace.count(" sleep 2000"), 1);
  }

  Rig rig;
};

TEST(EnrolmentPress, ThatIsBadIsToldAndAskedForAgain) {
  struct Row {
    const char* quality;
    const char* message;
    const char* logged;
  };
  constexpr Row kRows[] = {
      {"duplicate", kDuplicate,
       "Current fingerprint already exist, please press your finger again."},
      {"repeated", "按压的指纹与已有的指纹位置重复.",
       "Current position repeated, please press your finger again."},
      {"smudged", "图像质量差,请再触摸指纹一次.",
       "The quality of current fingerprint is bad, please press your finger again."},
      {"small", "图像面积小,请再触摸指纹一次.",
       "The area of current fingerprint is too small, please press your finger again."},
      {"dry", "注册失败,请再触摸指纹一次.", "enroll_time3 result=0x04, error!!!\\r"},
      {"rejected", "注册失败,再触摸一次.", nullptr},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.quality);
    Rig rig;
    rig.ready();
    rig.play(std::string("press x3; press ") + row.quality + " x2; press x10");
    EXPECT_EQ(rig.enroll(), 0);
    EXPECT_EQ(rig.trace.count(std::string("bio_print_debug \"") + row.message + "\\n\\n\""), 2);
    if (row.logged != nullptr) {
      EXPECT_EQ(rig.trace.count(std::string("wrx7700_ops_enroll] ") + row.logged), 2);
    }
    EXPECT_EQ(rig.trace.count("bio_process_changed"), 12);
    EXPECT_EQ(rig.slots(), std::vector{20});
  }
}

TEST_F(Enrolment, OfAnEleventhFingerIsRefusedBeforeAnyPress) {
  store_with_templates(Rig::kUser, 0, 10);
  rig.ready();
  EXPECT_EQ(rig.enroll(Rig::kUser, 10), -1);
  expect_refused_as_full();
  EXPECT_THAT(rig.asked(), ElementsAre(31, 48));
  EXPECT_TRUE(rig.trace.saw("current user uid 1000, fingerprint_num = 10."));
  EXPECT_EQ(rig.stored().size(), 10u);
}

TEST_F(Enrolment, IsRefusedWhenNoSlotIsFreeKnownOrTaken) {
  store_with_templates(2000, 0, 9);
  store_with_templates(3000, 9, 10);
  // One slot is left: it goes to the first; the others find none, no index table, no readiness.
  for (const char* script : {"press x13", "press late", "refuse 31 27 x2; press late"}) {
    SCOPED_TRACE(script);
    rig.ready();
    rig.play(script);
    const bool first = script[6] == 'x';
    EXPECT_EQ(rig.enroll(), first ? 0 : -1);
    EXPECT_TRUE(rig.trace.saw(first ? "enroll_id = 39\\r" : "enroll_id = 65535\\r"));
    if (!first) expect_refused_as_full();
    rig.close();
  }
  for (const int code : {11, 31}) {  // with a slot free again
    rig.ready();
    rig.clean();
    rig.play("press late; refuse 49 " + std::to_string(code));
    EXPECT_EQ(rig.enroll(), -1);
    EXPECT_TRUE(rig.trace.saw("enroll id out of range!!!"));
    expect_refused_as_full();
    EXPECT_EQ(fp_get_ctrlFlag(), FP_CONTROL_FLAG_IDLE);
    rig.close();
  }
}

TEST_F(Enrolment, OfAKnownFingerIsAskedForAnotherUntilItIsLifted) {
  store_with_templates(Rig::kUser, 0, 1);
  rig.ready();
  rig.play("press other x13; at 0ms; press f0; at 230ms; lift");
  EXPECT_EQ(rig.enroll(Rig::kUser, 1), 0);
  // A check takes 60 ms, the first begins at 20.
  EXPECT_EQ(told(kDuplicate), 4);
  EXPECT_EQ(rig.trace.count(std::string("wrx7700_ops_enroll] ") + kDuplicate), 4);
  EXPECT_EQ(rig.trace.count("identify find nRet= 0"), 4);
  EXPECT_EQ(rig.trace.count("identify find nRet= -1"), 1);
  EXPECT_THAT(rig.stored(), ElementsAre(Stored{Rig::kUser, 0, {20}}, Stored{Rig::kUser, 1, {21}}));
}

TEST_F(Enrolment, OfAFingerThatOnlyAnotherUserHasPasses) {
  store_with_templates(2000, 0, 1);
  rig.ready();
  rig.play("press f0 x13");
  EXPECT_EQ(rig.enroll(), 0);
  EXPECT_EQ(told(kDuplicate), 0);
  EXPECT_EQ(rig.slots(), (std::vector{20, 21}));
}

TEST_F(Enrolment, GoesOnAfterACheckForDuplicatesThatFailed) {
  rig.ready();
  rig.play("refuse 50 27 x1; press x12");
  EXPECT_EQ(rig.enroll(), 0);
  EXPECT_EQ(rig.trace.count("bio_set_notify_abs_mid 30"), 0) << "nothing is said of a refusal";
  rig.play("at 5500ms; press late; at 5600ms; lift");
  EXPECT_EQ(rig.enroll(), -1);  // the check times out after 5 s, then the wait for a second press
  EXPECT_EQ(rig.trace.count("bio_set_ops_abs_result 304"), 1);
  EXPECT_EQ(rig.trace.count("bio_set_ops_abs_result 204"), 1);
  EXPECT_EQ(rig.trace.count("注册开始,请触摸指纹."), 2);
}

TEST_F(Enrolment, StoresUnderTheFirstFreeIndexTheGivenName) {
  store_with_templates(Rig::kUser, 0, 2);
  rig.ready();
  rig.play("press x13; press second x13");
  EXPECT_EQ(rig.enroll(Rig::kUser, -1, "右手 'thumb'"), 0);
  EXPECT_TRUE(rig.trace.saw("uid = 1000, idx = 2, bio_idx_name = 右手 'thumb'\\r"));
  EXPECT_TRUE(
      rig.trace.saw("bio_sto_set_feature_info uid=1000 index=2 name=\"右手 'thumb'\" no=22"));
  EXPECT_EQ(rig.dev.ops_enroll(&rig.dev, ACTION_START, Rig::kUser, -1, nullptr), 0);
  EXPECT_THAT(rig.stored(), Contains(Stored{Rig::kUser, 3, {23}})) << "a name may be missing";
  EXPECT_EQ(rig.result(), OPS_ENROLL_SUCCESS);
  EXPECT_EQ(rig.notification(), NOTIFY_ENROLL_SUCCESS);
}

TEST_F(Enrolment, ErasesAbandonedTemplatesOfItsOwnSlotsOnly) {
  for (const int slot : {0, 5, 19, 20, 25, 39, 40, 45, 255}) {
    rig.device.memory().templates[static_cast<uint16_t>(slot)] = "f" + std::to_string(slot);
  }
  rig.store({2000, 0, {25}});
  rig.store({2000, 1, {-1, 256 + 39}});  // names no slot of the page
  rig.ready();
  rig.play("press x13");
  EXPECT_EQ(rig.enroll(), 0);
  EXPECT_EQ(rig.slots(), (std::vector{0, 5, 19, 20, 25, 40, 45, 255}));
  EXPECT_EQ(rig.trace.count("index = 20 is invalid!!!"), 1);
  EXPECT_EQ(rig.trace.count("index = 39 is invalid!!!"), 1);
  EXPECT_EQ(rig.trace.count("is invalid!!!"), 2);
}

TEST_F(Enrolment, ErasesNothingWhenTheDatabaseCannotBeOpened) {
  store_with_templates(Rig::kUser, 0, 3);
  rig.write_file("feature.db", std::string(4096, 'x'));
  rig.ready();
  rig.play("press");
  EXPECT_EQ(rig.enroll(Rig::kUser, 3), -1) << "nobody presses";
  EXPECT_THAT(rig.asked(), Not(Contains(kErase)));
  EXPECT_EQ(rig.slots(), (std::vector{20, 21, 22}));
  EXPECT_EQ(rig.read_file("feature.db"), std::string(4096, 'x'));
}

TEST_F(Enrolment, WithoutADeviceIsDisabledOrTimesOut) {
  rig.ready();
  rig.dev.enable = 0;
  EXPECT_EQ(rig.enroll(), -1);
  EXPECT_EQ(rig.status(), DEVS_COMM_DISABLE);
  EXPECT_EQ(rig.result(), OPS_COMM_ERROR);
  EXPECT_EQ(rig.notification(), NOTIFY_COMM_DISABLE);
  EXPECT_THAT(rig.asked(), IsEmpty());
  rig.dev.enable = 1;
  bio_host_set_ops_timeout_ms(300);  // smaller than the limit the driver took at its start
  rig.play("press; at 200ms; unplug");
  // 120 ms before the wait, 11 passes of 30 ms, an unanswered send.
  EXPECT_EQ(rig.time_of([&] { EXPECT_EQ(rig.enroll(), -1); }), 120 + 330);
  EXPECT_EQ(rig.result(), OPS_ENROLL_TIMEOUT) << "the handle is still held";
}

}  // namespace
}  // namespace wrx_test
