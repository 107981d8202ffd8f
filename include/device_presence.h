// SPDX-License-Identifier: LGPL-2.1-or-later
// Door upwards: the waits of operations/ ask the frame whether the module is still there.
#pragma once

#include <cstdint>

#pragma GCC visibility push(default)
extern "C" {

/// Number of modules held open: 1 or 0. Operation thread.
int32_t fp_get_device_num(void);

}  // extern "C"
#pragma GCC visibility pop
