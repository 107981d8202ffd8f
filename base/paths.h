// SPDX-License-Identifier: LGPL-2.1-or-later
// Every path the driver opens. WRX_ROOT is empty in what ships; the tests build the same sources
// with a root of their own. Nothing at run time can change a path.
#pragma once

#ifndef WRX_ROOT
#define WRX_ROOT ""
#endif

namespace wrx::paths {

/// Configuration of all drivers, loaded by the framework; the driver writes it back to clear its
/// one-shot keys.
inline constexpr char kHostConfig[] = WRX_ROOT "/etc/biometric-auth/biometric-drivers.conf";
/// The driver's own configuration, which it loads itself.
inline constexpr char kExtraConfig[] =
    WRX_ROOT "/etc/biometric-auth/extra.conf.d/vestrel-m6600.conf";
/// Folder of the firmware image, its selection file and the log; ends in a slash.
inline constexpr char kExtraFolder[] = WRX_ROOT "/etc/wrx6600/extra/";
inline constexpr char kLogFile[] = WRX_ROOT "/etc/wrx6600/extra/log_wrx.txt";
inline constexpr char kFirmwareSelection[] = WRX_ROOT "/etc/wrx6600/extra/trv_fw.conf";
/// Folder of the kernel's USB devices; ends in a slash.
inline constexpr char kUsbDevices[] = WRX_ROOT "/sys/bus/usb/devices/";

}  // namespace wrx::paths
