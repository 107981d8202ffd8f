// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Endpoint 0 of the module: the standard requests of a USB 2 device with one configuration, one
// interface, and no strings. Needed only where a real host enumerates the module; the in-process
// front end answers for it. One object lives as long as one enumeration.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "module/device/device.h"

namespace wrx_module {

/// The eight bytes that begin a control transfer, with their little-endian words.
struct Setup {
  uint8_t type = 0;  ///< direction, kind, recipient
  uint8_t request = 0;
  uint16_t value = 0;
  uint16_t index = 0;
  uint16_t length = 0;

  static Setup from(const std::array<uint8_t, 8>& bytes);
};

class UsbControl {
 public:
  explicit UsbControl(Device& device) : device_(device) {}

  /// Carries out a request. What the device says (at most setup.length bytes, none for an OUT
  /// request); no value when it stalls, as for anything it does not know.
  std::optional<std::vector<uint8_t>> answer(const Setup& setup);
  /// The configuration that the host has chosen; 0 = none.
  uint8_t configuration() const { return configuration_; }

 private:
  std::vector<uint8_t> descriptor(uint8_t type, uint8_t index);
  bool choose_configuration(uint16_t value);
  bool known_endpoint(uint16_t index);

  Device& device_;
  uint8_t configuration_ = 0;
};

}  // namespace wrx_module
