// SPDX-License-Identifier: LGPL-2.1-or-later
// The framework's public header as the library itself sees it: everything else is hidden, these
// names are exported. Every source of the library includes it first.
#pragma once

#pragma GCC visibility push(default)
#include "libbiometric.h"
#pragma GCC visibility pop
