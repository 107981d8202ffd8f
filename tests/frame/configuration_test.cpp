// SPDX-License-Identifier: LGPL-2.1-or-later
// The two key files: every key present, absent and odd; what is written back, and what is not.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "frame/driver.h"
#include "support/lower_rooms.h"
#include "transport/usb_device.h"
#include "upgrade/upgrade.h"

namespace wrx_test {
namespace {

constexpr char kExtra[] = "etc/biometric-auth/extra.conf.d/vestrel-m6600.conf";
constexpr char kHost[] = "etc/biometric-auth/biometric-drivers.conf";

/// While it lives no file can grow, as on a full disk.
class FullDisk {
 public:
  FullDisk() {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit none = {0, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &none);
  }
  ~FullDisk() { setrlimit(RLIMIT_FSIZE, &before_); }

 private:
  rlimit before_{};
};

TEST(Configuration, EveryKeyPresentAbsentAndOddAsATrace) {
  Rig rig;
  rig.trace.clear();
  rig.extra_config("AutoSuspend=yes\n");
  rig.configure();
  EXPECT_EQ(rig.info().config.upgrade_mode, AUTO_UPGRADE);
  EXPECT_FALSE(rig.file_exists(kLogFile));
  rig.extra_config("PrintfLogFlag=1\nAutoSuspend=257\nUpgradeFlag=3\nUpgradeMode=SMART_UPGRADE\n");
  rig.host_config("PrintfLogFlag=2\nModeFlag=7\nRebootFlag=0\n");
  rig.configure();
  rig.show_file(kLogFile);
  EXPECT_EQ(rig.info().config.upgrade_mode, SMART_UPGRADE);
  EXPECT_EQ(rig.info().config.upgrade_flag, 3);
  EXPECT_EQ(rig.info().config.autosuspend_flag, 1);
  EXPECT_EQ(usb_dev_param.autosuspend_flag, 1);
  EXPECT_EQ(rig.info().mode_flag, 7);
  std::filesystem::remove(kExtra);
  DRIVER_CONFIG_STRUCT config = {};
  rig.step("driver_config_init", [&] { return driver_config_init(&config); });
  EXPECT_EQ(config.upgrade_mode, 0U);
  EXPECT_EQ(usb_dev_param.autosuspend_flag, 1) << "as it was";
  rig.step("read_fw_upgrade_flag", read_fw_upgrade_flag);
  rig.step("change_fw_upgrade_flag", change_fw_upgrade_flag);
  EXPECT_EQ(golden_difference("configuration", rig.trace.lines()), "");
}

TEST(Configuration, ModesAreKnownByTheirExactNames) {
  Rig rig;
  const std::pair<const char*, unsigned> rows[] = {{"FORCE_UPGRADE", 1}, {"DONT_UPGRADE", 2},
                                                   {"AUTO_UPGRADE", 3},  {"SMART_UPGRADE", 4},
                                                   {"auto_upgrade", 0},  {"AUTO_UPGRADE2", 0}};
  for (const auto& [name, mode] : rows) {
    rig.extra_config(std::string("UpgradeMode=") + name + "\n");
    rig.trace.clear();
    rig.configure();
    EXPECT_EQ(rig.info().config.upgrade_mode, mode) << name;
    EXPECT_EQ(rig.trace.count(std::string("set upgrade mode: ") + name), mode == 0 ? 0 : 1);
  }
}

TEST(Configuration, OneShotKeysAreClearedOnceReadAndAllElseIsKept) {
  struct {
    const char *before, *after;
    int mode, reboot;
  } rows[] = {
      {"# why\nModeFlag = 7700\n\n# and\nRebootFlag = 5809\nOther = 5\n",
       "# why\nModeFlag=0\n\n# and\nRebootFlag=0\nOther=5\n", 7700, 5809},
      {"ModeFlag=1\nOther=ä\n[other]\nk=v\n", "ModeFlag=0\nOther=ä\n\n[other]\nk=v\n", 1, 0},
      {"RebootFlag=-1\n", "RebootFlag=0\n", 0, -1},
      {"ModeFlag = 0\nRebootFlag = 0\n", "ModeFlag = 0\nRebootFlag = 0\n", 0, 0}};
  Rig rig;
  for (const auto& row : rows) {
    rig.host_config(row.before);
    rig.configure();
    EXPECT_EQ(rig.read_file(kHost), std::string("[wrx5300]\n") + row.after);
    EXPECT_EQ(rig.info().mode_flag, row.mode);
    EXPECT_EQ(rig.info().reboot_flag, row.reboot);
  }
}

TEST(Configuration, OnAFullDiskTheFilesStayAndTheValuesHold) {
  Rig rig;
  rig.host_config("ModeFlag=7700\n");
  rig.extra_config("UpgradeFlag=2\n");
  {
    const FullDisk full;
    rig.configure();
    EXPECT_EQ(change_fw_upgrade_flag(), -1);
  }
  EXPECT_EQ(rig.info().mode_flag, 7700);
  EXPECT_EQ(rig.read_file(kHost), "[wrx5300]\nModeFlag=7700\n");
  EXPECT_EQ(rig.read_file(kExtra), "[BASIC_PARAM]\nUpgradeFlag=2\n");
  EXPECT_EQ(rig.trace.count("wrx7700_para_config] Error["), 3);  // two absent keys and the disk
  EXPECT_EQ(rig.trace.count("change_fw_upgrade_flag] Error["), 1);
  EXPECT_EQ(change_fw_upgrade_flag(), 0);  // nothing was spent
  EXPECT_EQ(rig.read_file(kExtra), "[BASIC_PARAM]\nUpgradeFlag=1\n");
}

TEST(Configuration, TheBudgetIsSpentOncePerProcess) {
  Rig rig;
  const char* const rows[] = {"", "UpgradeFlag=x\n", "UpgradeFlag = 0\n", "UpgradeFlag = -3\n"};
  for (const char* row : rows) {
    rig.extra_config(row);
    EXPECT_EQ(read_fw_upgrade_flag(), -1) << row;
    EXPECT_EQ(change_fw_upgrade_flag(), std::string(row).find(" = ") == std::string::npos ? -1 : 0);
    EXPECT_EQ(rig.read_file(kExtra), std::string("[BASIC_PARAM]\n") + row);
  }
  rig.extra_config("# budget\nUpgradeFlag=2\n");
  rig.trace.clear();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(read_fw_upgrade_flag(), 0);
    EXPECT_EQ(change_fw_upgrade_flag(), 0);
  }
  EXPECT_EQ(rig.trace.count("change upgrade_flag = 1"), 1);
  EXPECT_EQ(rig.trace.count("upgrade_flag has been changed."), 1);
  EXPECT_EQ(rig.read_file(kExtra), "[BASIC_PARAM]\n# budget\nUpgradeFlag=1\n");
}

}  // namespace
}  // namespace wrx_test
