// SPDX-License-Identifier: LGPL-2.1-or-later
//
// A host for the tests of the simulated module itself: libusb's calls against a bench in virtual
// time.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "module/play/script.h"
#include "module/usb/bus.h"
#include "module/usb/usb_front_end.h"
#include "support/bytes.h"
#include "support/virtual_clock.h"

namespace wrx_test {

class ModuleHost : public testing::Test {
 protected:
  ModuleHost() {
    wrx_module::bus().reset();
    wrx_module::bus().set_clock(clock);
    wrx_module::bus().attach(device);
    device.settings().link.empty_read = wrx_module::EmptyRead::answers_empty;
    open(0x4d2e, 0x5300);
  }
  ~ModuleHost() override {
    wrx_module::bus().set_trace({});  // what it writes to is gone already
    libusb_close(handle);
    wrx_module::bus().reset();
  }

  void open(uint16_t vendor, uint16_t product) {
    libusb_close(handle);
    handle = libusb_open_device_with_vid_pid(nullptr, vendor, product);
  }
  void play(const std::string& text) {
    auto parsed = wrx_module::parse_script(text);
    ASSERT_FALSE(parsed.error) << parsed.error->text();
    wrx_module::bus().play(device, parsed.script);
  }
  int bulk(uint8_t endpoint, Bytes& data, unsigned timeout = 1000) {
    int moved = 0;
    rc = libusb_bulk_transfer(handle, endpoint, data.data(), static_cast<int>(data.size()), &moved,
                              timeout);
    if ((endpoint & 0x80) != 0) data.resize(static_cast<size_t>(moved));
    return rc;
  }
  int out(uint8_t endpoint, Bytes data) { return bulk(endpoint, data); }
  Bytes in(uint8_t endpoint, size_t max) {
    Bytes data(max);
    bulk(endpoint, data);
    return data;
  }
  static Bytes block(uint8_t direction, size_t n) {
    Bytes block = {'U', 'S', 'B', 'C', direction, 0, 0, 0};
    for (size_t i = 0; i < 3; ++i)
      block[5 + i] = static_cast<uint8_t>(n >> 8 * i);
    return block;
  }
  /// A whole exchange out: block, payload, acknowledgement.
  void send(const Bytes& bytes) {
    ASSERT_EQ(out(0x01, block(0x00, bytes.size())), 0);
    ASSERT_EQ(out(0x01, bytes), 0);
    ASSERT_EQ(in(0x81, 4), (Bytes{'U', 'S', 'B', 'S'}));
  }
  /// A whole exchange in: block, payload, acknowledgement if the payload came.
  Bytes read(size_t max = 64) {
    out(0x01, block(0x80, max));
    Bytes data = in(0x81, max);
    if (rc == 0) {
      EXPECT_EQ(in(0x81, 4), (Bytes{'U', 'S', 'B', 'S'}));
    }
    return data;
  }
  /// The payload of the one packet that answers a command.
  Bytes ask(const Bytes& command, size_t max = 64) {
    send(packet(command, 1));
    const Bytes p = read(max);
    return p.size() < 11 ? Bytes{} : Bytes(p.begin() + 9, p.end() - 2);
  }
  /// A bootloader command with a good check byte; the answer's data.
  Bytes boot(uint8_t type, const Bytes& data = {}) {
    const size_t n = data.size();
    Bytes f = {0xAA, type, static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8)};
    f.insert(f.end(), data.begin(), data.end());
    f.insert(f.end(), {0, 0x55});
    for (size_t i = 0; i < f.size(); ++i) {
      if (i != n + 4) f[n + 4] ^= f[i];
    }
    EXPECT_EQ(out(0x04, f), 0);
    const Bytes a = in(0x84, 64);
    return a.size() < 6 ? Bytes{} : Bytes(a.begin() + 4, a.end() - 2);
  }
  void into_bootloader() {
    send(packet({0xFF, 0xC3, 0x3C, 0x96, 0x69, 0x4B, 0x52, 0x54, 0x4D}, 1));
    clock.sleep_us(540'000);
    open(0x1234, 0xabce);
    ASSERT_NE(handle, nullptr);
  }

  VirtualClock clock;
  wrx_module::Device device{clock, wrx_module::Settings{}};
  libusb_device_handle* handle = nullptr;
  int rc = 0;
};

}  // namespace wrx_test
