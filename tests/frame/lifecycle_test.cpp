// SPDX-License-Identifier: LGPL-2.1-or-later
// The entry's record and the lifecycle callbacks: what they do, in which order. Waits and the stop
// have tests of their own.
#include <gtest/gtest.h>

#include "frame/driver.h"
#include "operations/operations.h"
#include "protocol/packet.h"
#include "support/lower_rooms.h"
#include "transport/usb_device.h"

namespace wrx_test {
namespace {

TEST(Entry, FillsTheWholeRecord) {
  Rig rig;
  rig.dev.ops_feature_rename = reinterpret_cast<decltype(rig.dev.ops_feature_rename)>(&rig);
  EXPECT_EQ(rig.configure(), 0);
  const bio_dev& dev = rig.dev;
  EXPECT_EQ(dev.driver_id, 7);
  EXPECT_STREQ(dev.device_name, "wrx5300");
  EXPECT_STREQ(dev.full_name, "TRV WRX5300");
  const bio_info& kind = dev.bioinfo;
  EXPECT_EQ((std::vector<int>{kind.biotype, kind.stotype, kind.eigtype, kind.vertype, kind.idtype,
                              kind.bustype}),
            (std::vector<int>{0, 0, 1, 0, 0, 1}));
  EXPECT_EQ(dev.drv_api_version.major * 10000 + dev.drv_api_version.minor * 100 +
                dev.drv_api_version.function,
            1002);
  EXPECT_EQ(dev.usb_info.id_table, wrx7700_id_table);
  EXPECT_EQ(dev.enable, 1);
  EXPECT_EQ(dev.ops_feature_rename, nullptr);
  EXPECT_EQ(dev.ops_status_changed_callback, nullptr);
  EXPECT_EQ(rig.info().extra_info[0], '\0');
}

TEST(Lifecycle, EachCallbackAsATrace) {
  Rig rig;
  bio_dev& dev = rig.dev;
  const auto silent = [&](const char* name, auto callback) {
    rig.step(name, [&] { return callback(&dev), 0; });
  };
  const auto capture = [&] {
    rig.step("ops_capture", [&] { return dev.ops_capture(&dev, ACTION_START) == nullptr ? 0 : 1; });
  };
  rig.configure();
  rig.trace.clear();
  EXPECT_EQ(rig.discover(), 1);
  EXPECT_EQ(rig.open(), 0);
  capture();
  rig.close();
  silent("ops_free", dev.ops_free);
  silent("ops_attach", dev.ops_attach);
  silent("ops_detach", dev.ops_detach);
  silent("ops_get_dev_status_mesg", dev.ops_get_dev_status_mesg);
  silent("ops_get_ops_result_mesg", dev.ops_get_ops_result_mesg);
  rig.device.unplug();
  EXPECT_EQ(rig.open(), -1);
  EXPECT_EQ(rig.discover(), 0);
  EXPECT_EQ(rig.driver_init(), 0);  // tries the bootloader instead
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
  EXPECT_EQ(golden_difference("callbacks", rig.trace.lines()), "");
}

TEST(Lifecycle, AStartWithAModuleAsksItForItsStateInOrder) {
  Rig rig;
  rig.extra_config("AutoSuspend=1\n");
  rig.host_config("ModeFlag=7700\nRebootFlag=5809\n");
  rig.write_file("sys/bus/usb/devices/1-2/power/control", "on\n");
  rig.configure();
  rig.info().ctrlFlag = 2;
  EXPECT_EQ(rig.driver_init(), 0);
  EXPECT_EQ(rig.info().timeoutMS, 5000);
  EXPECT_EQ(rig.info().ctrlFlag, 0);
  std::string commands;
  for (const auto& command : rig.device.commands())
    commands += std::to_string(command.code) + " " + hex(command.params) + "\n";
  // A power-up result is asked for and cancelled; then version, mode and reboot.
  EXPECT_NE(commands.find("175 10\n175 bd54455354\n255 c33c9669"), std::string::npos) << commands;
  EXPECT_EQ(rig.read_file("sys/bus/usb/devices/1-2/power/control"), "auto\n");
  EXPECT_EQ(usb_get_dev_handle(), nullptr);
}

TEST(Lifecycle, OpenAndCloseResetTheirFlagsAndADetachForgetsThePath) {
  Rig rig;
  rig.start();
  fp_set_ctrlFlag(FP_CONTROL_FLAG_STOPPED);
  rig.open();
  EXPECT_EQ(fp_get_ctrlFlag(), FP_CONTROL_FLAG_IDLE);
  EXPECT_EQ(fp_get_device_num(), 1);
  rig.info().ctrlFlag = 2;
  rig.dev.enable = 0;
  rig.close();
  EXPECT_EQ(rig.info().ctrlFlag, 0);
  EXPECT_EQ(fp_get_device_num(), 0);
  EXPECT_EQ(usb_dev_get_port_path_valid_flag(), 1);
  rig.dev.ops_detach(&rig.dev);
  EXPECT_EQ(usb_dev_get_port_path_valid_flag(), 0);
  usb_dev_set_port_path_valid_flag(1);
  rig.device.unplug();
  EXPECT_EQ(rig.discover(), 0);  // as does a discovery that finds nothing
  EXPECT_EQ(usb_dev_get_port_path_valid_flag(), 0);
}

TEST(Lifecycle, TheExtendedTextIsHandedOutOnlyWithNotification9) {
  Rig rig;
  rig.configure();
  for (const int mid : {0, 8, 9, 10, 200}) {
    bio_set_notify_mid(&rig.dev, mid);
    EXPECT_EQ(rig.dev.ops_get_notify_mid_mesg(&rig.dev),
              mid == 9 ? rig.info().extra_info : nullptr);
  }
}

TEST(Lifecycle, OneShotSwitchesSendTheirCommandAndOtherValuesNothing) {
  const struct {
    const char* what;
    int32_t (*call)(bio_dev*);
    int32_t flag;
  } rows[] = {{"set_mode: test", wrx7700_set_mode, 7700},
              {"set_mode: user", wrx7700_set_mode, 1},
              {"set_mode: neither", wrx7700_set_mode, 2},
              {"set_reboot: yes", wrx7700_set_reboot, 5809},
              {"set_reboot: no", wrx7700_set_reboot, 1}};
  std::vector<std::string> lines;
  for (const auto& row : rows) {
    const std::string what = row.what;
    Rig rig;
    rig.configure();
    rig.info().mode_flag = rig.info().reboot_flag = row.flag;
    rig.trace.clear();
    rig.step(what, [&] { return row.call(&rig.dev); });
    usb_dev_open(&rig.dev);
    rig.step(what + ", open already", [&] { return row.call(&rig.dev); });
    rig.device.unplug();
    rig.step(what + ", no module", [&] { return row.call(&rig.dev); });
    const std::vector<std::string> trace = rig.trace.lines();
    lines.insert(lines.end(), trace.begin(), trace.end());
  }
  EXPECT_EQ(golden_difference("one-shot-switches", lines), "");
}

TEST(Lifecycle, TheBenchEntryShakesHandsEverySixSeconds) {
  Rig rig;
  int sleeps = 0;
  rig.clock.on_sleep = [&](int64_t us) {
    if (us == 3'000'000 && ++sleeps == 4)
      _exit(rig.trace.count("send PROT_CMD_HANDSHAKE command."));
  };
  EXPECT_EXIT(main_test(0, nullptr), testing::ExitedWithCode(2), "");
}

}  // namespace
}  // namespace wrx_test
