// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The script's language, and the memory file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "module/device/storage.h"
#include "module/play/script.h"

using namespace wrx_module;

namespace {

TEST(ModuleScript, AMistakeIsShownWhereItStands) {
  const struct {
    const char* text;
    const char* error;
  } rows[] = {
      {"dance", "line 1, column 1: unknown verb 'dance'"},
      {"press; \n  lift now", "line 2, column 8: unexpected 'now'"},
      {"at 2s; at 1s", "line 1, column 11: time goes forward only"},
      {"at 1s; press x2", "line 1, column 14: a press at its moment happens once"},
      {"press x0", "line 1, column 7: expected xN with N from 1 to 1000 instead of 'x0'"},
      {"press code 256", "line 1, column 12: expected a confirm code, 0 to 255"},
      {"fault at 0 stall", "line 1, column 10: expected the number of a transfer, 1 to 1000000000"},
      {"fault at 1 flood", "line 1, column 12: unknown kind of fault 'flood'"},
      {"fault at 1 delay", "line 1, column 17: expected a time such as 300ms"},
      {"powerup maybe", "line 1, column 9: expected match, nomatch or none"},
      {"set speed 1", "line 1, column 5: unknown setting 'speed'"},
  };
  for (const auto& row : rows) {
    const ParsedScript parsed = parse_script(row.text);
    ASSERT_TRUE(parsed.error) << row.text;
    EXPECT_EQ(parsed.error->text(), row.error);
    EXPECT_TRUE(parsed.script.steps.empty());
  }
}

TEST(ModuleScript, WordsBecomeStepsAtTheirMoments) {
  const auto parsed = parse_script(
      "finger index  # who\n"
      "press smudged x3; press thumb; press code 38\n"
      "\n"
      "at 300ms; press; wait 50ms; lift; fault at 3 delay 10ms");
  ASSERT_FALSE(parsed.error) << parsed.error->text();
  const auto& steps = parsed.script.steps;
  ASSERT_EQ(steps.size(), 6U);
  const auto& smudged = std::get<PressAction>(steps[0].action);
  EXPECT_EQ(smudged.press.finger, "index");
  EXPECT_EQ(smudged.press.feature, 49);
  EXPECT_EQ(smudged.times, 3);
  EXPECT_FALSE(steps[0].at_us);
  EXPECT_EQ(std::get<PressAction>(steps[1].action).press.finger, "thumb");
  EXPECT_EQ(std::get<PressAction>(steps[2].action).press.feature, 38);
  EXPECT_EQ(steps[3].at_us, 300'000);
  EXPECT_EQ(steps[4].at_us, 350'000);
  EXPECT_EQ(std::get<FaultAction>(steps[5].action).fault.value, 10'000);
}

TEST(ModuleScript, EverySettingAndFaultCanBeSaid) {
  for (std::string name : setting_names()) {
    if (const auto bar = name.find('|'); bar != std::string::npos) name.resize(bar);
    if (name.ends_with(" N")) name.back() = '7';
    if (name.ends_with(" TIME")) name.replace(name.size() - 4, 4, "7ms");
    EXPECT_FALSE(parse_script("set " + name).error) << name;
  }
  for (int kind = 0; kind <= static_cast<int>(FaultKind::death); ++kind) {
    std::string text = "fault at 1 " + std::string(fault_name(static_cast<FaultKind>(kind)));
    const FaultValue value = fault_value(static_cast<FaultKind>(kind));
    if (value != FaultValue::none) text += value == FaultValue::time ? " 7ms" : " 7";
    EXPECT_FALSE(parse_script(text).error) << text;
  }
}

class ModuleStorage : public testing::Test {
 protected:
  ModuleStorage() {
    std::string name = std::filesystem::temp_directory_path() / "wrx-memory-XXXXXX";
    folder = mkdtemp(name.data());
    path = folder / "memory";
  }
  ~ModuleStorage() override { std::filesystem::remove_all(folder); }
  std::filesystem::path folder;
  std::string path, error;
};

TEST_F(ModuleStorage, MemoryComesBackAsItWas) {
  Memory memory = factory_memory(123);
  memory.templates = {{20, "thumb"}, {1023, "little_finger"}};
  memory.new_image = true;
  Memory back;
  EXPECT_EQ(load_memory(path, back, error), LoadResult::absent);
  ASSERT_TRUE(save_memory(path, memory, error)) << error;
  ASSERT_EQ(load_memory(path, back, error), LoadResult::loaded) << error;
  EXPECT_EQ(back.templates, memory.templates);
  EXPECT_EQ(back.flash, memory.flash);
  EXPECT_EQ(memory_to_text(back), memory_to_text(memory));
  EXPECT_FALSE(save_memory(folder / "no" / "memory", memory, error));
  EXPECT_NE(error.find("No such file"), std::string::npos);
}

// Whatever byte is lost or changed, the file is refused and the memory in hand stays.
TEST_F(ModuleStorage, ADamagedFileIsRefused) {
  Memory memory = factory_memory(1);
  memory.flash.resize(64);
  const std::string text = memory_to_text(memory);
  for (size_t i = 0; i < text.size(); ++i) {
    std::string changed = text;
    changed[i] = changed[i] == '0' ? '1' : '0';
    EXPECT_FALSE(memory_from_text(changed, error)) << i;
    EXPECT_FALSE(memory_from_text(text.substr(0, i), error)) << i;
  }
  std::ofstream(path) << text.substr(0, text.size() - 1);
  EXPECT_EQ(load_memory(path, memory, error), LoadResult::failed);
  EXPECT_EQ(error, path + ": the file is damaged: its checksum does not fit");
  EXPECT_EQ(memory.version, 1U);
}

}  // namespace
