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
    rig.configure();
    rig.trace.clear();
    rig.driver_init();
    rig.show_file(kExtraConfigFile);
    // What is said to the module before its reboot, other traces show.
    const std::vector<std::string> others = {
        "ep=0x01",     "ep=0x81",        "sleep 20", "sleep 70", "usb_",
        "operations:", "app_fp256_360:", "record ",  "ef 01 ff", "31 30 30 08"};
    return golden_difference("upgrade-forced", without(others, rig.trace.lines()));
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

// What the selection file may hold, what is then decided and what is said of it.
TEST(Upgrade, SelectionsAndDecisionsAsATrace) {
  const std::string folder = std::string("./") + kExtraFolder, v101 = folder + "ACM32FP_V101.bin";
  const std::string longest(255, 'x');
  const struct {
    std::string selection, image_path;
    bool upgraded = true;
    size_t size = 300;
    std::string config = "FORCE_UPGRADE\nUpgradeFlag=1";
  } rows[] = {
      {"", "", false},
      {"\n", folder + ".bin"},
      {"ACM32FP_V123\n", folder + "ACM32FP_V123.bin"},
      {"ACM32FP_V123", folder + "ACM32FP_V12.bin"},
      {"ACM32FP_V 7b\n", folder + "ACM32FP_V 7b.bin"},
      {"other\n", folder + "other.bin"},
      {"ACM32FP_V99999999999\n", folder + "ACM32FP_V99999999999.bin", true, 1},
      {longest + "\n", (folder + longest).substr(0, 255)},  // no room for ".bin"
      {longest + "x\n", "", false},
      {"ACM32FP_V101\n", v101, false, 300, "FORCE_UPGRADE\nUpgradeFlag=0"},
      {"ACM32FP_V101\n", v101, false, 300, "DONT_UPGRADE\nUpgradeFlag=2"},
      {"ACM32FP_V101\n", "", false, 300, "SMART_UPGRADE\nUpgradeFlag=2"},
      {"ACM32FP_V101\n", v101, false, kFlash + 1, "AUTO_UPGRADE\nUpgradeFlag=2"},
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
      std::string text = "== " + quoted(row.selection.c_str()) + " " +
                         row.config.substr(0, row.config.find('\n')) +
                         (upgraded == row.upgraded ? "\n" : ": wrong end\n");
      for (const std::string& line : rig.trace.driver_lines()) {
        for (const char* teller : {":read_fw_version]", ":wrx7700_check_firmware_version]",
                                   ":check_file_exit]", ":wrx7700_upgrade_pt]"}) {
          if (line.find(teller) != line.npos) text += line + "\n";
        }
      }
      return text;
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

// Ways to refuse a rewrite, each with its result and its time; the files that are looked at.
TEST(Upgrade, RefusalsAndFilesAsATrace) {
  Rig rig;
  rig.extra_config("UpgradeFlag=2\n");
  rig.install_firmware("ACM32FP_V101; touch oops", image_of(500));
  rig.configure();
  break_firmware(rig);
  rig.trace.clear();
  const auto attempts = [&] { return wrx7700_upgrade_pt(&rig.dev, 1); };
  const auto attempt = [&] { return wrx7700_upgrade_pt(&rig.dev, 0); };
  const auto at_once = [&] { return wrx7700_upgrade_pt_notdelay(&rig.dev, 0); };
  rig.dev.dev_num = 1;
  rig.step("somebody else has it", attempts);
  rig.dev.dev_num = 0;
  wrx_module::bus().refuse(Call::init, -99, 2);
  rig.step("no context", attempts);
  rig.step("no context, at once", at_once);
  std::filesystem::rename(new_firmware_name, "away");
  rig.step("no image is never retried", attempts);
  rig.step("no image, at once", at_once);
  rig.write_file(new_firmware_name, image_of(kFlash + 1));
  rig.step("too long an image, at once", at_once);
  rig.device.cut_power();
  rig.step("no module, one attempt", attempt);
  EXPECT_TRUE(rig.device.boot_commands().empty());
  EXPECT_EQ(wrx_module::bus().live().handles, 0);
  rig.step("rm_firmware_file", rm_firmware_file);
  EXPECT_TRUE(std::filesystem::is_empty(kExtraFolder)) << "and no shell was there to touch";
  rig.step("read_fw_version, nothing selected", read_fw_version);
  rig.write_file("huge", "");
  std::filesystem::resize_file("huge", (uint64_t{1} << 32) + 1);
  EXPECT_EQ(get_file_size("huge"), 0xFFFFFFFFU);
  EXPECT_EQ(golden_difference("upgrade-refusals", without({"usb-open 4d2e"}, rig.trace.lines())),
            "");
}

}  // namespace
}  // namespace wrx_test
