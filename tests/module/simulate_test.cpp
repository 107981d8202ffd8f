// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The entry points for programs that load the simulated module, on the machine's clock.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "module/device/clock.h"
#include "module/device/storage.h"
#include "module/usb/simulate.h"
#include "module/usb/usb_front_end.h"

namespace {

class ModuleSimulate : public testing::Test {
 protected:
  ModuleSimulate() {
    std::string name = std::filesystem::temp_directory_path() / "wrx-simulate-XXXXXX";
    folder = mkdtemp(name.data());
    file = folder / "memory";
  }
  ~ModuleSimulate() override {
    wrx_simulate_finish(nullptr, 0);
    std::filesystem::remove_all(folder);
  }
  int start(const char* script) {
    return wrx_simulate_start(script, file.c_str(), error, sizeof error);
  }
  static std::string report() {
    std::string text(1000, '\0');
    const int length = wrx_simulate_report(text.data(), text.size());
    text.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return text;
  }
  std::filesystem::path folder;
  std::string file;
  char error[200] = "";
};

TEST_F(ModuleSimulate, OnlyOneModuleRunsAndItsHandlesDieWithIt) {
  ASSERT_EQ(start("press thumb x3"), 0) << error;
  EXPECT_EQ(start(nullptr), -1);
  EXPECT_STREQ(error, "a module is running already");
  std::string why;
  EXPECT_FALSE(wrx_module::MemoryLock().take(file, why));
  EXPECT_EQ(why, file + ": another program has this module");
  EXPECT_NE(report().find("\"presses_left\":3"), std::string::npos) << report();
  char little[9] = "";
  EXPECT_GT(wrx_simulate_report(little, sizeof little), 100);
  EXPECT_EQ(std::string(little), report().substr(0, 8));
  libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, 0x4d2e, 0x5300);
  ASSERT_EQ(wrx_simulate_finish(error, sizeof error), 0) << error;
  unsigned char byte = 0;
  EXPECT_EQ(libusb_bulk_transfer(handle, 1, &byte, 1, nullptr, 0), LIBUSB_ERROR_NO_DEVICE);
  libusb_close(handle);
  EXPECT_EQ(report(), "");
}

TEST_F(ModuleSimulate, AMistakeStartsNothingAndADamagedFileStays) {
  EXPECT_EQ(start("press; dance"), -1);
  EXPECT_STREQ(error, "line 1, column 8: unknown verb 'dance'");
  std::ofstream(file) << "precious";
  EXPECT_EQ(start(nullptr), -1);
  EXPECT_EQ(error, file + ": not a module's memory");
  EXPECT_EQ(wrx_simulate_finish(error, sizeof error), -1);
  EXPECT_EQ(std::filesystem::file_size(file), 8U);
}

TEST_F(ModuleSimulate, AScriptPlayedMeanwhileEndsAWait) {
  ASSERT_EQ(start(nullptr), 0) << error;
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

TEST(ModuleRealClock, AWaitIsNotLongerThanItsEnd) {
  wrx_module::RealClock clock;
  const int64_t start = clock.now_us();
  clock.wait_until_or_poked(start - 1);
  clock.poke();
  clock.wait_until_or_poked(wrx_module::kNever);
  EXPECT_LT(clock.now_us() - start, 1'000'000);
}

}  // namespace
