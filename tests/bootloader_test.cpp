// SPDX-License-Identifier: LGPL-2.1-or-later
// The bootloader's link, frames, parser and commands, and a rewrite that meets trouble.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "upgrade_support.h"

namespace wrx_test {
namespace {

using wrx_module::BootQuirk;
using wrx_module::Call;
using wrx_module::FaultKind;
using Kind = BootQuirk::Kind;

// A module without firmware, so in its bootloader, and an image of `size` bytes selected.
class Bench {
 public:
  explicit Bench(size_t size = 500, const wrx_module::Settings& settings = Rig::instant())
      : image(image_of(size)), rig(settings) {
    rig.extra_config("UpgradeMode=FORCE_UPGRADE\nUpgradeFlag=2\n");
    rig.install_firmware("ACM32FP_V101", image);
    rig.configure();
    break_firmware(rig);
    rig.trace.clear();
  }
  wrx_module::BootloaderSettings& bootloader() { return rig.device.settings().bootloader; }
  uint8_t last_command() { return rig.device.boot_commands().back().code; }

  std::string image;
  Rig rig;
};

// ---- parser

struct ParserRow {
  const char* name;
  std::string input;
  int result;
  int state;     // where the parser stops
  int type;      // of the frame that was met
  size_t count;  // data bytes stored of it
  bool logged;
};

std::vector<ParserRow> parser_rows() {
  const std::string good = frame(0xD3, std::string(1, '\0'));
  const std::string three = frame(0xA6, "\xAA\x55\xAA");
  std::string bad_check = good, bad_end = good;
  bad_check[5] ^= 1;
  bad_end[6] = '\x54';
  return {
      {"status frame", good, 0, 8, 0xD3, 1, false},
      {"head and end among the data", three, 0, 8, 0xA6, 3, false},
      {"no data", frame(0xCC), 0, 8, 0xCC, 0, false},
      {"garbage first", std::string("\x55\x00\x13", 3) + good, 0, 8, 0xD3, 1, false},
      {"a second frame behind it", good + three, 0, 8, 0xD3, 1, false},
      {"broken check byte", bad_check, -1, 100, 0xD3, 1, true},
      {"broken end byte", bad_end, -1, 100, 0xD3, 1, true},
      {"nothing is heard after a broken one", bad_check + good, -1, 100, 0xD3, 1, true},
      {"cut before its data", good.substr(0, 4), -1, 5, 0xD3, 0, false},
      {"cut behind its data", good.substr(0, 5), -1, 6, 0xD3, 1, false},
      {"cut before its end", good.substr(0, 6), -1, 7, 0xD3, 1, false},
      {"only garbage", "\x55\x13", -1, 0, 0, 0, false},
      {"1024 bytes", frame(0xA0, image_of(1018)), 0, 8, 0xA0, 1018, false},
      {"1025 bytes", frame(0xA0, image_of(1019)), -1, 100, 0xA0, 1019, true},
      {"65541 bytes", frame(0xA0, image_of(65535)), -1, 100, 0xA0, 65535, true},
  };
}

int feed(const std::string& bytes) {
  return parseProtocal(reinterpret_cast<const uint8_t*>(bytes.data()),
                       static_cast<int32_t>(bytes.size()));
}

TEST(BootParser, EveryFrameInEverySplit) {
  Rig rig;
  UP_PROT_PACKET& p = upgrade_param.prot_packet_usb;
  for (const ParserRow& row : parser_rows()) {
    const size_t step = row.input.size() > 2000 ? 9973 : 1;
    for (size_t split = 0; split < row.input.size(); split += step) {
      std::memset(&upgrade_param, 0, sizeof upgrade_param);
      std::memset(upgrade_param.dev_sn, 0x5A, sizeof upgrade_param.dev_sn);
      rig.trace.clear();
      const int first = feed(row.input.substr(0, split));
      const int second = feed(row.input.substr(split));
      EXPECT_EQ(std::min(1, (first == 0) + (second == 0)), row.result == 0) << row.name;
      EXPECT_EQ(p.prot_state, row.state) << row.name << " split at " << split;
      EXPECT_EQ(p.prot_type, row.type) << row.name;
      EXPECT_EQ(p.prot_data_cnt, row.count) << row.name;
      EXPECT_EQ(rig.trace.count("parseProtocal] Recv data from device error!!!"), row.logged);
      EXPECT_EQ(std::string(reinterpret_cast<char*>(upgrade_param.dev_sn), 64),
                std::string(64, 0x5A))
          << row.name << ": written beyond the arrays";
      if (row.result == 0 && row.count > 0) {
        const size_t data = row.input.find('\xAA') + 4;
        EXPECT_EQ(std::memcmp(p.prot_data, row.input.data() + data, row.count), 0) << row.name;
      }
    }
  }
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

// ---- link

TEST(BootLink, MisuseIsRefused) {
  Rig rig;
  uint8_t byte = 0;
  EXPECT_EQ(Check_BCC(nullptr, 4), 0xFF);
  EXPECT_EQ(Check_BCC(&byte, 0), 0xFF);
  EXPECT_EQ(boot_write_usb(nullptr, 1), -1);
  EXPECT_EQ(boot_read_usb(&byte, 0), -1);
  EXPECT_EQ(rig.trace.count("] the param is error!!!"), 4);
  EXPECT_EQ(boot_write_usb(&byte, 1), -1);
  EXPECT_EQ(boot_read_usb(&byte, 1), -1);
  EXPECT_EQ(rig.trace.count("] usb vid=0x1234 pid=0xabce not open, error!!!"), 2);
  EXPECT_EQ(boot_close_dev(), -1);
  EXPECT_TRUE(rig.trace.saw("boot_close_dev] vid=0x1234, pid=0xabce usb device not open!!!\\r"));
}

// Whatever fails, nothing stays open, and the next opening works.
TEST(BootLink, AFailedOpeningGivesEverythingBack) {
  const struct {
    std::vector<Call> refused;
    int times;
    const char* line;  // of boot_open_dev, null when the opening works
  } rows[] = {
      {{}, 0, nullptr},
      {{Call::device_list}, 1, "get_device_descriptor failed."},
      {{Call::device_descriptor}, -1, "get_device_descriptor failed."},
      {{Call::open}, 1, "vid=0x1234, pid=0xabce usb device open failed!!!"},
      {{Call::claim, Call::detach}, 1, "libusb_detach_kernel_driver failed."},
      {{Call::claim}, 1, nullptr},
      {{Call::claim}, 2, "libusb_claim_interface failed."},
  };
  for (const auto& row : rows) {
    wrx_module::Settings settings = Rig::instant();
    settings.usb.kernel_driver_holds = true;
    Bench bench(500, settings);
    for (const Call call : row.refused)
      wrx_module::bus().refuse(call, LIBUSB_ERROR_IO, row.times);
    EXPECT_EQ(boot_open_dev(), row.line == nullptr ? 0 : -1);
    EXPECT_EQ(bench.rig.trace.count("boot_open_dev] "), 1);
    if (row.line != nullptr) {
      EXPECT_TRUE(bench.rig.trace.saw(std::string("boot_open_dev] ") + row.line)) << row.line;
    }
    EXPECT_EQ(boot_close_dev(), row.line == nullptr ? 0 : -1);
    const wrx_module::LiveCounts live = wrx_module::bus().live();
    EXPECT_EQ(live.handles + live.lists + live.device_references, 0) << row.line;
    wrx_module::bus().refuse(Call::device_descriptor, 0, 0);
    EXPECT_EQ(boot_open_dev() + boot_close_dev(), 0) << row.line;
  }
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
  EXPECT_EQ(wrx_module::bus().live().configurations, 0);
  boot_close_dev();
}

// ---- commands

TEST(BootCommand, RequestsAreByteForByte) {
  Bench bench;
  const std::string block = image_of(240);
  const struct {
    std::function<int()> call;
    std::string request;
  } rows[] = {
      {eraseEFlash, std::string("\xAA\xD3\x00\x00\x2C\x55", 6)},
      {securityCode, std::string("\xAA\xCC\x00\x00\x33\x55", 6)},
      {runAPP, std::string("\xAA\xE3\x00\x00\x1C\x55", 6)},
      {readSN, std::string("\xAA\xA0\x00\x00\x5F\x55", 6) + std::string(244, '\0')},
      {[] { return readEFlash(0x12345, 9); }, frame(0xD0, le(0x12345, 4) + "\x09")},
      {[&] { return downloadCodeToEFlash(0x1FFF10, block.data(), 240); },
       frame(0xD7, le(0x1FFF10, 4) + block)},
      {[&] { return downloadCodeToEFlash(3, block.data(), 100); },
       frame(0xD7, le(3, 4) + block.substr(0, 100)) + std::string(140, '\0')},
      {[&] { return downloadCodeToEFlash(3, block.data(), 1); },
       frame(0xD7, le(3, 4) + block.substr(0, 1), 250)},
      {[] { return readCRC(0, 0x10203); }, frame(0xA6, le(0, 4) + le(0x10203, 4), 250)},
      {[] { return downloadCRCValue(0x10203, 0xBEEF, 0); },
       frame(0xD9, le(0x10203, 4) + le(0xBEEF, 2) + le(0, 4), 250)},
      {checkCRC, ""},
      {selfTest, ""},
      {[&] { return downloadCodeToEFlash(0, block.data(), 241); }, ""},
  };
  ASSERT_EQ(boot_open_dev(), 0);
  for (const auto& row : rows) {
    BootWire wire(bench.rig);
    row.call();
    EXPECT_EQ(wire.said(), row.request);
  }
  boot_close_dev();
}

TEST(BootCommand, AnswersAreKept) {
  Bench bench;
  ASSERT_EQ(boot_open_dev(), 0);
  std::memset(upgrade_param.dev_sn, 0x77, sizeof upgrade_param.dev_sn);
  EXPECT_EQ(readSN(), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(upgrade_param.dev_sn), 64),
            "WRX5300-00000001" + std::string(48, '\0'));
  EXPECT_EQ(readEFlash(0, 255), 0);
  EXPECT_TRUE(bench.rig.trace.saw("readEFlash] read eflash data."));
  EXPECT_EQ(eraseEFlash(), 0);
  EXPECT_EQ(downloadCodeToEFlash(0, "123456789", 9), 0);
  EXPECT_EQ(readCRC(0, 9), 0);
  EXPECT_EQ(upgrade_param.crc_value_dev, 0x906E);
  EXPECT_TRUE(bench.rig.trace.saw("readCRC] read 8 byte."));
  wrx_module::bus().faults().clear();
  wrx_module::bus().faults().add({2, FaultKind::short_read, 0});
  EXPECT_EQ(securityCode(), -1) << "an empty answer";
  EXPECT_TRUE(bench.rig.trace.saw("securityCode] read response failed!!!"));
  boot_close_dev();
}

// ---- a rewrite in trouble

constexpr struct {
  uint8_t command;
  const char* line;  // upgrade_and_run's; null: no failure
} kSteps[] = {
    {0xD3, "eraseEFlash failed!!!"},  {0xD7, "downloadCodeToEFlash: failed!!!"},
    {0xA6, "readCRC: failed!!!"},     {0xD9, "downloadCRC: failed!!!"},
    {0xCC, "securityCode failed!!!"}, {0xE3, nullptr},
};

// The line with which a rewrite must fail; null when the answer is as good as any.
const char* line_of(uint8_t command, const char* line, Kind kind) {
  if (kind == Kind::garbage_first) return nullptr;
  if (kind == Kind::wrong_crc) return command == 0xA6 ? "check CRC: error!!!" : nullptr;
  // A checksum answer needs no more than its type.
  if (command == 0xA6 && kind == Kind::status) return "check CRC: error!!!";
  if (command == 0xA6 && kind == Kind::two_bytes) return nullptr;
  return line;
}

TEST(BootRewrite, EveryBadAnswerToEveryCommandEndsIt) {
  for (const auto& step : kSteps) {
    for (const Kind kind : {Kind::status, Kind::wrong_type, Kind::two_bytes, Kind::cut_short,
                            Kind::garbage_first, Kind::silent, Kind::wrong_crc}) {
      const char* line = line_of(step.command, step.line, kind);
      const std::string told = in_fresh_process([&] {
        Bench bench;
        bench.bootloader().quirks = {{step.command, 0, kind, 3}};
        const int result = upgrade_and_run();
        const bool ended = bench.last_command() == (line == nullptr ? 0xE3 : step.command);
        const bool lines =
            line == nullptr ? bench.rig.trace.saw("] downloadCodeToEFlash: success.")
                            : bench.rig.trace.count(std::string("upgrade_and_run] ") + line) == 1;
        const wrx_module::LiveCounts live = wrx_module::bus().live();
        return std::to_string(result) + " state " + std::to_string(get_upgrade_state()) +
               " budget " + std::to_string(budget_in_file(bench.rig)) + (lines ? "" : " no line") +
               (ended ? "" : " goes on") + (live.handles + live.lists == 0 ? "" : " leaks") +
               (bench.rig.trace.saw("] runAPP: success.") ? " runs" : "");
      });
      const bool runs =
          step.command != 0xE3 || kind == Kind::garbage_first || kind == Kind::wrong_crc;
      std::string expected = "-1 state 1 budget 2";
      if (line == nullptr) expected = std::string("0 state 0 budget 1") + (runs ? " runs" : "");
      EXPECT_EQ(told, expected) << int{step.command} << " kind " << static_cast<int>(kind);
    }
  }
}

// The first bad answer costs an attempt, and the one after it succeeds; ten of them end the start.
TEST(BootRewrite, AFailedRewriteIsTriedAgain) {
  for (const auto& step : kSteps) {
    for (const int nth : {1, 0}) {
      const std::string told = in_fresh_process([&] {
        Bench bench;
        bench.bootloader().quirks = {{step.command, nth, Kind::status, 9}};
        if (step.command == 0xD7 && nth == 1) bench.bootloader().quirks[0].nth = 2;
        const int result = wrx7700_upgrade_pt(&bench.rig.dev, 1);
        const bool good = holds(bench.rig.device.memory(), bench.image);
        return std::to_string(result) + (good ? " good " : " bad ") +
               std::to_string(bench.rig.trace.count("set_upgrade_state] state 1"));
      });
      std::string expected = nth == 1 ? "0 good 2" : "-1 bad 10";
      if (step.command == 0xE3) expected = "0 good 1";
      if (step.command == 0xCC && nth == 0) expected = "-1 good 10";  // all is there but the start
      EXPECT_EQ(told, expected) << int{step.command} << " nth " << nth;
    }
  }
}

TEST(BootRewrite, FailedTransfersAreLoggedWithTheirResult) {
  Bench bench;
  wrx_module::bus().faults().clear();
  wrx_module::bus().faults().add({3, FaultKind::stall});
  wrx_module::bus().faults().add({6, FaultKind::timeout});
  EXPECT_EQ(upgrade_and_run(), -1);
  EXPECT_TRUE(
      bench.rig.trace.saw("boot_write_usb] libusb_bulk_transfer write failed ret = -9!!!\\r"));
  EXPECT_EQ(bench.rig.time_of([] { EXPECT_EQ(upgrade_and_run(), -1); }), 2 + 1000)
      << "no pause after a failed read";
  EXPECT_TRUE(bench.rig.trace.saw("boot_read_usb] libusb_bulk_transfer read failed ret = -7!!!"));
}

// Four milliseconds a frame, a second at the end; never less, never more.
TEST(BootRewrite, TakesExactlyItsPauses) {
  const struct {
    size_t size;
    int64_t ms;
  } rows[] = {{1, 24},   {239, 24}, {240, 24},      {241, 28},
              {480, 28}, {481, 32}, {245760, 4116}, {2097152, 34976}};
  for (const auto& row : rows) {
    Bench bench(row.size);
    EXPECT_EQ(bench.rig.time_of([] { EXPECT_EQ(upgrade_and_run(), 0); }), row.ms) << row.size;
    EXPECT_TRUE(holds(bench.rig.device.memory(), bench.image));
    break_firmware(bench.rig);
    EXPECT_EQ(bench.rig.time_of([&] { EXPECT_EQ(wrx7700_upgrade_pt(&bench.rig.dev, 1), 0); }),
              row.ms + 1000);
  }
}

}  // namespace
}  // namespace wrx_test
