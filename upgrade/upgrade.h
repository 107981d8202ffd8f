// SPDX-License-Identifier: LGPL-2.1-or-later
// upgrade/ keeps the module's firmware current: which image (read_fw_version), when
// (wrx7700_check_firmware_version), and how (upgrade_and_run). The bootloader's link and commands
// are in bootloader.h. It stands on transport/ and protocol/; the frame calls it at start-up, on
// the operation thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "records/framework.h"

namespace wrx::upgrade {

inline constexpr std::size_t kSelectionText = 256;
inline constexpr uint32_t kMaxImage = 0x200000;  ///< bytes of flash for the application

}  // namespace wrx::upgrade

#pragma GCC visibility push(default)
extern "C" {

/// The selected image: path, version as the module writes it (empty until selected), number.
extern char new_firmware_name[wrx::upgrade::kSelectionText];
extern char new_firmware_version[wrx::upgrade::kSelectionText];
extern uint32_t new_firmware_version_num;

/// 0 when the budget "UpgradeFlag" is 1 or more, -1 when it is used up or cannot be read.
int32_t read_fw_upgrade_flag(void);
/// Spends one unit of the budget, at most once a process. 0 when spent, already spent or nothing
/// was left; -1 when the file cannot be read or written.
int32_t change_fw_upgrade_flag(void);

/// Selects the image that the driver carries, if the upgrade budget allows any. 0 or -1. Called
/// once, by ops_configure.
int32_t read_fw_version(void);
/// Path of the selected image; empty until selected.
char* upgrade_new_firmware_name(void);
/// Its version, as the module writes its own.
char* upgrade_new_firmware_version(void);
/// The number in its version; 0 until selected.
uint32_t upgrade_new_firmware_version_num(void);

/// Size of a file in bytes, at most 2^32 - 1; 0 when it cannot be examined.
uint32_t get_file_size(const char* filename);
/// 0 when the selected image exists with a size that flash can hold, else -1.
int32_t check_file_exit(void);

/// One complete rewrite through the bootloader: 0, -2 when the image cannot be opened, -1 for
/// every other failure, which leaves the module in its bootloader.
int32_t upgrade_and_run(void);
/// Sets what get_upgrade_state says. Always 0.
int32_t set_upgrade_state(uint8_t state);
/// 1 from the moment the image is in memory until it is verified in flash, else 0.
uint8_t get_upgrade_state(void);
/// Deletes the image and the selection file. Always 0. No caller in the driver.
int32_t rm_firmware_file(void);

/// Compares the module's firmware with the selected image and upgrades it when the configured mode
/// says so. 0, or -1 when the module cannot be opened.
int32_t wrx7700_check_firmware_version(bio_dev* dev);
/// Rewrites the firmware, rebooting the module into its bootloader as needed: up to ten attempts, a
/// second apart, or one when `dev_exit_flag` is 0. 0, -2 without an image, else -1.
int32_t wrx7700_upgrade_pt(bio_dev* dev, int32_t dev_exit_flag);
/// One immediate rewrite, for a module that is in its bootloader already. 0, -1 or -2.
int32_t wrx7700_upgrade_pt_notdelay(bio_dev* dev, int32_t dev_exit_flag);

}  // extern "C"
#pragma GCC visibility pop
