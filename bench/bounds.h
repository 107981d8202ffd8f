// SPDX-License-Identifier: LGPL-2.1-or-later
// The figures that the driver must hold.
#pragma once

namespace wrx_bench {

/// Measures each and prints it beside its bound. False when one is not held.
bool check_bounds();

}  // namespace wrx_bench
