// SPDX-License-Identifier: LGPL-2.1-or-later
// The commands: each takes a client that has its plug-in configured, and reports how it ended.
#pragma once

#include "client.h"

namespace wrx::client {

// About the driver and its module.
Report show_info(Client& client);
Report discover(Client& client);
Report initialise(Client& client);
Report show_firmware(Client& client);

// About fingers.
Report enroll(Client& client);
Report verify(Client& client);
Report identify(Client& client);
Report search(Client& client);
Report list(Client& client);
Report clean(Client& client);

// About what the two hold together, and what stands between.
Report doctor(Client& client);
Report fsck(Client& client);

// Questions to the module, for service.
Report module_handshake(Client& client);
Report module_serial(Client& client);
Report module_parameters(Client& client);
Report module_info_page(Client& client);
Report module_count(Client& client);
Report module_slots(Client& client);
Report module_image(Client& client);

/// Runs the command that the options name.
Report run_command(Client& client);

}  // namespace wrx::client
