// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The simulated module in its bootloader, and between its two identities.
#include "support/module_host.h"

using namespace wrx_module;
using wrx_test::Bytes;
using ModuleBootloader = wrx_test::ModuleHost;

namespace {

constexpr uint8_t kErase = 0xD3, kWrite = 0xD7, kReadCrc = 0xA6, kStoreCrc = 0xD9, kSecurity = 0xCC,
                  kRun = 0xE3, kRead = 0xD0, kSerial = 0xA0;
const Bytes kDigits = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};  // CRC-16/X-25 0x906E

Bytes write_of(uint32_t offset, const Bytes& block) {
  Bytes data = {static_cast<uint8_t>(offset), static_cast<uint8_t>(offset >> 8),
                static_cast<uint8_t>(offset >> 16), static_cast<uint8_t>(offset >> 24)};
  data.insert(data.end(), block.begin(), block.end());
  return data;
}

TEST_F(ModuleBootloader, ARewriteEndsInTheNewApplication) {
  play("set next-version 101");
  into_bootloader();
  const int64_t start = clock.now_ms();
  EXPECT_EQ(boot(kErase), Bytes{0});
  EXPECT_EQ(boot(kWrite, write_of(0, kDigits)), Bytes{0});
  EXPECT_EQ(boot(kReadCrc, {0, 0, 0, 0, 9, 0, 0, 0}), (Bytes{0x6E, 0x90}));
  EXPECT_EQ(boot(kStoreCrc, {9, 0, 0, 0, 0x6E, 0x90, 0, 0, 0, 0}), Bytes{0});
  EXPECT_EQ(boot(kRead, {2, 0, 0, 0, 3}), (Bytes{'3', '4', '5'}));
  EXPECT_EQ(boot(kSerial), device.settings().identity.serial);
  EXPECT_EQ(boot(kSecurity), Bytes{0});
  EXPECT_EQ(boot(kRun), Bytes{0});
  clock.sleep_us(299'000);
  EXPECT_FALSE(device.present()) << clock.now_ms() - start;
  clock.sleep_us(1'000);
  EXPECT_EQ(device.present()->product, 0x5300);
  EXPECT_EQ(device.memory().version, 101U);
}

TEST_F(ModuleBootloader, RefusalsChangeNothing) {
  into_bootloader();
  EXPECT_EQ(boot(kWrite, write_of(0, kDigits)), Bytes{4}) << "not erased";
  EXPECT_EQ(boot(kRun), Bytes{5}) << "no security code";
  EXPECT_EQ(boot(kErase), Bytes{0});
  EXPECT_EQ(boot(kSecurity), Bytes{6}) << "nothing stored";
  EXPECT_EQ(boot(kWrite, write_of(0x1FFFF8, kDigits)), Bytes{3});
  EXPECT_EQ(boot(kWrite, write_of(0xFFFFFFFF, kDigits)), Bytes{3});
  EXPECT_EQ(boot(kStoreCrc, {9, 0, 0, 0, 0, 0, 0, 0, 0x20, 0}), Bytes{3});
  EXPECT_EQ(boot(kErase, {1}), Bytes{2});
  EXPECT_EQ(boot(0x77), Bytes{7});
  out(0x04, {0xAA, kErase, 0, 0, 0x2D, 0x55});
  EXPECT_EQ(in(0x84, 64)[4], 1) << "bad check byte";
  out(0x04, {0xAA, kErase, 9, 0, 0x2C, 0x55});
  EXPECT_EQ(in(0x84, 64)[4], 2) << "longer than what came";
  EXPECT_TRUE(device.memory().flash.empty());
  EXPECT_EQ(boot(kWrite, write_of(0, kDigits)), Bytes{0});
  EXPECT_EQ(boot(kWrite, write_of(8, kDigits)), Bytes{4}) << "a byte of it is written";
}

// After every power cut the module is what its flash says.
TEST_F(ModuleBootloader, PowerBringsUpWhatTheFlashHolds) {
  const struct {
    uint8_t type;
    Bytes data;
    Mode after;
  } steps[] = {
      {kSerial, {}, Mode::application},
      {kErase, {}, Mode::bootloader},
      {kWrite, write_of(0, kDigits), Mode::bootloader},
      {kStoreCrc, {9, 0, 0, 0, 0x6F, 0x90, 0, 0, 0, 0}, Mode::bootloader},
      {kStoreCrc, {9, 0, 0, 0, 0x6E, 0x90, 0, 0, 0, 0}, Mode::application},
  };
  into_bootloader();
  for (const auto& step : steps) {
    boot(step.type, step.data);
    const Memory kept = device.memory();
    Device restarted(clock, Settings{}, kept);
    EXPECT_EQ(restarted.present()->mode, step.after) << int{step.type};
  }
  device.power_cycle();
  EXPECT_EQ(out(0x04, {0xAA}), LIBUSB_ERROR_NO_DEVICE) << "the old handle is dead";
}

TEST(ModuleMemory, TheImageNamesItsVersion) {
  for (const uint32_t version : {0U, 123U, 999999U}) {
    EXPECT_EQ(version_in_image(factory_memory(version).flash), version);
    EXPECT_TRUE(bootable(factory_memory(version)));
  }
  EXPECT_EQ(version_in_image(kDigits), std::nullopt);
}

}  // namespace
