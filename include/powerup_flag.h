// SPDX-License-Identifier: LGPL-2.1-or-later
// Door upwards: the response decoder tells operations/ that the module reported the
// identification it ran by itself at power-up.
#pragma once

#include <cstdint>

#pragma GCC visibility push(default)
extern "C" {

/// Stores whether a power-up result is held (1) or not (0). Returns 0. Operation thread.
int32_t set_onekey_powerup_flag(uint8_t flag);

}  // extern "C"
#pragma GCC visibility pop
