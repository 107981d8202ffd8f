// SPDX-License-Identifier: LGPL-2.1-or-later
// The firmware as the driver sees it, asked through the plug-in's exported procedures: what the
// module runs, which image the driver carries, and what the next start would do with the two.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/common/plugin_host.h"

namespace wrx::client {

struct FirmwareVersion {
  std::string text;  ///< in the module's own form
  uint32_t number = 0;
};

struct FirmwareImage {
  std::string path;
  FirmwareVersion version;
  uint32_t size = 0;            ///< bytes; 0: no such file
  std::optional<uint16_t> crc;  ///< CRC-16/X-25; none when the file cannot be used
};

struct FirmwareState {
  std::optional<FirmwareVersion> module;  ///< none: it does not answer
  std::optional<FirmwareImage> image;     ///< none: none is selected
  uint32_t mode = 0;                      ///< UPGRADE_MODE_TYPE
  int32_t budget = 0;                     ///< upgrades still allowed
};

struct FirmwareDecision {
  bool upgrade = false;
  std::string why;
};

/// What the driver's start would do.
FirmwareDecision decide(const FirmwareState& state);

/// All but the module's version, which is not asked for.
FirmwareState driver_side(const host::PluginHost& plugin);

/// Asks an open module for its version; none when it does not answer.
std::optional<FirmwareVersion> ask_module(const host::PluginHost& plugin);

/// The version the driver last heard of, without asking; empty when it has heard of none.
FirmwareVersion last_heard(const host::PluginHost& plugin);

/// The image selected when the driver was configured.
std::optional<FirmwareImage> selected_image(const host::PluginHost& plugin);

}  // namespace wrx::client
