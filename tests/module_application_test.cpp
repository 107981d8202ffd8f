// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The simulated module running its application.
#include "support/module_host.h"

using namespace wrx_module;
using wrx_test::Bytes;
using ModuleApplication = wrx_test::ModuleHost;

namespace {

// What each command answers on a module that holds a template in slot 21 only.
TEST_F(ModuleApplication, CommandsAnswerAsTheModuleDoes) {
  device.memory().templates[21] = "thumb";
  Bytes index(33);
  index[1 + 21 / 8] = 1 << 21 % 8;
  const std::string version = "acm32_btl_zelta_pc_000100";
  Bytes version_answer = {0};
  version_answer.insert(version_answer.end(), version.begin(), version.end());
  Bytes serial = {0};
  serial.insert(serial.end(), device.settings().identity.serial.begin(),
                device.settings().identity.serial.end());
  const struct {
    Bytes command, answer;
  } rows[] = {
      {{53}, {0}},
      {{29}, {0, 0, 1}},
      {{31, 0}, index},
      {{31, 3}, Bytes(33)},
      {{31, 4}, {11}},
      {{15}, {0, 0, 2, 1, 0, 0, 3, 0xFF, 0xFF, 0xFF, 0xFF}},
      {{52}, serial},
      {{175, 16}, version_answer},
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
  Bytes packet = framed({53});
  packet.back() ^= 1;
  send(packet);
  EXPECT_EQ(read(), (Bytes{0xEF, 1, 0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 3, 1, 0, 11}));
  packet = framed({53});
  packet[2] = 0x12;
  send(packet);
  EXPECT_EQ(read()[9], 32);
  EXPECT_EQ(ask({21, 0x12, 0xFF, 0xFF, 0xFF}), Bytes{0});
  send(packet);
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

// The last stage byte of the reports in a read; 0xFF without one.
uint8_t last_stage(const Bytes& reports) {
  uint8_t stage = 0xFF;
  for (size_t at = 0; at + 11 < reports.size(); at += 9U + reports[at + 8]) {
    stage = reports[at + 10];
  }
  return stage;
}

// As a driver does it: read, and sleep unless what it waits for was in the read.
TEST_F(ModuleApplication, ProceduresTakeThePassesTheirBatchingImplies) {
  const auto passes = [this](const Bytes& command, size_t wanted, Bytes stages, int64_t pause_us) {
    const int64_t start = clock.now_ms();
    send(framed(command));
    clock.sleep_us(20'000);
    EXPECT_EQ(last_stage(read()), 0);
    for (size_t found = 0; found < wanted;) {
      const uint8_t stage = last_stage(read(128));
      const bool good = std::find(stages.begin(), stages.end(), stage) != stages.end();
      found += good ? 1 : 0;
      if (!good) clock.sleep_us(pause_us);
    }
    return clock.now_ms() - start;
  };
  const struct {
    const char* settings;
    int64_t identify_ms, enrol_ms;
  } rows[] = {{"set batch report", 40, 800},
              {"set batch step", 20, 20},
              {"set batch report; set capture-report off", 20, 800}};
  for (const auto& row : rows) {
    play(row.settings);
    play("press thumb x13");
    device.memory().templates.clear();
    EXPECT_EQ(passes({50, 3, 0xFF, 0xFF, 0, 1}, 1, {0xF5}, 20'000), row.identify_ms);
    EXPECT_EQ(passes({49, 0, 20, 12, 0, 0}, 13, {3, 6}, 30'000), row.enrol_ms) << row.settings;
    EXPECT_EQ(device.memory().templates[20], "thumb");
  }
}

TEST_F(ModuleApplication, OnlyTwelveGoodPressesOfOneFingerEnrol) {
  play(
      "set batch all; press thumb; press index; press smudged; press thumb rejected;"
      "press dry; press thumb x10");
  EXPECT_EQ(ask({49, 0, 20, 12, 0, 0}, 13), (Bytes{0, 0}));
  EXPECT_TRUE(device.memory().templates.empty());
  EXPECT_TRUE(device.enrolling());
  play("press thumb");
  EXPECT_FALSE(device.enrolling());
  EXPECT_EQ(device.memory().templates[20], "thumb");
  // verdicts of the presses 1, 2 (four bad ones asked for again), 2
  const Bytes reports = read(14 * 18);
  const uint8_t verdicts[] = {0, 8, 49, 3, 4, 0};
  for (size_t press = 0; press < std::size(verdicts); ++press) {
    const size_t at = press * 42 + 28 + 9;
    EXPECT_EQ(reports[at], verdicts[press]) << press;
    EXPECT_EQ(reports[at + 1], 3);
    EXPECT_EQ(reports[at + 2], press == 0 ? 1 : 2);
  }
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
