// SPDX-License-Identifier: LGPL-2.1-or-later
// libusb's default context, which every search for a device needs.
#pragma once

namespace wrx::transport {

/// Initialises libusb's default context, once a process; a failed start is tried again at the next
/// call. False: there is no context, and no device may be looked for.
bool default_context_ready();

}  // namespace wrx::transport
