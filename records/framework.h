// SPDX-License-Identifier: LGPL-2.1-or-later
// The biometric framework's public header, whichever framework the build chose. This is the only
// place of the driver that names it.
#pragma once

#ifndef WRX_FRAMEWORK_HEADER
#error "the build names the framework's header in WRX_FRAMEWORK_HEADER"
#endif
#include WRX_FRAMEWORK_HEADER
