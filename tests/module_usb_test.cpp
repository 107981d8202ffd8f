// SPDX-License-Identifier: LGPL-2.1-or-later
//
// libusb's names over the bench: what a host sees of devices, waits, faults and the trace.
#include "support/module_host.h"

using namespace wrx_module;
using wrx_test::Bytes;
using ModuleUsb = wrx_test::ModuleHost;

namespace {

TEST_F(ModuleUsb, ListsAndHandlesAreCountedAndDescribed) {
  Settings other;
  other.usb.product = 0x5100;
  other.usb.ports = {1, 4};
  Device second(clock, other);
  bus().attach(second);
  libusb_device** list = nullptr;
  ASSERT_EQ(libusb_get_device_list(nullptr, &list), 2);
  libusb_device_descriptor d{};
  ASSERT_EQ(libusb_get_device_descriptor(list[1], &d), 0);
  EXPECT_EQ(d.idVendor, 0x4d2e);
  EXPECT_EQ(d.idProduct, 0x5100);
  EXPECT_EQ(d.bNumConfigurations, 1);
  uint8_t ports[7] = {};
  EXPECT_EQ(libusb_get_port_numbers(list[1], ports, 1), LIBUSB_ERROR_OVERFLOW);
  EXPECT_EQ(libusb_get_port_numbers(list[1], ports, 7), 2);
  EXPECT_EQ(ports[1], 4);
  libusb_config_descriptor* c = nullptr;
  ASSERT_EQ(libusb_get_config_descriptor(list[0], 0, &c), 0);
  EXPECT_EQ(c->interface[0].altsetting[0].bInterfaceClass, 0xFF);
  EXPECT_EQ(c->interface[0].altsetting[0].endpoint[1].bEndpointAddress, 0x81);
  EXPECT_EQ(bus().live().configurations, 1);
  libusb_free_config_descriptor(c);
  libusb_free_device_list(list, 1);
  open(0x4d2e, 0x5100);
  EXPECT_NE(handle, nullptr);
  second.unplug();
  EXPECT_EQ(out(0x01, {1}), LIBUSB_ERROR_NO_DEVICE);
  open(0x4d2e, 0x5100);
  EXPECT_EQ(handle, nullptr);
  const LiveCounts live = bus().live();
  EXPECT_EQ(live.lists + live.handles + live.device_references + live.configurations, 0);
  bus().detach(second);
}

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
  const Bytes answer = {0xEF, 1, 0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 3, 0, 0, 10};
  Bytes stale = {0xEF, 1, 0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 4, 0, 1, 0, 12};
  stale.insert(stale.end(), answer.begin(), answer.end());
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
    send(framed({53}));
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

TEST_F(ModuleUsb, UnplugPowerCutAndDeathAreFaults) {
  int deaths = 0;
  bus().faults().on_death = [&] { deaths = bus().faults().count(); };
  play("unplug after 2 transfers");
  EXPECT_EQ(out(0x01, block(0x80, 64)), 0);
  in(0x81, 64);
  EXPECT_EQ(in(0x81, 4), Bytes{});
  EXPECT_EQ(rc, LIBUSB_ERROR_NO_DEVICE);
  EXPECT_FALSE(device.present());
  play("plug; fault at 1 powercut; fault at 2 death");
  open(0x4d2e, 0x5300);
  EXPECT_EQ(out(0x01, {1}), LIBUSB_ERROR_NO_DEVICE);
  EXPECT_TRUE(device.present());
  open(0x4d2e, 0x5300);
  EXPECT_EQ(out(0x01, {1}), LIBUSB_ERROR_NO_DEVICE);
  EXPECT_EQ(deaths, 5);
  EXPECT_EQ(bus().faults().struck().size(), 3U);
}

// A reboot as the driver asks for it, with the costs of a transfer, against known lines.
TEST_F(ModuleUsb, TheTraceShowsTransfersAndTheBus) {
  std::string lines;
  bus().set_trace([&](const TraceRecord& r) { lines += trace_line(r) + "\n"; });
  play("set out-cost 125us; set in-cost 250us");
  clock.sleep_us(191'500);
  into_bootloader();
  device.settings().usb.kernel_driver_holds = true;
  open(0x1234, 0xabce);
  EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_ERROR_BUSY);
  EXPECT_EQ(libusb_detach_kernel_driver(handle, 0), 0);
  EXPECT_EQ(libusb_claim_interface(handle, 0), 0);
  EXPECT_EQ(lines,
            "@ t=191 usb-out ep=0x01 len=8 timeout=1000 moved=8 rc=0 5553424300140000\n"
            "@ t=191 usb-out ep=0x01 len=20 timeout=1000 moved=20 rc=0 "
            "ef01ffffffff01000bffc33c96694b52544d0447\n"
            "@ t=192 usb-in ep=0x81 want=4 timeout=1000 got=4 rc=0 55534253\n"
            "@ t=231 module leaves the bus\n"
            "@ t=731 bootloader appears\n"
            "@ t=732 usb-close #1\n"
            "@ t=732 usb-open 1234:abce #2\n"
            "@ t=732 usb-close #2\n"
            "@ t=732 usb-open 1234:abce #3\n"
            "@ t=732 usb-claim interface=0 rc=-6\n"
            "@ t=732 usb-claim interface=0 rc=0\n");
  Bytes frame = {0xAA, 0xA6, 8, 0, 0, 0, 0, 0, 0xBC, 2, 0, 0, 0xEF, 0x55};
  frame.resize(250);
  EXPECT_TRUE(trace_bytes(frame).ends_with("00…fdcdbf6cfd9ee6f7"));
}

TEST_F(ModuleUsb, CallsCanBeMadeToFail) {
  libusb_device** list = nullptr;
  bus().refuse(Call::device_list, LIBUSB_ERROR_NO_MEM);
  EXPECT_EQ(libusb_get_device_list(nullptr, &list), LIBUSB_ERROR_NO_MEM);
  bus().refuse(Call::init, LIBUSB_ERROR_OTHER, -1);
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(libusb_init(nullptr), LIBUSB_ERROR_OTHER);
  bus().refuse(Call::open, LIBUSB_ERROR_ACCESS);
  open(0x4d2e, 0x5300);
  EXPECT_EQ(handle, nullptr);
  open(0x4d2e, 0x5300);
  EXPECT_NE(handle, nullptr);
  EXPECT_STREQ(libusb_error_name(LIBUSB_ERROR_PIPE), "LIBUSB_ERROR_PIPE");
}

}  // namespace
