// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The standard requests, a row each.
#include "module/usb/usb_control.h"

#include <algorithm>

namespace wrx_module {
namespace {

constexpr uint8_t kIn = 0x80;
constexpr uint8_t kToDevice = 0, kToInterface = 1, kToEndpoint = 2;
constexpr uint8_t kGetStatus = 0, kClearFeature = 1, kGetDescriptor = 6, kGetConfiguration = 8,
                  kSetConfiguration = 9, kGetInterface = 10, kSetInterface = 11;
constexpr uint8_t kDeviceDescriptor = 1, kConfigurationDescriptor = 2;
constexpr uint16_t kEndpointHalt = 0;
constexpr uint8_t kEndpointType = 5;

}  // namespace

Setup Setup::from(const std::array<uint8_t, 8>& b) {
  const auto word = [&](size_t at) { return static_cast<uint16_t>(b[at] | b[at + 1] << 8); };
  return {b[0], b[1], word(2), word(4), word(6)};
}

std::vector<uint8_t> UsbControl::descriptor(uint8_t type, uint8_t index) {
  if (index != 0) return {};
  if (type == kDeviceDescriptor) return device_.device_descriptor();
  if (type == kConfigurationDescriptor) return device_.configuration_descriptor();
  return {};
}

bool UsbControl::choose_configuration(uint16_t value) {
  if (value > 1) return false;
  configuration_ = static_cast<uint8_t>(value);
  return true;
}

bool UsbControl::known_endpoint(uint16_t index) {
  if (index == 0 || index == kIn) return true;
  const std::vector<uint8_t> all = device_.configuration_descriptor();
  for (size_t at = 0; at + 2 < all.size(); at += std::max<size_t>(all[at], 1))
    if (all[at + 1] == kEndpointType && all[at + 2] == index) return true;
  return false;
}

std::optional<std::vector<uint8_t>> UsbControl::answer(const Setup& setup) {
  using Answer = std::optional<std::vector<uint8_t>>;
  const auto bytes = [](std::initializer_list<uint8_t> some) { return Answer(some); };
  const auto done_if = [](bool well) { return well ? Answer(std::vector<uint8_t>()) : Answer(); };
  const auto row = [](uint8_t type, uint8_t request) { return type << 8 | request; };
  Answer answer;
  switch (row(setup.type, setup.request)) {
    case row(kIn | kToDevice, kGetDescriptor):
      answer =
          descriptor(static_cast<uint8_t>(setup.value >> 8), static_cast<uint8_t>(setup.value));
      if (answer->empty()) answer.reset();
      break;
    case row(kIn | kToDevice, kGetStatus):  // powered by the bus, wakes nobody
      answer = bytes({0, 0});
      break;
    case row(kIn | kToInterface, kGetStatus):
      if (setup.index == 0) answer = bytes({0, 0});
      break;
    case row(kIn | kToEndpoint, kGetStatus):  // a fault plan's stall lasts one transfer only
      if (known_endpoint(setup.index)) answer = bytes({0, 0});
      break;
    case row(kIn | kToDevice, kGetConfiguration):
      answer = bytes({configuration_});
      break;
    case row(kToDevice, kSetConfiguration):
      return done_if(choose_configuration(setup.value));
    case row(kIn | kToInterface, kGetInterface):
      if (setup.index == 0 && configuration_ != 0) answer = bytes({0});
      break;
    case row(kToInterface, kSetInterface):
      return done_if(setup.index == 0 && setup.value == 0 && configuration_ != 0);
    case row(kToEndpoint, kClearFeature):
      return done_if(setup.value == kEndpointHalt && known_endpoint(setup.index));
    default:
      break;
  }
  if (answer && answer->size() > setup.length) answer->resize(setup.length);
  return answer;
}

}  // namespace wrx_module
