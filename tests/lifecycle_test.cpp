// SPDX-License-Identifier: LGPL-2.1-or-later
// The entry's record and the lifecycle callbacks: what they do, in which order. Waits and the stop
// have tests of their own.
#include <gtest/gtest.h>

#include "device_presence.h"
#include "frame/driver.h"
#include "lower_rooms.h"
#include "operations/operations.h"
#include "protocol/packet.h"
#include "transport/usb_device.h"

namespace wrx_test {
namespace {

// Everything but the transfers and the lines of functions that begin with one of `left_out`.
std::string effects(Rig& rig, const Names& left_out = {}) {
  std::string result;
  for (const std::string& line : rig.trace.lines()) {
    const Taken taken(line);
    const std::string note = line[0] == '@' ? line.substr(line.find(' ', 2) + 1) : "";
    if (begins_with_one_of(note, {"usb-in", "usb-out", "begin", "step", "module"})) continue;
    if (begins_with_one_of(taken.function, left_out)) continue;
    result += (note.empty() ? taken.text() : note) + "\n";
  }
  return result;
}

std::string debug(const char* text) {
  return "bio_print_debug \"bio_drv_demo_ops_" + std::string(text) + "\\n\"\n";
}
constexpr char kDisabledTriple[] =
    "bio_set_dev_status 3\nbio_set_ops_result 2\nbio_set_notify_abs_mid 5\n";
constexpr char kPath[] =
    "[usb_dev_get_port_path] 4d2e:5300 (bus 1, device 5) path: 2\n"
    "[usb_dev_get_port_path] usb dev port path: /sys/bus/usb/devices/1-2\n";
constexpr char kNoModule[] =
    "usb-open 1234:abcd none\nusb-open 4d2e:5100 none\nusb-open 4d2e:5300 none\n"
    "[usb_dev_open] device open failed!!!\\r\n";
std::string opened(int handle) {
  return "usb-open 1234:abcd none\nusb-open 4d2e:5100 none\nusb-open 4d2e:5300 #" +
         std::to_string(handle) + "\n";
}

TEST(Entry, FillsTheWholeRecord) {
  Rig rig;
  rig.dev.ops_feature_rename = reinterpret_cast<decltype(rig.dev.ops_feature_rename)>(&rig);
  EXPECT_EQ(rig.configure(), 0);
  const bio_dev& dev = rig.dev;
  EXPECT_EQ(dev.driver_id, 7);
  EXPECT_STREQ(dev.device_name, "wrx5300");
  EXPECT_STREQ(dev.full_name, "TRV WRX5300");
  EXPECT_EQ(dev.bioinfo.biotype * 100000 + dev.bioinfo.stotype * 10000 +
                dev.bioinfo.eigtype * 1000 + dev.bioinfo.vertype * 100 + dev.bioinfo.idtype * 10 +
                dev.bioinfo.bustype,
            1001);
  EXPECT_EQ(dev.drv_api_version.major * 10000 + dev.drv_api_version.minor * 100 +
                dev.drv_api_version.function,
            1002);
  EXPECT_EQ(dev.usb_info.id_table, wrx7700_id_table);
  std::string table;
  for (const usb_id& row : wrx7700_id_table) {
    char text[64];
    std::snprintf(text, sizeof text, "%04x:%04x %s\n", row.idVendor, row.idProduct,
                  row.description != nullptr ? row.description : "-");
    table += text;
  }
  EXPECT_EQ(table,
            "1234:abcd TRV WRX7700\n4d2e:5100 TRV WRX5100\n4d2e:5300 TRV WRX5300\n0000:0000 -\n");
  EXPECT_EQ(dev.enable, 1);
  EXPECT_EQ(dev.ops_feature_rename, nullptr);
  EXPECT_EQ(dev.ops_configure, ops_configure);
  EXPECT_EQ(dev.ops_driver_init, wrx7700_ops_driver_init);
  EXPECT_EQ(dev.ops_enroll, wrx7700_ops_enroll);
  EXPECT_EQ(dev.ops_verify, wrx7700_ops_verify);
  EXPECT_EQ(dev.ops_identify, wrx7700_ops_identify);
  EXPECT_EQ(dev.ops_search, wrx7700_ops_search);
  EXPECT_EQ(dev.ops_clean, wrx7700_ops_clean);
  EXPECT_EQ(dev.ops_get_feature_list, wrx7700_ops_get_feature_list);
  EXPECT_EQ(dev.ops_status_changed_callback, nullptr);
  EXPECT_EQ(rig.info().extra_info[0], '\0');
}

TEST(Lifecycle, AStartWithoutAModuleTriesTheBootloaderInstead) {
  Rig rig;
  rig.device.unplug();
  rig.configure();
  rig.trace.clear();
  EXPECT_EQ(rig.driver_init(), 0);
  EXPECT_EQ(effects(rig, {"upgrade_", "check_file_exit", "boot_"}),
            "bio_print_debug \"wrx5300_ops_driver_init start.\\n\"\n"
            "bio_get_ops_timeout_ms = 5000\n"
            "[wrx7700_ops_driver_init] priv->timeoutMS = 5000\\r\n" +
                std::string(kNoModule) +
                "[wrx7700_upgrade_pt_notdelay] start.\n"
                "[usb_dev_enable_autosuspend] not get dev_port_path!\\r\n" +
                debug("driver_init end"));
  EXPECT_EQ(rig.discover(), 0);
}

TEST(Lifecycle, AStartWithAModuleAsksItForItsStateInOrder) {
  Rig rig;
  rig.extra_config("AutoSuspend=1\n");
  rig.host_config("ModeFlag=7700\nRebootFlag=5809\n");
  rig.write_file("sys/bus/usb/devices/1-2/power/control", "on\n");
  rig.configure();
  rig.info().ctrlFlag = 2;
  rig.trace.clear();
  EXPECT_EQ(rig.driver_init(), 0);
  EXPECT_EQ(rig.info().timeoutMS, 5000);
  EXPECT_EQ(rig.info().ctrlFlag, 0);
  std::string commands;
  for (const auto& command : rig.device.commands())
    commands += std::to_string(command.code) + " " + hex(command.params) + "\n";
  // A power-up result is asked for and cancelled; then version, mode and reboot.
  EXPECT_NE(commands.find("175 10\n175 bd54455354\n255 c33c9669"), std::string::npos) << commands;
  EXPECT_EQ(rig.trace.count(":usb_dev_get_port_path] usb dev port path: "), 2);
  EXPECT_EQ(rig.read_file("sys/bus/usb/devices/1-2/power/control"), "auto\n");
  const std::vector<std::string> lines = rig.trace.driver_lines();
  EXPECT_EQ(lines.back(), "[wrx7700:#:wrx7700_ops_driver_init] usb_dev_enable_autosuspend.\\r");
  EXPECT_EQ(usb_get_dev_handle(), nullptr);
}

TEST(Lifecycle, EachCallbackSaysAndSetsWhatIsWritten) {
  Rig rig;
  rig.configure();
  const std::string name = " wrx5300 start!\\r\n";
  // clang-format off
  struct {
    const char* callback;
    std::function<void()> call;
    std::string effects;
  } rows[] = {
      {"discover", [&] { EXPECT_EQ(rig.discover(), 1); },
       debug("discover start") + "[wrx7700_ops_discover]" + name + opened(1) + "usb-close #1\n" +
           kPath + debug("discover ret = 1") + debug("discover end")},
      {"open", [&] { EXPECT_EQ(rig.open(), 0); },
       debug("open start") + "[wrx7700_ops_open]" + name + "bio_set_dev_status 101\n" + opened(2) +
           "bio_set_dev_status 0\nbio_set_ops_abs_result 100\nbio_set_notify_abs_mid 100\n" +
           debug("open end")},
      {"capture", [&] { EXPECT_EQ(rig.dev.ops_capture(&rig.dev, ACTION_START), nullptr); },
       debug("capture start") + "bio_set_dev_status 501\nbio_set_dev_status 0\n" +
           "bio_set_ops_result 501\nbio_set_notify_abs_mid 501\n" + debug("capture end 3")},
      {"close", [&] { rig.close(); },
       debug("close start") + "[wrx7700_ops_close]" + name + "usb-close #2\n" + debug("close end")},
      {"free", [&] { rig.dev.ops_free(&rig.dev); }, debug("free start") + debug("free end")},
      {"attach", [&] { rig.dev.ops_attach(&rig.dev); }, "[wrx7700_ops_attach] usb dev attach.\n"},
      {"detach", [&] { rig.dev.ops_detach(&rig.dev); },
       "[wrx7700_ops_detach] usb dev detach.\n[wrx7700_ops_detach] usb dev detach end.\n"},
      {"status text", [&] { EXPECT_EQ(rig.dev.ops_get_dev_status_mesg(&rig.dev), nullptr); },
       debug("get_dev_status_mesg end")},
      {"result text", [&] { EXPECT_EQ(rig.dev.ops_get_ops_result_mesg(&rig.dev), nullptr); },
       debug("get_ops_result_mesg end")},
      {"absent: open", [&] { rig.device.unplug(); EXPECT_EQ(rig.open(), -1); },
       debug("open start") + "[wrx7700_ops_open]" + name + "bio_set_dev_status 101\n" + kNoModule +
           "bio_set_ops_abs_result 101\nbio_set_notify_abs_mid 101\nbio_set_dev_status 0\n"},
      {"disabled: open", [&] { rig.dev.enable = 0; EXPECT_EQ(rig.open(), -1); },
       debug("open start") + "[wrx7700_ops_open]" + name + kDisabledTriple},
      {"disabled: capture", [&] { rig.dev.ops_capture(&rig.dev, ACTION_START); },
       debug("capture start") + kDisabledTriple},
      {"disabled, nameless: close", [&] { rig.dev.device_name = nullptr; rig.close(); },
       debug("close start") + kDisabledTriple +
           "usb_dev_close: /dev/fp256_360_usb_drv not open!!!\\r\n" + debug("close end")}};
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.callback);
    rig.trace.clear();
    row.call();
    EXPECT_EQ(effects(rig), row.effects);
  }
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
  rig.close();  // a disabled device is closed all the same
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
  bio_set_notify_mid(&rig.dev, 9);
  EXPECT_EQ(rig.dev.ops_get_notify_mid_mesg(&rig.dev), rig.info().extra_info);
  for (const int mid : {0, 8, 10, 200}) {
    bio_set_notify_mid(&rig.dev, mid);
    EXPECT_EQ(rig.dev.ops_get_notify_mid_mesg(&rig.dev), nullptr);
  }
}

TEST(Lifecycle, OneShotSwitchesSendTheirCommandAndOtherValuesNothing) {
  struct {
    int32_t (*call)(bio_dev*);
    int32_t flag;
    std::string command;  ///< as sent
    std::string line;
    bool opens;
  } rows[] = {
      {wrx7700_set_mode, 7700, hex(packet({175, 189, 'T', 'E', 'S', 'T'}, 1)),
       "[wrx7700_set_mode] set WRX7700_DEBUG_MODE.\n", true},
      {wrx7700_set_mode, 1, hex(packet({175, 189, 'U', 'S', 'E', 'R'}, 1)),
       "[wrx7700_set_mode] set WRX7700_USER_MODE.\n", true},
      {wrx7700_set_mode, 2, "", "", true},
      {wrx7700_set_reboot, 5809,
       hex(packet({255, 0xC3, 0x3C, 0x96, 0x69, 0x4B, 0x52, 0x54, 0x4D}, 1)),
       "[wrx7700_set_reboot] start\n[wrx7700_set_reboot] start, reboot_flag = 5809\n", true},
      {wrx7700_set_reboot, 1, "",
       "[wrx7700_set_reboot] start\n[wrx7700_set_reboot] start, reboot_flag = 1\n", false}};
  for (const auto& row : rows) {
    Rig rig;
    rig.configure();
    rig.info().mode_flag = rig.info().reboot_flag = row.flag;
    for (const bool held : {false, true}) {  // a handle that is open already is used, and closed
      if (held) usb_dev_open(&rig.dev);
      rig.trace.clear();
      EXPECT_EQ(row.call(&rig.dev), 0);
      EXPECT_EQ(rig.trace.count("usb-open 4d2e:5300 #"), row.opens && !held ? 1 : 0);
      const auto out = transfers(rig, "out");
      EXPECT_EQ(out.size() > 1 ? out[1] : "", row.command);
      EXPECT_EQ(said(rig, {"usb_", "fp_"}), row.line);
      if (row.opens) {
        EXPECT_EQ(usb_get_dev_handle(), nullptr);
      }
      if (row.flag == 5809) break;  // the module is leaving
    }
    if (!row.opens) continue;
    rig.device.unplug();
    EXPECT_EQ(row.call(&rig.dev), -1);
    EXPECT_TRUE(rig.trace.saw("] can't open device!!!"));
  }
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
