// SPDX-License-Identifier: LGPL-2.1-or-later
// Door upwards: the firmware upgrade asks the configuration how many upgrades are still allowed.
#pragma once

#include <cstdint>

#pragma GCC visibility push(default)
extern "C" {

/// 0 when the budget "UpgradeFlag" is 1 or more, -1 when it is used up or cannot be read.
int32_t read_fw_upgrade_flag(void);

/// Spends one unit of the budget, at most once a process. 0 when spent, already spent or nothing
/// was left; -1 when the file cannot be read or written.
int32_t change_fw_upgrade_flag(void);

}  // extern "C"
#pragma GCC visibility pop
