// SPDX-License-Identifier: LGPL-2.1-or-later
// The biometric framework's public header, whichever framework the build chose. This is the only
// place of the driver that names it. Not every framework's header says by itself that its functions
// have C linkage; what such headers commonly include is included before, for templates cannot have
// it.
#pragma once

#include <glib.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifndef WRX_FRAMEWORK_HEADER
#error "the build names the framework's header in WRX_FRAMEWORK_HEADER"
#endif
extern "C" {
#include WRX_FRAMEWORK_HEADER
}
