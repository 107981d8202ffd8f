// SPDX-License-Identifier: LGPL-2.1-or-later
// The firmware upgrade from the start of the driver: which image, whether, when, and what it costs.
// Each table's expectation is worked out here anew, from the rules alone.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "upgrade_support.h"

namespace wrx_test {
namespace {

using wrx_module::Call;

constexpr char kExtraFolder[] = "etc/wrx6600/extra/";
constexpr char kReboot[] = "ef01ffffffff01000bffc33c96694b52544d0447";
constexpr size_t kFlash = 2097152;

void note_file(Rig& rig, const std::string& path) {
  rig.trace.note("file /" + path);
  std::istringstream text(rig.read_file(path));
  for (std::string line; std::getline(text, line);) {
    rig.trace.note("  | " + quoted((line + "\n").c_str()));
  }
}

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
    note_file(rig, kExtraConfigFile);
    rig.discover();
    rig.step("get_upgrade_state", [] { return int{get_upgrade_state()}; });
    return golden_difference("upgrade-forced", rig.trace.lines());
  });
  EXPECT_EQ(difference, "");
}

// The driver's lines about selection, decision and budget, as "function: text".
std::string story(Rig& rig) {
  static const std::set<std::string> kTellers = {
      "read_fw_version",    "wrx7700_check_firmware_version", "check_file_exit",  "boot_close_dev",
      "wrx7700_upgrade_pt", "change_fw_upgrade_flag",         "set_upgrade_state"};
  std::string told;
  for (const std::string& line : rig.trace.driver_lines()) {
    const size_t end = line.find("] ");
    const size_t start = line.rfind(':', end) + 1;
    if (line[0] != '[' || end == std::string::npos) continue;
    const std::string teller = line.substr(start, end - start);
    if (kTellers.contains(teller)) told += teller + ": " + line.substr(end + 2) + "\n";
  }
  return told;
}

std::string version_text(int number) {
  const std::string digits = std::to_string(number);
  return "acm32_btl_zelta_pc_" + std::string(6 - digits.size(), '0') + digits;
}

std::string selected_lines(size_t size, const std::string& path, int version) {
  const std::string teller = "read_fw_version: ";
  return teller + "read_size = " + std::to_string(size) + "\n" + teller +
         "new_firmware_name = " + path + "\n" + teller + "fw_version = " + std::to_string(version) +
         "\n" + teller + "new_firmware_version = " + version_text(version) + "\n" + teller +
         "new_firmware_version_num = " + std::to_string(version) + "\n";
}

std::string spent_lines(int budget) {
  const std::string teller = "change_fw_upgrade_flag: ";
  return teller + "start.\n" + teller + "upgrade_flag = " + std::to_string(budget) + "\n" + teller +
         "change upgrade_flag = " + std::to_string(budget - 1) + "\n" + teller + "end.\n";
}

struct Row {
  std::string mode;
  int version;  // of the image; the module has 100
  int budget;
  int64_t image;  // bytes, -1: no file

  std::string name() const {
    return mode + " image " + std::to_string(version) + " of " + std::to_string(image) +
           " bytes, budget " + std::to_string(budget);
  }
  std::string config(int left) const {
    return (mode.empty() ? "" : "UpgradeMode=" + mode + "\n") +
           "UpgradeFlag=" + std::to_string(left) + "\n";
  }
  bool due() const {
    if (mode == "FORCE_UPGRADE") return true;
    if (mode == "AUTO_UPGRADE" || mode.empty()) return version != 100;
    return mode == "SMART_UPGRADE" && version > 100;
  }
};

std::string outcome(const std::string& told, bool rewritten, const std::string& config) {
  return told + (rewritten ? "rewritten\n" : "left alone\n") + config;
}

std::string expected(const Row& row) {
  const std::string check = "wrx7700_check_firmware_version: ";
  const std::string checked = check + "start, check_firmware_version\n";
  if (row.budget == 0) {
    return outcome("read_fw_version: read_fw_upgrade_flag: FAIL!\n" + checked, false,
                   row.config(0));
  }
  const std::string name = "ACM32FP_V" + std::to_string(row.version);
  const std::string path = "/" + std::string(kExtraFolder) + name + ".bin";
  std::string told = selected_lines(name.size() + 1, path, row.version) + checked;
  if (!row.due()) {
    told += check + "firmware don't need upgrade.\n" + spent_lines(row.budget);
    return outcome(told, false, row.config(row.budget - 1));
  }
  told += check + "current firmware version is " + version_text(100) +
          ", new firmware version is " + version_text(row.version) + ".\n";
  if (row.image < 1 || row.image > 2097152) {
    told += "check_file_exit: " + path +
            " file_size = " + std::to_string(std::max<int64_t>(row.image, 0)) + ", error!\n" +
            "boot_close_dev: vid=0x1234, pid=0xabce usb device not open!!!\\r\n";
    return outcome(told, false, row.config(row.budget));
  }
  told += "wrx7700_upgrade_pt: start.\nset_upgrade_state: state 1\n" + spent_lines(row.budget) +
          "set_upgrade_state: state 0\nwrx7700_upgrade_pt: upgrade_and_run success.\n";
  return outcome(told, true, row.config(row.budget - 1));
}

// One start. A rewrite counts only if each byte said to the bootloader is the prescribed one and
// the module was rebooted once for it; left alone means that nothing of the kind happened.
std::string actual(const Row& row) {
  Rig rig;
  const wrx_module::Memory before = rig.device.memory();
  BootWire wire(rig);
  const std::string name = "ACM32FP_V" + std::to_string(row.version);
  const std::string image = image_of(static_cast<size_t>(std::max<int64_t>(row.image, 0)));
  rig.install_firmware(name, image);
  if (row.image < 0) std::filesystem::remove(kExtraFolder + name + ".bin");
  rig.extra_config(row.config(row.budget));
  rig.start();
  const bool rewritten = wire.said() == rewrite_of(image) && holds(rig.device.memory(), image) &&
                         rig.trace.count(kReboot) == 1;
  const bool left_alone = wire.said().empty() && rig.device.memory().flash == before.flash &&
                          rig.trace.count(kReboot) == 0;
  const auto present = rig.device.present();
  const bool runs = present && present->mode == wrx_module::Mode::application;
  const bool kept = rig.read_file(kExtraFolder + name + ".bin") == image &&
                    rig.read_file(std::string(kExtraFolder) + "trv_fw.conf") == name + "\n";
  const std::string config = rig.read_file(kExtraConfigFile);
  if (rewritten == left_alone || !runs || !kept) return story(rig) + "something else happened";
  return outcome(story(rig), rewritten, config.substr(config.find('\n') + 1));
}

TEST(Upgrade, EveryModeVersionBudgetAndImage) {
  for (const char* mode :
       {"FORCE_UPGRADE", "DONT_UPGRADE", "AUTO_UPGRADE", "SMART_UPGRADE", "auto_upgrade", ""}) {
    for (const int version : {99, 100, 101}) {
      for (const int budget : {0, 1, 2}) {
        for (const int64_t image : {-1, 0, 1, 241, 2097152, 2097153}) {
          const Row row = {mode, version, budget, image};
          EXPECT_EQ(in_fresh_process([&] { return actual(row); }), expected(row)) << row.name();
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

TEST(Upgrade, TheSelectionFileNamesTheImage) {
  const std::string folder = std::string("./") + kExtraFolder;
  const std::string shown = folder.substr(1);
  const std::string longest(255, 'x');
  const std::string cut = (folder + longest).substr(0, 255);  // no room for ".bin"
  const std::string error = "read_fw_version: " + shown + "trv_fw.conf file_size = ";
  const struct {
    std::string text;
    std::string path;
    std::string lines;
  } rows[] = {
      {"", "", error + "0, error!\n"},
      {"\n", folder + ".bin", selected_lines(1, shown + ".bin", 0)},
      {"ACM32FP_V123\n", folder + "ACM32FP_V123.bin",
       selected_lines(13, shown + "ACM32FP_V123.bin", 123)},
      {"ACM32FP_V123", folder + "ACM32FP_V12.bin",
       selected_lines(12, shown + "ACM32FP_V12.bin", 12)},
      {"ACM32FP_V 7b\n", folder + "ACM32FP_V 7b.bin",
       selected_lines(13, shown + "ACM32FP_V 7b.bin", 7)},
      {"other\n", folder + "other.bin", selected_lines(6, shown + "other.bin", 0)},
      {longest + "\n", cut, selected_lines(256, cut.substr(1), 0)},
      {longest + "x\n", "", error + "257, error!\n"},
  };
  for (const auto& row : rows) {
    const std::string image = image_of(300);
    const std::string told = in_fresh_process([&] {
      Rig rig;
      rig.extra_config("UpgradeMode=FORCE_UPGRADE\nUpgradeFlag=1\n");
      rig.write_file(std::string(kExtraFolder) + "trv_fw.conf", row.text);
      if (!row.path.empty()) rig.write_file(row.path, image);
      rig.configure();
      const std::string selected = story(rig);
      rig.driver_init();
      const bool upgraded = holds(rig.device.memory(), image) && budget_in_file(rig) == 0;
      return selected + (upgraded ? "upgraded" : "not upgraded");
    });
    EXPECT_EQ(told, row.lines + (row.path.empty() ? "not upgraded" : "upgraded")) << row.text;
  }
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

TEST(Upgrade, AModuleThatIsSlowToLeaveIsRebootedAgain) {
  const std::string told = in_fresh_process([] {
    wrx_module::Settings settings = Rig::instant();
    settings.reboot.leave_us = 1'500'000;
    Rig rig(settings);
    rig.extra_config("UpgradeMode=FORCE_UPGRADE\nUpgradeFlag=2\n");
    rig.install_firmware("ACM32FP_V101", image_of(500));
    rig.start();
    return std::to_string(rig.trace.count(kReboot)) + " reboots" +
           (holds(rig.device.memory(), image_of(500)) ? ", upgraded" : "");
  });
  EXPECT_EQ(told, "2 reboots, upgraded");
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
  rig.write_file(new_firmware_name, image_of(kFlash + 1));
  EXPECT_EQ(wrx7700_upgrade_pt_notdelay(&rig.dev, 0), -1);
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
}

}  // namespace
}  // namespace wrx_test
