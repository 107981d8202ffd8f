// SPDX-License-Identifier: LGPL-2.1-or-later
//
// libusb's names over the bench: what a host sees of waits and faults.
#include "support/module_host.h"

using namespace wrx_module;

namespace wrx_test {
namespace {

using ModuleUsb = ModuleHost;

TEST_F(ModuleUsb, AWaitEndsByDataByUnplugOrByItsLimit) {
  Bytes data(64);
  clock.at(2'000'000, [&] { bus().locked([&] { device.unplug(); }); });
  EXPECT_EQ(bulk(0x81, data, 1000), LIBUSB_ERROR_TIMEOUT);
  EXPECT_EQ(clock.now_ms(), 1000);
  data.resize(64);
  EXPECT_EQ(bulk(0x81, data, 0), LIBUSB_ERROR_NO_DEVICE) << "no limit";
  EXPECT_EQ(clock.now_ms(), 2000);
  clock.join();
  EXPECT_EQ(out(0x02, {1}), LIBUSB_ERROR_NO_DEVICE);
  bus().locked([&] { device.plug(); });
  open(0x4d2e, 0x5300);
  EXPECT_EQ(out(0x02, {1}), LIBUSB_ERROR_PIPE) << "no such endpoint";
}

// The second transfer from here is the payload of a handshake, the third its acknowledgement; the
// fifth is the payload of the answer.
TEST_F(ModuleUsb, FaultsStrikeTheTransferTheyAreMeantFor) {
  const Bytes answer = packet({0}), stale = packet({0, 1}) + answer;
  Bytes corrupt = answer;
  corrupt[9] ^= 0x5A;
  const struct {
    const char* fault;
    int rc;
    Bytes got;
    int64_t ms;
  } rows[] = {
      {"fault at 2 timeout", LIBUSB_ERROR_TIMEOUT, {}, 1000},
      {"fault at 2 stall", LIBUSB_ERROR_PIPE, {}, 0},
      {"fault at 2 io", LIBUSB_ERROR_IO, {}, 0},
      {"fault at 2 nodev", LIBUSB_ERROR_NO_DEVICE, {}, 0},
      {"fault at 1 short 3", 0, Bytes(answer.begin(), answer.begin() + 3), 0},
      {"fault at 2 short 3", 0, Bytes(answer.begin(), answer.begin() + 3), 0},
      {"fault at 1 overflow", LIBUSB_ERROR_OVERFLOW, {}, 0},
      {"fault at 2 corrupt 9", 0, corrupt, 0},
      {"fault at 1 stale", 0, stale, 0},
      {"fault at 2 delay 10ms", 0, answer, 10},
      {"fault at 2 delay 2s", LIBUSB_ERROR_TIMEOUT, {}, 1000},
  };
  for (const auto& row : rows) {
    send(packet({53}, 1));
    if (row.fault == std::string("fault at 1 short 3")) {
      EXPECT_EQ(out(0x01, block(0x80, 64)), 0);
      play(row.fault);
    } else {
      play(row.fault);
      EXPECT_EQ(out(0x01, block(0x80, 64)), 0);
    }
    const int64_t start = clock.now_ms();
    EXPECT_EQ(in(0x81, 64), row.got) << row.fault;
    EXPECT_EQ(rc, row.rc) << row.fault;
    EXPECT_EQ(clock.now_ms() - start, row.ms) << row.fault;
    ask({48});  // clears what is left
  }
  play("fault at 1 wrongack");
  out(0x01, block(0x80, 64));
  in(0x81, 64);
  EXPECT_EQ(in(0x81, 4), Bytes(4)) << "waits for the first acknowledgement";
}

}  // namespace
}  // namespace wrx_test
