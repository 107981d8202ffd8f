// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The script's language, the memory file, and the entry points for programs that load the module.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "module/device/storage.h"
#include "module/play/script.h"
#include "module/usb/simulate.h"
#include "module/usb/usb_front_end.h"

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

/// A module's memory file in a folder of the case's own.
class ModuleStorage : public testing::Test {
 protected:
  ModuleStorage() {
    std::string name = std::filesystem::temp_directory_path() / "wrx-memory-XXXXXX";
    folder = mkdtemp(name.data());
    path = folder / "memory";
  }
  ~ModuleStorage() override {
    wrx_simulate_finish(nullptr, 0);
    std::filesystem::remove_all(folder);
  }
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

/// The entry points for programs that load the simulated module, on the machine's clock.
class ModuleSimulate : public ModuleStorage {
 protected:
  int start(const char* script) {
    return wrx_simulate_start(script, path.c_str(), text, sizeof text);
  }
  static std::string report() {
    std::string json(1000, '\0');
    const int length = wrx_simulate_report(json.data(), json.size());
    json.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return json;
  }
  char text[200] = "";  // of the last error
};

TEST_F(ModuleSimulate, OnlyOneModuleRunsAndItsHandlesDieWithIt) {
  ASSERT_EQ(start("press thumb x3"), 0) << text;
  EXPECT_EQ(start(nullptr), -1);
  EXPECT_STREQ(text, "a module is running already");
  EXPECT_FALSE(MemoryLock().take(path, error));
  EXPECT_EQ(error, path + ": another program has this module");
  EXPECT_NE(report().find("\"presses_left\":3"), std::string::npos) << report();
  char little[9] = "";
  EXPECT_GT(wrx_simulate_report(little, sizeof little), 100);
  EXPECT_EQ(std::string(little), report().substr(0, 8));
  libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, 0x4d2e, 0x5300);
  ASSERT_EQ(wrx_simulate_finish(text, sizeof text), 0) << text;
  unsigned char byte = 0;
  EXPECT_EQ(libusb_bulk_transfer(handle, 1, &byte, 1, nullptr, 0), LIBUSB_ERROR_NO_DEVICE);
  libusb_close(handle);
  EXPECT_EQ(report(), "");
}

TEST_F(ModuleSimulate, AMistakeStartsNothingAndADamagedFileStays) {
  EXPECT_EQ(start("press; dance"), -1);
  EXPECT_STREQ(text, "line 1, column 8: unknown verb 'dance'");
  std::ofstream(path) << "precious";
  EXPECT_EQ(start(nullptr), -1);
  EXPECT_EQ(text, path + ": not a module's memory");
  EXPECT_EQ(wrx_simulate_finish(text, sizeof text), -1);
  EXPECT_EQ(std::filesystem::file_size(path), 8U);
}

TEST_F(ModuleSimulate, AScriptPlayedMeanwhileEndsAWait) {
  ASSERT_EQ(start(nullptr), 0) << text;
  libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, 0x4d2e, 0x5300);
  std::thread other([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    wrx_simulate_play("unplug", nullptr, 0);
  });
  unsigned char data[64];
  EXPECT_EQ(libusb_bulk_transfer(handle, 0x81, data, 64, nullptr, 0), LIBUSB_ERROR_NO_DEVICE);
  other.join();
  libusb_close(handle);
}

}  // namespace
