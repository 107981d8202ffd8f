// SPDX-License-Identifier: LGPL-2.1-or-later
// What the framework sees: the entry's record, the lifecycle callbacks, the two key files. Waits
// and the stop have tests of their own.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>

#include "base/log.h"
#include "frame/driver.h"
#include "operations/operations.h"
#include "protocol/packet.h"
#include "support/lower_rooms.h"
#include "transport/usb_device.h"
#include "upgrade/upgrade.h"

namespace wrx_test {
namespace {

constexpr char kExtra[] = "etc/biometric-auth/extra.conf.d/vestrel-m6600.conf";
constexpr char kHost[] = "etc/biometric-auth/biometric-drivers.conf";

TEST(Callbacks, EachAsATrace) {
  Rig rig;
  bio_dev& dev = rig.dev;
  const auto silent = [&](const char* name, auto callback) {
    rig.step(name, [&] { return callback(&dev), 0; });
  };
  const auto capture = [&] {
    rig.step("ops_capture", [&] { return dev.ops_capture(&dev, ACTION_START) == nullptr ? 0 : 1; });
  };
  dev.ops_feature_rename = reinterpret_cast<decltype(dev.ops_feature_rename)>(&rig);
  std::memset(&dev.bioinfo, 0x11, sizeof dev.bioinfo);
  rig.configure();
  EXPECT_EQ(dev.ops_configure, ops_configure);
  EXPECT_EQ(dev.ops_feature_rename, nullptr);
  EXPECT_EQ(dev.ops_status_changed_callback, nullptr);
  EXPECT_EQ(dev.usb_info.id_table, wrx7700_id_table);
  rig.trace.clear();
  const bio_info& kind = dev.bioinfo;
  rig.trace.note(
      fmt::format("driver {} {} ({}), version {}.{}.{}, kinds {} {} {} {} {} {}, enabled {}",
                  dev.driver_id, dev.device_name, dev.full_name, dev.drv_api_version.major,
                  dev.drv_api_version.minor, dev.drv_api_version.function, kind.biotype,
                  kind.stotype, kind.eigtype, kind.vertype, kind.idtype, kind.bustype, dev.enable));
  EXPECT_EQ(rig.discover(), 1);
  rig.info().ctrlFlag = kStopRequested;
  fp_set_ctrlFlag(FP_CONTROL_FLAG_TIMEOUT);
  EXPECT_EQ(rig.open(), 0);
  EXPECT_EQ(fp_get_ctrlFlag(), FP_CONTROL_FLAG_IDLE);
  EXPECT_EQ(fp_get_device_num(), 1);
  capture();
  rig.close();
  EXPECT_EQ(rig.info().ctrlFlag, kStopIdle);
  silent("ops_free", dev.ops_free);
  silent("ops_attach", dev.ops_attach);
  silent("ops_detach", dev.ops_detach);
  silent("ops_get_dev_status_mesg", dev.ops_get_dev_status_mesg);
  silent("ops_get_ops_result_mesg", dev.ops_get_ops_result_mesg);
  for (const int mid : {8, 9, 10}) {
    bio_set_notify_mid(&dev, mid);
    rig.step("ops_get_notify_mid_mesg: extended",
             [&] { return dev.ops_get_notify_mid_mesg(&dev) == rig.info().extra_info ? 1 : 0; });
  }
  usb_dev_set_port_path_valid_flag(1);
  rig.device.unplug();
  EXPECT_EQ(rig.open(), -1);
  EXPECT_EQ(rig.discover(), 0);
  rig.info().ctrlFlag = kStopRequested;
  EXPECT_EQ(rig.driver_init(), 0);  // tries the bootloader instead
  EXPECT_EQ(rig.info().ctrlFlag, kStopIdle);
  dev.enable = 0;
  EXPECT_EQ(rig.open(), -1);
  capture();
  rig.enroll();
  rig.verify();
  rig.identify();
  rig.search();
  rig.clean();
  rig.list();
  dev.device_name = nullptr;
  rig.close();  // a disabled device is closed all the same
  EXPECT_EQ(golden_difference("callbacks", without_repeats(rig.trace.lines())), "");
}

// With the module closed, open, gone.
TEST(OneShotSwitches, SendTheirCommandAndOtherValuesNothing) {
  const struct {
    std::string what;
    int32_t (*call)(bio_dev*);
    int32_t flag;
  } rows[] = {{"set_mode: user", wrx7700_set_mode, 1},
              {"set_mode: neither", wrx7700_set_mode, 2},
              {"set_reboot: yes", wrx7700_set_reboot, 5809},
              {"set_reboot: no", wrx7700_set_reboot, 1}};
  std::vector<std::string> lines;
  for (const auto& row : rows) {
    Rig rig;
    rig.configure();
    rig.info().mode_flag = rig.info().reboot_flag = row.flag;
    rig.trace.clear();
    const auto call = [&] { return row.call(&rig.dev); };
    rig.step(row.what, call);
    usb_dev_open(&rig.dev);
    rig.step(row.what + ", open already", call);
    rig.device.unplug();
    rig.step(row.what + ", no module", call);
    std::ranges::copy(rig.trace.lines(), std::back_inserter(lines));
  }
  EXPECT_EQ(golden_difference("one-shot-switches", without_repeats(lines)), "");
}

TEST(BenchEntry, ShakesHandsEverySixSeconds) {
  Rig rig;
  int sleeps = 0;
  rig.clock.on_sleep = [&](int64_t us) {
    if (us == 3'000'000 && ++sleeps == 4)
      _exit(rig.trace.count("send PROT_CMD_HANDSHAKE command."));
  };
  EXPECT_EXIT(main_test(0, nullptr), testing::ExitedWithCode(2), "");
}

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

// Each start reads both files and spends of the budget, a process once. Two of them are shown in
// full, of all what they took and what they left of the files.
TEST(KeyFiles, EveryKeyPresentAbsentAndOddAsATrace) {
  enum Shown { outcome, whole, on_a_full_disk };
  const struct {
    Shown shown;
    const char *extra, *host;
  } rows[] = {
      {whole, "AutoSuspend=yes\nUpgradeFlag=x\n", "ModeFlag=1\nOther=ä\n[other]\nk=v\n"},
      {outcome, "AutoSuspend=2\nUpgradeFlag = -3\nUpgradeMode=AUTO_UPGRADE\n", "RebootFlag=-1\n"},
      {outcome, "UpgradeFlag = 0\nUpgradeMode=DONT_UPGRADE\n", "ModeFlag = 0\nRebootFlag = 0\n"},
      {on_a_full_disk, "UpgradeFlag=2\nUpgradeMode=auto_upgrade\n", "ModeFlag=7700\n"},
      {outcome, "# budget\nUpgradeFlag=2\nUpgradeMode=FORCE_UPGRADE\n",
       "# why\nModeFlag = 7700\n\n# and\nRebootFlag = 5809\nOther = 5\n"},
      {whole, "PrintfLogFlag=1\nAutoSuspend=257\nUpgradeFlag=3\nUpgradeMode=SMART_UPGRADE\n",
       "PrintfLogFlag=2\nModeFlag=7\nRebootFlag=0\n"},
      {outcome, "UpgradeMode=SMART_UPGRADE2\n", ""},
  };
  Rig rig;
  std::vector<std::string> lines;
  for (const auto& [shown, extra, host] : rows) {
    EXPECT_FALSE(rig.file_exists(kLogFile));
    rig.extra_config(extra);
    rig.host_config(host);
    rig.trace.clear();
    std::optional<FullDisk> full;
    if (shown == on_a_full_disk) full.emplace();
    rig.configure();
    rig.step("change_fw_upgrade_flag", change_fw_upgrade_flag);
    usb_dev_set_port_path_valid_flag(1);
    rig.step("usb_dev_enable_autosuspend", usb_dev_enable_autosuspend);
    full.reset();
    const driver_info& info = rig.info();
    const int attributes = rig.trace.count("usb_dev_enable_autosuspend] echo");
    const int errors = rig.trace.count("Error[");
    lines.push_back(fmt::format("mode {}, reboot {}, autosuspend {} ({} attributes), budget {}: {}",
                                info.mode_flag, info.reboot_flag, info.config.autosuspend_flag,
                                attributes, info.config.upgrade_flag, read_fw_upgrade_flag()));
    lines.push_back(fmt::format("  upgrade mode {}, {} errors", info.config.upgrade_mode, errors));
    for (const char* file : {kHost, kExtra})
      lines.push_back("  left " + quoted(rig.read_file(file).c_str()));
    if (rig.file_exists(kLogFile)) rig.show_file(kLogFile);
    if (shown == whole) std::ranges::copy(rig.trace.lines(), std::back_inserter(lines));
    enable_printf_log(0);
    std::filesystem::remove(kLogFile);
  }
  rig.trace.clear();
  DRIVER_CONFIG_STRUCT config = {};
  EXPECT_EQ(driver_config_init(&config), 0);
  rig.trace.clear();
  config = {};
  std::filesystem::remove(kExtra);
  rig.step("driver_config_init", [&] { return driver_config_init(&config); });
  rig.step("read_fw_upgrade_flag", read_fw_upgrade_flag);
  std::ranges::copy(rig.trace.lines(), std::back_inserter(lines));
  EXPECT_EQ(config.upgrade_mode, 0U);
  EXPECT_EQ(golden_difference("configuration", without_repeats(lines)), "");
}

}  // namespace
}  // namespace wrx_test
