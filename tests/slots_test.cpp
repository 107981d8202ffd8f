// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's template slots: which one is chosen, which are erased.
#include <gmock/gmock.h>

#include <array>

#include "operations/module_procedures.h"
#include "support/rig.h"

namespace wrx_test {
namespace {

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
  for (const char* script : {"refuse 31 27", "set response-delay 3600s"}) {
    rig.play(script);
    const std::array<uint8_t, 128> list{};
    EXPECT_EQ(fp_delete_invalid_template(list.data()), 0);
    EXPECT_EQ(fp_get_empty_enroll_id(), 65535);
    EXPECT_EQ(rig.slots(), std::vector{25});
    rig.device.settings().refuse.clear();
  }
}

TEST_F(Slots, ErasingReportsRefusalsButOnlyTheLibraryForgivesSilence) {
  occupy({3, 300 % 256, 25});
  EXPECT_EQ(fp_delete_template(258, 1), -1) << "beyond the library";
  EXPECT_EQ(rig.device.commands().back().params, (std::vector<uint8_t>{1, 2, 0, 1}));
  EXPECT_TRUE(rig.trace.saw("delete_template_result = 0x0b, error!!!"));
  rig.play("refuse 13 27 x1");
  EXPECT_EQ(fp_empty_template(), -1);
  EXPECT_TRUE(rig.trace.saw("empty_template_result = 0x1b, error!!!"));
  EXPECT_EQ(rig.slots().size(), 3u);
  EXPECT_EQ(fp_empty_template(), 0);
  EXPECT_TRUE(rig.slots().empty());
  rig.device.unplug();
  EXPECT_EQ(fp_delete_template(25, 1), -1);
  EXPECT_TRUE(rig.trace.saw("fp_delete_template] fp_send_cmd failed!!!"));
  EXPECT_EQ(fp_empty_template(), 0);
  EXPECT_EQ(fp_device_param.empty_template_result, 0xFF);
}

}  // namespace
}  // namespace wrx_test
