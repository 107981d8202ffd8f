// SPDX-License-Identifier: LGPL-2.1-or-later
// Whole scenarios as golden traces: every transfer, framework call, wait and line, in order.
#include <gtest/gtest.h>

#include "support/rig.h"

namespace wrx_test {
namespace {

wrx_module::Settings paced() {
  wrx_module::Settings settings = Rig::instant();
  settings.usb.out_cost_us = 125;
  settings.usb.in_cost_us = 250;
  return settings;
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

}  // namespace
}  // namespace wrx_test
