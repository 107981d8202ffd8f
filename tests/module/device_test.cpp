// SPDX-License-Identifier: LGPL-2.1-or-later
//
// What the simulated module refuses. No driver in good order asks for it, so no trace shows it, and
// a module that took everything would hide a driver that sends it.
#include <gtest/gtest.h>

#include "module/device/device.h"
#include "support/bytes.h"
#include "support/virtual_clock.h"

using namespace wrx_module;

namespace wrx_test {
namespace {

class ModuleDevice : public testing::Test {
 protected:
  /// The payload that answers a packet in the application.
  Bytes answer_to(const Bytes& packet) {
    device->out(0x01, Bytes{'U', 'S', 'B', 'C', 0x00, static_cast<uint8_t>(packet.size()), 0, 0});
    device->out(0x01, packet);
    EXPECT_EQ(device->in(0x81, 4).data, (Bytes{'U', 'S', 'B', 'S'}));
    device->out(0x01, Bytes{'U', 'S', 'B', 'C', 0x80, 64, 0, 0});
    const Bytes answer = device->in(0x81, 64).data;
    device->in(0x81, 4);
    return answer.size() < 11 ? Bytes{} : Bytes(answer.begin() + 9, answer.end() - 2);
  }
  /// The data that answer a frame in the bootloader; its check byte is good but for `spoilt`.
  Bytes boot(uint8_t type, const Bytes& data = {}, uint8_t spoilt = 0, uint8_t too_long = 0) {
    Bytes frame = {0xAA, type, static_cast<uint8_t>(data.size() + too_long), 0};
    frame.insert(frame.end(), data.begin(), data.end());
    frame.push_back(0x55);
    uint8_t check = spoilt;
    for (const uint8_t byte : frame)
      check ^= byte;
    frame.insert(frame.end() - 1, check);
    device->out(0x04, frame);
    clock.sleep_us(1'000'000);
    const Bytes answer = device->in(0x84, 64).data;
    return answer.size() < 6 ? Bytes{} : Bytes(answer.begin() + 4, answer.end() - 2);
  }

  VirtualClock clock;
  std::unique_ptr<Device> device = std::make_unique<Device>(clock, Settings{});
};

TEST_F(ModuleDevice, CommandsThatAreOutOfPlaceOrOutOfRangeAreRefused) {
  device->memory().templates[21] = "thumb";
  const std::pair<Bytes, Bytes> rows[] = {
      {{29}, {0, 0, 1}},
      {{31, 3}, Bytes(33)},
      {{31, 4}, {11}},  // a page beyond the index
      {{175, 189, 'T', 'E', 'S', 'T'}, {0}},
      {{175, 189, 'T', 'O', 'S', 'T'}, {27}},
      {{175, 17}, {19}},
      {{1}, {2}},                             // no finger
      {{10}, {21}},                           // no picture
      {{49, 0x01, 0x00, 12, 0, 0}, {11, 0}},  // a slot beyond the library
      {{49, 0, 21, 12, 0, 0}, {34, 0}},       // an occupied one
      {{49, 0, 22, 16, 0, 0}, {37, 0}},       // too many presses
      {{49, 0, 22}, {19}},                    // too short
      {{12, 0, 250, 0, 7}, {11}},             // beyond the library
      {{255, 0, 0, 0, 0, 0, 0, 0, 0}, {27}},  // without the key
      {{99}, {19}},                           // unknown
      {{50, 3, 0xFF, 0xFF, 0, 1}, {0, 0}},    // a search begins
      {{51}, {18}},                           // no sleep while it runs
      {{48}, {0}},
      {{51}, {0}},
      {{29}, {0, 0, 1}},
  };
  for (const auto& [command, answer] : rows)
    EXPECT_EQ(answer_to(packet(command, 1)), answer) << int{command[0]};
}

TEST_F(ModuleDevice, BadSumsAndOtherAddressesAreRefused) {
  Bytes handshake = packet({53}, 1);
  handshake.back() ^= 1;
  EXPECT_EQ(answer_to(handshake), Bytes{1});
  handshake = packet({53}, 1);
  handshake[2] = 0x12;
  EXPECT_EQ(answer_to(handshake), Bytes{32});
  EXPECT_EQ(answer_to(packet({21, 0x12, 0xFF, 0xFF, 0xFF}, 1)), Bytes{0}) << "now it is that one's";
  EXPECT_EQ(answer_to(handshake), Bytes{0});
}

TEST_F(ModuleDevice, TheBootloaderRefusesWhatWouldLeaveNoApplication) {
  constexpr uint8_t kErase = 0xD3, kWrite = 0xD7, kStoreCrc = 0xD9, kSecurity = 0xCC, kRun = 0xE3;
  const Bytes digits = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};  // CRC-16/X-25 0x906E
  device = std::make_unique<Device>(clock, Settings{}, Memory{});
  device->memory().flash = {1};
  EXPECT_EQ(boot(kWrite, Bytes(4) + digits), Bytes{4}) << "not erased";
  EXPECT_EQ(boot(kRun), Bytes{5}) << "no security code";
  EXPECT_EQ(boot(kErase), Bytes{0});
  EXPECT_EQ(boot(kSecurity), Bytes{6}) << "nothing stored";
  EXPECT_EQ(boot(kWrite, Bytes{0xF8, 0xFF, 0x1F, 0x00} + digits), Bytes{3});
  EXPECT_EQ(boot(kWrite, Bytes(4, 0xFF) + digits), Bytes{3});
  EXPECT_EQ(boot(kStoreCrc, {9, 0, 0, 0, 0, 0, 0, 0, 0x20, 0}), Bytes{3});
  EXPECT_EQ(boot(kErase, {1}), Bytes{2});
  EXPECT_EQ(boot(0x77), Bytes{7});
  EXPECT_EQ(boot(kErase, {}, 1), Bytes{1}) << "bad check byte";
  EXPECT_EQ(boot(kErase, {}, 0, 9), Bytes{2}) << "longer than what came";
  EXPECT_TRUE(device->memory().flash.empty());
  EXPECT_EQ(boot(kWrite, Bytes(4) + digits), Bytes{0});
  EXPECT_EQ(boot(kWrite, Bytes{8, 0, 0, 0} + digits), Bytes{4}) << "a byte of it is written";
  EXPECT_EQ(boot(kStoreCrc, {9, 0, 0, 0, 0x6F, 0x90, 0, 0, 0, 0}), Bytes{0});
  EXPECT_EQ(boot(kSecurity), Bytes{6}) << "another checksum";
  EXPECT_EQ(boot(kStoreCrc, {9, 0, 0, 0, 0x6E, 0x90, 0, 0, 0, 0}), Bytes{0});
  EXPECT_EQ(boot(kSecurity), Bytes{0});
}

}  // namespace
}  // namespace wrx_test
