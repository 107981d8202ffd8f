// SPDX-License-Identifier: LGPL-2.1-or-later
// The firmware upgrade from the start of the driver: which image, whether, when, and what it costs.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/lower_rooms.h"
#include "upgrade/upgrade_support.h"

namespace wrx_test {
namespace {

using wrx_module::Call;

constexpr char kExtraFolder[] = "etc/wrx6600/extra/";
constexpr char kReboot[] = "ef01ffffffff01000bffc33c96694b52544d0447";
constexpr int64_t kFlash = 2097152;

TEST(Upgrade, ForcedUpgradeAsOneTrace) {
  const std::string difference = in_fresh_process([] {
    wrx_module::Settings settings = Rig::instant();
    settings.usb.out_cost_us = 125;
    settings.usb.in_cost_us = 250;
    Rig rig(settings);
    rig.install_firmware("ACM32FP_V100", image_of(700));
    rig.write_file(kExtraConfigFile,
                   "# what this group is for\n\n[BASIC_PARAM]\n"
                   "UpgradeMode=FORCE_UPGRADE\nUpgradeFlag=2\n");
    rig.start();
    rig.show_file(kExtraConfigFile);
    rig.discover();
    rig.step("get_upgrade_state", [] { return int{get_upgrade_state()}; });
    return golden_difference("upgrade-forced", rig.trace.lines());
  });
  EXPECT_EQ(difference, "");
}

struct Row {
  std::string mode;
  int version;  // of the image; the module has 100
  int budget;
  int64_t image;  // bytes, -1: no file

  std::string name() const { return "ACM32FP_V" + std::to_string(version); }
  std::string config(int left) const {
    return "[BASIC_PARAM]\n" + (mode.empty() ? "" : "UpgradeMode=" + mode + "\n") +
           "UpgradeFlag=" + std::to_string(left) + "\n";
  }
  bool due() const {
    if (mode == "FORCE_UPGRADE") return true;
    if (mode == "AUTO_UPGRADE" || mode.empty()) return version != 100;
    return mode == "SMART_UPGRADE" && version > 100;
  }
  // Worked out from the rules alone. Looking at an image that is not due costs a unit too.
  std::string expected() const {
    if (budget == 0) return "left alone, " + config(0);
    if (!due()) return "left alone, " + config(budget - 1);
    if (image < 1 || image > kFlash) return "left alone, " + config(budget);
    return "rewritten, " + config(budget - 1);
  }
};

// One start. A rewrite counts only if each byte said to the bootloader is the prescribed one and
// the module was rebooted once for it; left alone means that nothing of the kind happened.
std::string actual(const Row& row) {
  Rig rig;
  const wrx_module::Memory before = rig.device.memory();
  BootWire wire(rig);
  const std::string file = kExtraFolder + row.name() + ".bin";
  const std::string image = image_of(static_cast<size_t>(std::max<int64_t>(row.image, 0)));
  rig.install_firmware(row.name(), image);
  if (row.image < 0) std::filesystem::remove(file);
  rig.extra_config(row.config(row.budget).substr(row.config(0).find('\n') + 1));
  rig.start();
  const bool rewritten = wire.said() == rewrite_of(image) && holds(rig.device.memory(), image) &&
                         rig.trace.count(kReboot) == 1;
  const bool left_alone = wire.said().empty() && rig.device.memory().flash == before.flash &&
                          rig.trace.count(kReboot) == 0;
  const auto present = rig.device.present();
  const bool runs = present && present->mode == wrx_module::Mode::application;
  const bool kept = rig.read_file(file) == image &&
                    rig.read_file(std::string(kExtraFolder) + "trv_fw.conf") == row.name() + "\n";
  if (rewritten == left_alone || !runs || !kept) return "something else";
  return (rewritten ? "rewritten, " : "left alone, ") + rig.read_file(kExtraConfigFile);
}

TEST(Upgrade, EveryModeVersionBudgetAndImage) {
  for (const char* mode :
       {"FORCE_UPGRADE", "DONT_UPGRADE", "AUTO_UPGRADE", "SMART_UPGRADE", "auto_upgrade", ""}) {
    for (const int version : {99, 100, 101}) {
      for (const int budget : {0, 1, 2}) {
        for (const int64_t image :
             {int64_t{-1}, int64_t{0}, int64_t{1}, int64_t{241}, kFlash, kFlash + 1}) {
          const Row row = {mode, version, budget, image};
          EXPECT_EQ(in_fresh_process([&] { return actual(row); }), row.expected())
              << version << " of " << image << " bytes";
        }
      }
    }
  }
}

TEST(Upgrade, ASecondStartWithTheBudgetUsedUpForgetsTheFirstOnesImage) {
  Rig rig;
  rig.install_firmware("ACM32FP_V101", image_of(300));
  rig.extra_config("UpgradeFlag=1\nUpgradeMode=FORCE_UPGRADE\n");
  rig.start();
  EXPECT_EQ(upgrade_new_firmware_version_num(), 101U);
  const size_t commands = rig.device.boot_commands().size();
  rig.start();
  EXPECT_EQ(rig.device.boot_commands().size(), commands) << "the first start left 0 in the file";
  EXPECT_STREQ(upgrade_new_firmware_version(), "");
}

// The driver's lines about selection, decision and budget.
std::string story(Rig& rig) {
  std::string told;
  for (const std::string& line : rig.trace.driver_lines()) {
    for (const char* teller :
         {":read_fw_version]", ":wrx7700_check_firmware_version]", ":check_file_exit]",
          ":wrx7700_upgrade_pt]", ":change_fw_upgrade_flag]", ":set_upgrade_state]",
          ":upgrade_and_run]"}) {
      if (line.find(teller) != std::string::npos) told += line + "\n";
    }
  }
  return told;
}

// What the selection file may hold, what is then decided and what is said of it.
TEST(Upgrade, SelectionsAndDecisionsAsATrace) {
  const std::string folder = std::string("./") + kExtraFolder;
  const std::string longest(255, 'x');
  const struct {
    std::string selection, image_path, config;
    size_t size = 300;
    bool upgraded = true;
  } rows[] = {
      {"", "", "FORCE_UPGRADE\nUpgradeFlag=1", 300, false},
      {"\n", folder + ".bin", "FORCE_UPGRADE\nUpgradeFlag=1"},
      {"ACM32FP_V123\n", folder + "ACM32FP_V123.bin", "FORCE_UPGRADE\nUpgradeFlag=1"},
      {"ACM32FP_V123", folder + "ACM32FP_V12.bin", "FORCE_UPGRADE\nUpgradeFlag=1"},
      {"ACM32FP_V 7b\n", folder + "ACM32FP_V 7b.bin", "FORCE_UPGRADE\nUpgradeFlag=1"},
      {"other\n", folder + "other.bin", "FORCE_UPGRADE\nUpgradeFlag=1"},
      {"ACM32FP_V99999999999\n", folder + "ACM32FP_V99999999999.bin",
       "FORCE_UPGRADE\nUpgradeFlag=1", 1},
      // No room for ".bin".
      {longest + "\n", (folder + longest).substr(0, 255), "FORCE_UPGRADE\nUpgradeFlag=1"},
      {longest + "x\n", "", "FORCE_UPGRADE\nUpgradeFlag=1", 300, false},
      {"ACM32FP_V101\n", folder + "ACM32FP_V101.bin", "FORCE_UPGRADE\nUpgradeFlag=0", 300, false},
      {"ACM32FP_V101\n", folder + "ACM32FP_V101.bin", "DONT_UPGRADE\nUpgradeFlag=2", 300, false},
      {"ACM32FP_V101\n", "", "SMART_UPGRADE\nUpgradeFlag=2", 300, false},
      {"ACM32FP_V101\n", folder + "ACM32FP_V101.bin", "AUTO_UPGRADE\nUpgradeFlag=2", kFlash + 1,
       false},
  };
  std::string told;
  for (const auto& row : rows) {
    told += in_fresh_process([&] {
      Rig rig;
      const std::string image = image_of(row.size);
      rig.extra_config("UpgradeMode=" + row.config + "\n");
      rig.write_file(std::string(kExtraFolder) + "trv_fw.conf", row.selection);
      if (!row.image_path.empty()) rig.write_file(row.image_path, image);
      rig.start();
      const bool upgraded = holds(rig.device.memory(), image);
      return "== " + quoted(row.selection.c_str()) + " " +
             row.config.substr(0, row.config.find('\n')) +
             (upgraded == row.upgraded ? "\n" : ": wrong end\n") + story(rig);
    });
  }
  EXPECT_EQ(golden_difference("upgrade-decisions", lines_of(told)), "");
}

// `attempts`: how many meet a bus without bootloader; 10 of them is when the driver gives up.
TEST(Upgrade, ALateBootloaderIsWaitedForTenTimes) {
  for (int attempts = 0; attempts <= 10; ++attempts) {
    const std::string told = in_fresh_process([&] {
      wrx_module::Settings settings = Rig::instant();
      settings.reboot.bootloader_appears_us = 500'000 + attempts * 1'000'000;
      if (attempts == 10) settings.reboot.bootloader_appears_us = -1;
      Rig rig(settings);
      rig.extra_config("UpgradeMode=FORCE_UPGRADE\nUpgradeFlag=2\n");
      rig.install_firmware("ACM32FP_V101", image_of(500));
      rig.start();
      return std::to_string(rig.trace.count("upgrade_and_run] open_dev failed!!!")) +
             (holds(rig.device.memory(), image_of(500)) ? " upgraded " : " as before ") +
             std::to_string(budget_in_file(rig));
    });
    EXPECT_EQ(told, std::to_string(attempts) + (attempts < 10 ? " upgraded 1" : " as before 2"));
  }
}

TEST(Upgrade, WaysToRefuseARewriteEachGiveTheirResult) {
  Rig rig;
  rig.extra_config("UpgradeFlag=2\n");
  rig.install_firmware("ACM32FP_V101", image_of(500));
  rig.configure();
  break_firmware(rig);
  const auto pt = [&](int flag) { return wrx7700_upgrade_pt(&rig.dev, flag); };
  rig.dev.dev_num = 1;
  EXPECT_EQ(pt(1), -1) << "somebody else has it";
  rig.dev.dev_num = 0;
  wrx_module::bus().refuse(Call::init, -99, 2);
  EXPECT_EQ(pt(1), -1);
  EXPECT_EQ(wrx7700_upgrade_pt_notdelay(&rig.dev, 0), -1);
  EXPECT_EQ(rig.trace.count("] libusb_init failed."), 2);
  EXPECT_TRUE(rig.trace.saw("wrx7700_upgrade_pt] upgrade_module_init failed!!!"));
  std::filesystem::rename(new_firmware_name, "away");
  EXPECT_EQ(rig.time_of([&] { EXPECT_EQ(pt(1), -2) << "no image is never retried"; }), 0);
  EXPECT_EQ(wrx7700_upgrade_pt_notdelay(&rig.dev, 0), -2);
  rig.write_file(new_firmware_name, image_of(kFlash));
  EXPECT_EQ(check_file_exit(), 0);
  rig.write_file(new_firmware_name, image_of(kFlash + 1));
  EXPECT_EQ(wrx7700_upgrade_pt_notdelay(&rig.dev, 0), -1);
  EXPECT_TRUE(rig.trace.saw("upgrade_and_run] /etc/wrx6600/extra/ACM32FP_V101.bin file_size = "));
  rig.device.cut_power();
  EXPECT_EQ(rig.time_of([&] { EXPECT_EQ(pt(0), -1) << "one attempt"; }), 0);
  EXPECT_EQ(rig.time_of([&] { EXPECT_EQ(pt(1), -1) << "ten attempts"; }), 10000);
  EXPECT_TRUE(rig.device.boot_commands().empty());
  EXPECT_EQ(wrx_module::bus().live().handles, 0);
}

TEST(Upgrade, FilesAreMeasuredAndRemoved) {
  Rig rig;
  EXPECT_EQ(get_file_size(nullptr), 0U);
  EXPECT_EQ(get_file_size(""), 0U);
  EXPECT_EQ(rig.trace.count("get_file_size] the param is error!"), 2);
  EXPECT_EQ(get_file_size("nowhere"), 0U);
  rig.write_file("huge", "");
  std::filesystem::resize_file("huge", (uint64_t{1} << 32) + 1);
  EXPECT_EQ(get_file_size("huge"), 0xFFFFFFFFU);
  rig.extra_config("UpgradeFlag=1\n");
  rig.install_firmware("ACM32FP_V101; touch oops", "x");
  rig.configure();
  EXPECT_STREQ(upgrade_new_firmware_name(), "./etc/wrx6600/extra/ACM32FP_V101; touch oops.bin");
  EXPECT_STREQ(upgrade_new_firmware_version(), "acm32_btl_zelta_pc_000101");
  EXPECT_EQ(upgrade_new_firmware_version_num(), 101U);
  EXPECT_EQ(rm_firmware_file(), 0);
  EXPECT_TRUE(std::filesystem::is_empty(kExtraFolder));
  EXPECT_EQ(rig.trace.count("rm_firmware_file] rm "), 2);
  EXPECT_EQ(read_fw_version(), -1) << "nothing is selected";
  rig.install_firmware("", "x");
  EXPECT_EQ(read_fw_version(), 0);
  rig.write_file(std::string(kExtraFolder) + "trv_fw.conf", "");
  EXPECT_EQ(read_fw_version(), -1) << "an empty file";
}

}  // namespace
}  // namespace wrx_test
