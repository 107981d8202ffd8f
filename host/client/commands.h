// SPDX-License-Identifier: LGPL-2.1-or-later
// The commands: each takes a client that has its plug-in configured, and reports how it ended.
#pragma once

#include "client.h"

namespace wrx::client {

// About the driver and its module.
/// What the driver is and which files it is set up with; asks nothing of the module.
Report show_info(Client& client);
/// Starts the driver and looks for the module.
Report discover(Client& client);
/// Starts the driver and shows a firmware upgrade as it goes.
Report initialise(Client& client);
/// Module, image, budget, and what the next start would do. Starts nothing.
Report show_firmware(Client& client);

// About fingers.
/// Twelve presses into a slot and a record.
Report enroll(Client& client);
/// One finger against one record.
Report verify(Client& client);
/// Whose finger it is, among the selected.
Report identify(Client& client);
/// Every selected record that the finger matches.
Report search(Client& client);
/// The selected records; the module rests.
Report list(Client& client);
/// Deletes the selected records with their templates.
Report clean(Client& client);

// About what the two hold together, and what stands between.
/// Everything a finger's way needs, a row each; changes nothing.
Report doctor(Client& client);
/// Slots against records; repairs what has no other side when told to.
Report fsck(Client& client);

// Questions to the module, for service.
/// Whether it answers.
Report module_handshake(Client& client);
/// Its serial number, in hex and as text.
Report module_serial(Client& client);
/// Sensor type, capacity, security level, address.
Report module_parameters(Client& client);
/// The 128 bytes of its information page.
Report module_info_page(Client& client);
/// How many templates it holds.
Report module_count(Client& client);
/// Its first page of slots as a map, beside the records.
Report module_slots(Client& client);
/// A picture of the finger, into a file of the user's alone.
Report module_image(Client& client);

/// Runs the command that the options name.
Report run_command(Client& client);

}  // namespace wrx::client
