// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The simulated module running its application.
#include "support/module_host.h"

using namespace wrx_module;

namespace wrx_test {
namespace {

using ModuleApplication = ModuleHost;

// What each command answers on a module that holds a template in slot 21 only.
TEST_F(ModuleApplication, CommandsAnswerAsTheModuleDoes) {
  device.memory().templates[21] = "thumb";
  Bytes index(33);
  index[1 + 21 / 8] = 1 << 21 % 8;
  const std::string version = "acm32_btl_zelta_pc_000100";
  const Bytes good = {0}, version_text(version.begin(), version.end());
  const struct {
    Bytes command, answer;
  } rows[] = {
      {{53}, {0}},
      {{29}, {0, 0, 1}},
      {{31, 0}, index},
      {{31, 3}, Bytes(33)},
      {{31, 4}, {11}},
      {{15}, {0, 0, 2, 1, 0, 0, 3, 0xFF, 0xFF, 0xFF, 0xFF}},
      {{52}, good + device.settings().identity.serial},
      {{175, 16}, good + version_text},
      {{175, 189, 'T', 'E', 'S', 'T'}, {0}},
      {{175, 189, 'T', 'O', 'S', 'T'}, {27}},
      {{175, 17}, {19}},
      {{177}, {0, 80}},
      {{80, 1}, {0}},
      {{1}, {2}},
      {{10}, {21}},
      {{49, 0x01, 0x00, 12, 0, 0}, {11, 0}},
      {{49, 0, 21, 12, 0, 0}, {34, 0}},
      {{49, 0, 22, 16, 0, 0}, {37, 0}},
      {{49, 0, 22}, {19}},
      {{12, 0, 250, 0, 7}, {11}},
      {{12, 0, 20, 0, 2}, {0}},
      {{29}, {0, 0, 0}},
      {{255, 0, 0, 0, 0, 0, 0, 0, 0}, {27}},
      {{99}, {19}},
      {{51}, {0}},
  };
  for (const auto& row : rows)
    EXPECT_EQ(ask(row.command), row.answer) << int{row.command[0]};
  EXPECT_EQ(device.commands().size(), std::size(rows));
}

TEST_F(ModuleApplication, BadPacketsAndAddressesAreRefused) {
  Bytes handshake = packet({53}, 1);
  handshake.back() ^= 1;
  send(handshake);
  EXPECT_EQ(read(), (Bytes{0xEF, 1, 0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 3, 1, 0, 11}));
  handshake = packet({53}, 1);
  handshake[2] = 0x12;
  send(handshake);
  EXPECT_EQ(read()[9], 32);
  EXPECT_EQ(ask({21, 0x12, 0xFF, 0xFF, 0xFF}), Bytes{0});
  send(handshake);
  EXPECT_EQ(read()[9], 0);
  play("refuse 12 16 x1");
  EXPECT_EQ(ask({12, 0, 1, 0, 1})[0], 16);
  EXPECT_EQ(ask({12, 0, 1, 0, 1})[0], 0);
}

TEST_F(ModuleApplication, BulkResultsFollowTheirAnswerAsOneEndPacket) {
  EXPECT_EQ(ask({22}), Bytes{0});
  const Bytes page = read(148);
  ASSERT_EQ(page.size(), 139U);
  EXPECT_EQ(page[6], 8);
  play("press thumb");
  for (const bool marker : {true, false}) {
    device.settings().identity.image_check = marker ? ImageCheck::marker : ImageCheck::sum;
    EXPECT_EQ(ask({1}), marker ? Bytes{0} : Bytes{2}) << "the queued touch is over";
    EXPECT_EQ(ask({10}), Bytes{0});
    const Bytes image = read(92180);
    ASSERT_EQ(image.size(), 92171U);
    unsigned sum = 8 + 0xFF + 0xFF;
    for (size_t i = 9; i < 9 + 26624; ++i)
      sum += image[i];
    const unsigned check = image[92169] * 256U + image[92170];
    EXPECT_EQ(check, marker ? 0x55AAU : sum % 65536);
  }
}

TEST_F(ModuleApplication, AReadWithNothingToSayTimesOutOrIsEmpty) {
  EXPECT_EQ(read(), Bytes{});
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(clock.now_ms(), 0);
  play("set empty-read times-out");
  read();
  EXPECT_EQ(rc, LIBUSB_ERROR_TIMEOUT);
  EXPECT_EQ(clock.now_ms(), 1000);
  EXPECT_EQ(ask({53}), Bytes{0}) << "a new block abandons the read that timed out";
  play("set response-delay 10ms");
  EXPECT_EQ(ask({53}), Bytes{0});
  EXPECT_EQ(clock.now_ms(), 1010) << "a waiting read is answered when the answer is ready";
}

TEST_F(ModuleApplication, FingersMatchThemselvesInEitherForm) {
  device.memory().templates = {{21, "thumb"}, {23, "thumb"}, {30, "index"}};
  play("set batch step; set capture-report off");
  const struct {
    const char* finger;
    const char* form;
    uint16_t slot;
    Bytes report;
  } rows[] = {
      {"thumb", "list", 0xFFFF, {0, 0xF5, 2, 21, 23}},
      {"ring", "list", 0xFFFF, {9, 0xF5, 0}},
      {"thumb small", "list", 0xFFFF, {9, 0xF5, 0}},
      {"index", "single", 0xFFFF, {0, 5, 0, 30, 0, 100}},
      {"index", "single", 21, {9, 5, 0xFF, 0xFF, 0, 0}},
      {"thumb", "single", 23, {0, 5, 0, 23, 0, 100}},
  };
  for (const auto& row : rows) {
    play(std::string("set result ") + row.form + "; press " + row.finger);
    ask({50, 3, static_cast<uint8_t>(row.slot >> 8), static_cast<uint8_t>(row.slot), 0, 1});
    const Bytes p = read();
    EXPECT_EQ(Bytes(p.begin() + 9, p.end() - 2), row.report) << row.finger;
  }
}

TEST_F(ModuleApplication, CancelEndsTheProcedureAndItsReports) {
  play("at 300ms; press thumb; at 400ms; lift");
  ask({50, 3, 0xFF, 0xFF, 0, 1});
  EXPECT_TRUE(device.identifying());
  EXPECT_EQ(ask({51}), Bytes{18}) << "no sleep while a procedure runs";
  clock.sleep_us(350'000);
  EXPECT_EQ(ask({48}), Bytes{0});
  EXPECT_EQ(read(), Bytes{});
  EXPECT_FALSE(device.identifying());
}

TEST_F(ModuleApplication, ThePowerUpResultIsGivenOnceToWhoMayHaveIt) {
  play("powerup match 21 22 list");
  EXPECT_EQ(ask({175, 16}), (Bytes{0, 0xF5, 2, 21, 22, 0})) << "never shorter than six bytes";
  EXPECT_EQ(read().size(), 37U);
  EXPECT_EQ(ask({175, 16}).size(), 26U);
  play("powerup nomatch");
  ask({50, 3, 0xFF, 0xFF, 0, 1});
  EXPECT_EQ(read()[9], 9);
  EXPECT_EQ(ask({175, 16}).size(), 26U);
}

}  // namespace
}  // namespace wrx_test
