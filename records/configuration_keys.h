// SPDX-License-Identifier: LGPL-2.1-or-later
// The keys of the two configuration files: what the driver reads, and what its hosts examine.
#pragma once

namespace wrx::keys {

/// Group of the driver's own file; in the framework's file its group is the device's name.
inline constexpr char kGroup[] = "BASIC_PARAM";

// In both files.
inline constexpr char kPrintfLogFlag[] = "PrintfLogFlag";
// In the framework's file; each acts once and is written back as 0.
inline constexpr char kModeFlag[] = "ModeFlag";
inline constexpr char kRebootFlag[] = "RebootFlag";
// In the driver's own file.
inline constexpr char kAutoSuspend[] = "AutoSuspend";
inline constexpr char kUpgradeFlag[] = "UpgradeFlag";
inline constexpr char kUpgradeMode[] = "UpgradeMode";

}  // namespace wrx::keys
