// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The USB descriptors of both identities, as the bus carries them.
#include "module/device/device.h"

namespace wrx_module {
namespace {

constexpr uint8_t kDeviceType = 1, kConfigurationType = 2, kInterfaceType = 4, kEndpointType = 5;
constexpr uint8_t kVendorClass = 0xFF, kBulk = 2;
constexpr uint8_t kSelfNoWakeup = 0x80, kMilliampereUnits = 50;

uint8_t low(uint16_t value) {
  return static_cast<uint8_t>(value);
}
uint8_t high(uint16_t value) {
  return static_cast<uint8_t>(value >> 8);
}

}  // namespace

std::vector<uint8_t> Device::device_descriptor() {
  const auto presence = present();
  if (!presence) return {};
  const uint8_t usb_high = settings_.usb.packet_size > 64 ? 0x02 : 0x01;
  const uint8_t usb_low = settings_.usb.packet_size > 64 ? 0x00 : 0x10;
  return {18,
          kDeviceType,
          usb_low,
          usb_high,
          0,  // class, subclass and protocol stand at the interface
          0,
          0,
          64,  // packet size of endpoint 0
          low(presence->vendor),
          high(presence->vendor),
          low(presence->product),
          high(presence->product),
          0x00,  // device release 1.00
          0x01,
          0,  // no strings
          0,
          0,
          1};  // configurations
}

std::vector<uint8_t> Device::configuration_descriptor() {
  const auto presence = present();
  if (!presence) return {};
  const bool application = presence->mode == Mode::application;
  const uint8_t out = application ? 0x01 : 0x04, in = application ? 0x81 : 0x84;
  const uint16_t packet = settings_.usb.packet_size;
  constexpr uint8_t kTotal = 9 + 9 + 2 * 7;
  return {9, kConfigurationType, kTotal, 0, 1, 1, 0, kSelfNoWakeup, kMilliampereUnits,
          // interface 0, two endpoints
          9, kInterfaceType, 0, 0, 2, kVendorClass, 0, 0, 0,
          // bulk out, bulk in
          7, kEndpointType, out, kBulk, low(packet), high(packet), 0, 7, kEndpointType, in, kBulk,
          low(packet), high(packet), 0};
}

}  // namespace wrx_module
