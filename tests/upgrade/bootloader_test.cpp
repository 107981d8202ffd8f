// SPDX-License-Identifier: LGPL-2.1-or-later
// The bootloader's link, frames, parser and commands, and a rewrite that meets trouble.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

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

// Whatever fails, nothing stays open, and the next opening works.
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
      {"open: claimed at the second try", {Call::claim}},
      {"open: not claimed", {Call::claim}, 2},
  };
  std::vector<std::string> told;
  const auto tell = [&] {
    for (const std::string& line : rig.trace.lines())
      told.push_back(line);
    rig.trace.clear();
  };
  for (const auto& row : rows) {
    for (const Call call : row.refused)
      wrx_module::bus().refuse(call, LIBUSB_ERROR_IO, row.times);
    rig.step(row.what, boot_open_dev);
    tell();
    boot_close_dev();
    EXPECT_EQ(Bench::live(), 0) << row.what;
    wrx_module::bus().refuse(Call::device_descriptor, 0, 0);
    EXPECT_EQ(boot_open_dev() + boot_close_dev(), 0) << row.what;
    rig.trace.clear();
  }
  rig.step("close: closed", boot_close_dev);
  upgrade_param.udev = {};
  rig.step("init", upgrade_module_init);
  rig.step("readSN: closed", readSN);
  upgrade_param.udev.bInterfaceNumber = 9;
  rig.step("open", boot_open_dev);
  const std::string block = image_of(240);
  rig.step("readSN", readSN);
  rig.step("readEFlash", [] { return readEFlash(0x12345, 255); });
  rig.step("erase", eraseEFlash);
  rig.step("download", [] { return downloadCodeToEFlash(0, "123456789", 9); });
  rig.step("readCRC", [] { return readCRC(0, 9); });
  EXPECT_EQ(upgrade_param.crc_value_dev, 0x906E);
  rig.step("download: the longest, to the end",
           [&] { return downloadCodeToEFlash(0x1FFF10, block.data(), 240); });
  EXPECT_EQ(checkCRC() + selfTest(), 0) << "nothing is said for them";
  wrx_module::bus().faults().clear();
  wrx_module::bus().faults().add({2, FaultKind::short_read, 0});
  rig.step("securityCode: an empty answer", securityCode);
  rig.step("close", boot_close_dev);
  wrx_module::bus().faults().clear();
  wrx_module::bus().faults().add({3, FaultKind::stall});
  wrx_module::bus().faults().add({6, FaultKind::timeout});
  rig.step("rewrite: a write stalls", upgrade_and_run);
  rig.step("rewrite: a read times out", upgrade_and_run);
  tell();
  EXPECT_EQ(golden_difference("boot-link", told), "");
}

TEST(BootLink, AnInterfaceIsFoundByItsClass) {
  Bench bench;
  ASSERT_EQ(boot_open_dev(), 0);
  usb_dev& device = upgrade_param.udev;
  libusb_device_descriptor descriptor{};
  libusb_get_device_descriptor(device.dev, &descriptor);
  device.bInterfaceClass = LIBUSB_CLASS_VENDOR_SPEC;
  EXPECT_EQ(get_device_endpoint(&descriptor, &device), 0);
  device.bInterfaceClass = LIBUSB_CLASS_PRINTER;
  EXPECT_EQ(get_device_endpoint(&descriptor, &device), -2);
  wrx_module::bus().refuse(Call::configuration_descriptor, LIBUSB_ERROR_IO);
  EXPECT_EQ(get_device_endpoint(&descriptor, &device), -1);
  boot_close_dev();
  EXPECT_EQ(get_device_endpoint(&descriptor, &device), -1) << "released";
  EXPECT_EQ(Bench::live(), 0);
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

}  // namespace
}  // namespace wrx_test
