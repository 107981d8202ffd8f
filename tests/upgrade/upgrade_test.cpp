// SPDX-License-Identifier: LGPL-2.1-or-later
// The bootloader's frames, link and commands, a rewrite that meets trouble, and the upgrade from
// the start of the driver: which image, whether, when, and what it costs.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/lower_rooms.h"
#include "upgrade/upgrade_support.h"

namespace wrx_test {
namespace {

using wrx_module::BootQuirk;
using wrx_module::Call;
using wrx_module::FaultKind;
using Kind = BootQuirk::Kind;

constexpr uint8_t kErase = 0xD3, kReadCrc = 0xA6, kSecurity = 0xCC;

// A module without firmware, so in its bootloader, and an image of `size` bytes selected.
struct Bench : Rig {
  explicit Bench(size_t size = 500, const wrx_module::Settings& settings = instant())
      : Rig(settings), image(image_of(size)) {
    extra_config("UpgradeMode=FORCE_UPGRADE\nUpgradeFlag=2\n");
    install_firmware("ACM32FP_V101", image);
    configure();
    break_firmware(*this);
    trace.clear();
    wrx_module::bus().faults().clear();
  }
  static int live() {
    const wrx_module::LiveCounts live = wrx_module::bus().live();
    return live.handles + live.lists + live.device_references + live.configurations;
  }
  bool upgraded() { return holds(device.memory(), image); }

  std::string image;
};

// ---- parser

int feed(const std::string& bytes) {
  return parseProtocal(reinterpret_cast<const uint8_t*>(bytes.data()),
                       static_cast<int32_t>(bytes.size()));
}

TEST(BootParser, FramesAsATrace) {
  Rig rig;
  const std::string good = frame(kErase, std::string(1, '\0'));
  std::string bad_check = good, bad_end = good;
  bad_check[5] ^= 1;
  bad_end[6] = '\x54';
  const std::pair<const char*, std::string> rows[] = {
      {"status frame", good},
      {"head and end among the data", frame(kReadCrc, "\xAA\x55\xAA")},
      {"no data", frame(kSecurity)},
      {"garbage first", std::string("\x55\x00\x13", 3) + good},
      {"a second frame behind it", good + frame(kReadCrc, "123")},
      {"broken check byte", bad_check},
      {"broken end byte", bad_end},
      {"nothing is heard after a broken one", bad_check + good},
      {"cut before its data", good.substr(0, 4)},
      {"cut before its end", good.substr(0, 6)},
      {"only garbage", "\x55\x13"},
      {"1024 bytes", frame(0xA0, image_of(1018))},
      {"1025 bytes", frame(0xA0, image_of(1019))},
      {"65541 bytes", frame(0xA0, image_of(65535))},
  };
  for (const auto& [name, stream] : rows) {
    upgrade_param = {};
    rig.step(name, [&, &stream = stream] { return feed(stream); });
  }
  upgrade_param = {};
  feed(good.substr(0, 5));
  rig.step("the rest of a frame", [&] { return feed(good.substr(5)); });
  EXPECT_EQ(golden_difference("boot-frames", rig.trace.lines()), "");
}

TEST(BootParser, TheChecksumIsTheOneOfTheBook) {
  EXPECT_EQ(CRC16_X25("123456789", 9), 0x906E);
  EXPECT_EQ(CRC16_X25("", 0), 0);
  const std::string bytes = image_of(300);
  for (size_t start = 0; start < 9; ++start) {
    for (size_t size = 0; start + size < bytes.size(); ++size) {
      EXPECT_EQ(CRC16_X25(bytes.data() + start, static_cast<uint32_t>(size)),
                crc_by_the_book(bytes.substr(start, size)));
    }
  }
  uint8_t eight = 0x13;
  uint16_t sixteen = 0x1301;
  InvertUint8(&eight, &eight);
  InvertUint16(&sixteen, &sixteen);
  EXPECT_EQ(eight, 0xC8);
  EXPECT_EQ(sixteen, 0x80C8);
}

// ---- link and commands

TEST(BootLink, OpeningsAndCommandsAsATrace) {
  wrx_module::Settings settings = Rig::instant();
  settings.usb.kernel_driver_holds = true;
  Bench rig(500, settings);
  const struct {
    const char* what;
    std::vector<Call> refused;
    int times = 1;
  } rows[] = {
      {"open: no list", {Call::device_list}},
      {"open: no descriptor", {Call::device_descriptor}, -1},
      {"open: refused", {Call::open}},
      {"open: not detached", {Call::claim, Call::detach}},
      {"open: not claimed", {Call::claim}, 2},
      {"open: claimed at the second try", {Call::claim}},
  };
  for (const auto& row : rows) {
    for (const Call call : row.refused)
      wrx_module::bus().refuse(call, LIBUSB_ERROR_IO, row.times);
    const bool opened = rig.step(row.what, boot_open_dev) == 0;
    wrx_module::bus().refuse(Call::device_descriptor, 0, 0);
    if (opened) boot_close_dev();
    EXPECT_EQ(Bench::live(), 0) << row.what;
  }
  rig.step("close: closed", boot_close_dev);
  upgrade_param.udev = {};
  rig.step("init", upgrade_module_init);
  rig.step("readSN: closed", readSN);
  upgrade_param.udev.bInterfaceNumber = 9;
  rig.step("open", boot_open_dev);
  usb_dev& device = upgrade_param.udev;
  libusb_device_descriptor descriptor{};
  libusb_get_device_descriptor(device.dev, &descriptor);
  const auto endpoint = [&] { return get_device_endpoint(&descriptor, &device); };
  for (const uint8_t sought : Bytes{LIBUSB_CLASS_VENDOR_SPEC, LIBUSB_CLASS_PRINTER}) {
    device.bInterfaceClass = sought;
    rig.step("endpoint of class " + std::to_string(sought), endpoint);
  }
  wrx_module::bus().refuse(Call::configuration_descriptor, LIBUSB_ERROR_IO);
  rig.step("endpoint: no configuration", endpoint);
  wrx_module::bus().refuse(Call::device_descriptor, LIBUSB_ERROR_IO, 2);
  rig.step("descriptor: none", [&] { return get_device_descriptor(&descriptor, &device); });
  std::fill(std::begin(upgrade_param.dev_sn), std::end(upgrade_param.dev_sn), uint8_t{0x77});
  rig.step("readSN", readSN);
  rig.step("readEFlash", [] { return readEFlash(0x12345, 255); });
  rig.step("erase", eraseEFlash);
  rig.step("download: the longest, to the end",
           [] { return downloadCodeToEFlash(0x1FFF10, image_of(240).data(), 240); });
  EXPECT_EQ(checkCRC() + selfTest(), 0) << "nothing is said for them";
  wrx_module::bus().faults().clear();
  wrx_module::bus().faults().add({2, FaultKind::short_read, 0});
  rig.step("securityCode: an empty answer", securityCode);
  rig.step("close", boot_close_dev);
  rig.step("endpoint: released", endpoint);
  EXPECT_EQ(Bench::live(), 0);
  wrx_module::bus().faults().clear();
  wrx_module::bus().faults().add({3, FaultKind::stall});
  wrx_module::bus().faults().add({6, FaultKind::timeout});
  rig.step("rewrite: a write stalls", upgrade_and_run);
  rig.step("rewrite: a read times out", upgrade_and_run);
  rig.step("rewrite", upgrade_and_run);
  EXPECT_EQ(golden_difference("boot-link", rig.trace.lines()), "");
}

// ---- a rewrite in trouble

// Result, state, budget and last command of each, what is said of it, and the next attempt's
// result.
TEST(BootRewrite, EveryBadAnswerToEveryCommandAsATrace) {
  constexpr std::pair<const char*, Kind> kKinds[] = {
      {"status", Kind::status},       {"wrong type", Kind::wrong_type},
      {"two bytes", Kind::two_bytes}, {"cut short", Kind::cut_short},
      {"silent", Kind::silent},       {"garbage first", Kind::garbage_first},
      {"wrong crc", Kind::wrong_crc}};
  std::string told;
  for (const uint8_t command : Bytes{0xD3, 0xD7, 0xA6, 0xD9, 0xCC, 0xE3}) {
    for (const auto& [name, kind] : kKinds) {
      told += in_fresh_process([&, &name = name, &kind = kind] {
        Bench bench;
        auto& quirks = bench.device.settings().bootloader.quirks;
        quirks = {{command, 0, kind, 3}};
        const int result = upgrade_and_run();
        std::string text = fmt::format(
            "== {:02x} {}: {}, state {}, budget {}, last command {:02x}\n", command, name, result,
            get_upgrade_state(), budget_in_file(bench), bench.device.boot_commands().back().code);
        for (const auto& line : without({"boot_open_dev]"}, bench.trace.driver_lines())) {
          for (const char* ending : {"fail", "error", "success"})
            if (line.find(ending) != line.npos) text += line + "\n";
        }
        quirks.clear();
        const bool mended = result == 0 || (upgrade_and_run() == 0 && bench.upgraded());
        return text + (mended && Bench::live() == 0 ? "" : "not mended by the next, or leaks\n");
      });
    }
  }
  EXPECT_EQ(golden_difference("rewrite-failures", lines_of(told)), "");
}

// Four milliseconds a frame, a second at the end; never less, never more.
TEST(BootRewrite, TakesExactlyItsPauses) {
  constexpr std::pair<size_t, int64_t> kRows[] = {{1, 24}, {240, 24}, {241, 28}, {2097152, 34976}};
  for (const auto& [size, ms] : kRows) {
    Bench bench(size);
    EXPECT_EQ(bench.time_of([] { EXPECT_EQ(upgrade_and_run(), 0); }), ms) << size;
    EXPECT_TRUE(bench.upgraded());
    break_firmware(bench);
    EXPECT_EQ(bench.time_of([&] { EXPECT_EQ(wrx7700_upgrade_pt(&bench.dev, 1), 0); }), ms + 1000);
  }
}

// ---- from the start of the driver

constexpr char kExtraFolder[] = "etc/wrx6600/extra/";
constexpr char kReboot[] = "ef01ffffffff01000bffc33c96694b52544d0447";
constexpr int64_t kFlash = 2097152;

// Whole: another implementation made the same trace.
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
    return "# what this group is for\n\n[BASIC_PARAM]\n" +
           (mode.empty() ? "" : "UpgradeMode=" + mode + "\n") +
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
  rig.dev.dev_num = 1;  // as a service leaves it
  const wrx_module::Memory before = rig.device.memory();
  BootWire wire(rig);
  const std::string file = kExtraFolder + row.name() + ".bin";
  const std::string image = image_of(static_cast<size_t>(std::max<int64_t>(row.image, 0)));
  rig.install_firmware(row.name(), image);
  if (row.image < 0) std::filesystem::remove(file);
  rig.write_file(kExtraConfigFile, row.config(row.budget));
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

// What the selection file may hold, what is then decided and what is said of it.
TEST(Upgrade, SelectionsAndDecisionsAsATrace) {
  const std::string folder = std::string("./") + kExtraFolder, v101 = folder + "ACM32FP_V101.bin";
  const std::string longest(255, 'x');
  const struct {
    std::string selection, image_path;
    size_t size = 300;
    std::string config = "FORCE_UPGRADE\nUpgradeFlag=1";
  } rows[] = {
      {"", ""},
      {"\n", folder + ".bin"},
      {"ACM32FP_V123\n", folder + "ACM32FP_V123.bin"},
      {"ACM32FP_V123", folder + "ACM32FP_V12.bin"},
      {"ACM32FP_V 7b\n", folder + "ACM32FP_V 7b.bin"},
      {"other\n", folder + "other.bin"},
      {"ACM32FP_V99999999999\n", folder + "ACM32FP_V99999999999.bin", 1},
      {longest + "\n", (folder + longest).substr(0, 255)},  // no room for ".bin"
      {longest + "x\n", ""},
      {"ACM32FP_V101\n", v101, 300, "FORCE_UPGRADE\nUpgradeFlag=0"},
      {"ACM32FP_V101\n", v101, 300, "DONT_UPGRADE\nUpgradeFlag=2"},
      {"ACM32FP_V101\n", "", 300, "SMART_UPGRADE\nUpgradeFlag=2"},
      {"ACM32FP_V101\n", v101, kFlash + 1, "AUTO_UPGRADE\nUpgradeFlag=2"},
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
      const bool said = rig.trace.saw("upgrade_and_run success");
      std::string text = "== " + quoted(row.selection.c_str()) + " " +
                         row.config.substr(0, row.config.find('\n')) +
                         (holds(rig.device.memory(), image) == said ? "\n" : ": wrong end\n");
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

// Ways to refuse a rewrite, each with its result; then the files that are looked at.
TEST(Upgrade, RefusalsAndFilesAsATrace) {
  Rig rig;
  const auto select = [&] { rig.install_firmware("ACM32FP_V101; touch oops", image_of(500)); };
  rig.extra_config("UpgradeFlag=2\n");
  select();
  rig.configure();
  break_firmware(rig);
  rig.trace.clear();
  const auto attempts = [&] { return wrx7700_upgrade_pt(&rig.dev, 1); };
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
  rig.step("no module, one attempt", [&] { return wrx7700_upgrade_pt(&rig.dev, 0); });
  rig.write_file(std::string(kExtraFolder) + "trv_fw.conf", "");
  rig.step("read_fw_version, empty", read_fw_version);
  EXPECT_STREQ(upgrade_new_firmware_version(), "") << "what an earlier start selected is forgotten";
  EXPECT_STREQ(upgrade_new_firmware_name(), "");
  select();
  rig.step("read_fw_version", read_fw_version);
  rig.step("rm_firmware_file", rm_firmware_file);
  EXPECT_TRUE(std::filesystem::is_empty(kExtraFolder)) << "and no shell was there to touch";
  rig.write_file("huge", "");
  std::filesystem::resize_file("huge", (uint64_t{1} << 32) + 1);
  EXPECT_EQ(get_file_size("huge"), 0xFFFFFFFFU);
  EXPECT_EQ(golden_difference("upgrade-refusals", without({"usb-open 4d2e"}, rig.trace.lines())),
            "");
  // Ten attempts, a second apart; then a bootloader that the fourth one finds.
  select();
  EXPECT_EQ(rig.time_of([&] { EXPECT_EQ(attempts(), -1); }), 10'000);
  EXPECT_TRUE(rig.device.boot_commands().empty());
  EXPECT_EQ(budget_in_file(rig), 2);
  rig.clock.at(rig.clock.now_us() + 2'500'000, [&] { rig.device.power_cycle(); });
  EXPECT_EQ(rig.time_of([&] { EXPECT_EQ(attempts(), 0); }), 3'000 + 32 + 1'000);
  EXPECT_TRUE(holds(rig.device.memory(), image_of(500)));
  EXPECT_EQ(budget_in_file(rig), 1);
}

}  // namespace
}  // namespace wrx_test
