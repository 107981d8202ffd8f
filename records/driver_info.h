// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver's private record, hung on bio_dev.dev_priv, and the configuration it holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "records/framework.h"

/// When a start-up replaces the module's firmware ("UpgradeMode"). 0 stands for a name that is
/// none of these: never.
enum UPGRADE_MODE_TYPE : uint32_t {
  FORCE_UPGRADE = 1,  ///< always
  DONT_UPGRADE = 2,   ///< never
  AUTO_UPGRADE = 3,   ///< when the version strings differ, a downgrade included
  SMART_UPGRADE = 4,  ///< when the image's number is greater
};

/// What the extra configuration file says.
struct DRIVER_CONFIG_STRUCT {
  UPGRADE_MODE_TYPE upgrade_mode;
  uint8_t autosuspend_flag;  ///< 1: let the kernel suspend the module when it is idle
  int32_t upgrade_flag;      ///< upgrades still allowed when the file was read
};

/// Values of driver_info.ctrlFlag, the handshake between a user's stop and the operation it ends.
enum StopHandshake : int32_t {
  kStopIdle = 0,
  kStopRequested = 2,     ///< set by the stop callback
  kStopAcknowledged = 3,  ///< set by the operation at its end, if it finds a request
  kStopEnded = 4,         ///< also ends the stop callback's wait; no operation sets it
};

/// The notification that says: the text stands in driver_info.extra_info.
inline constexpr int MID_EXTENDED_MESSAGE = 9;

inline constexpr std::size_t kExtraInfoSize = 1024;

/// Allocated zeroed by ops_configure; lives as long as the plug-in is loaded. Written by the
/// operation thread, but for ctrlFlag (see stop_flags.h).
struct driver_info {
  int32_t timeoutMS;  ///< time limit of an operation, milliseconds
  int32_t ctrlFlag;   ///< StopHandshake
  char extra_info[kExtraInfoSize];
  int32_t mode_flag;    ///< "ModeFlag": 7700 test mode, 1 user mode, other values nothing
  int32_t reboot_flag;  ///< "RebootFlag": 5809 reboots the module at start-up
  DRIVER_CONFIG_STRUCT config;
};
static_assert(std::is_standard_layout_v<driver_info> && std::is_trivial_v<driver_info>);
static_assert(offsetof(driver_info, extra_info) == 8 && offsetof(driver_info, mode_flag) == 1032);

namespace wrx {

inline driver_info& info_of(const bio_dev* dev) {
  return *static_cast<driver_info*>(dev->dev_priv);
}

}  // namespace wrx
