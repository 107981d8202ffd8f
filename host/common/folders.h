// SPDX-License-Identifier: LGPL-2.1-or-later
// Where files are when nobody says otherwise: the XDG base directories for what belongs to the
// user, the build tree or the installation for libraries. And how those are made that are their
// user's alone.
#pragma once

#include <string>

namespace wrx::host {

/// The drivers' configuration: the user's if there is one, else the system's if there is one, else
/// empty.
std::string default_config();

/// The feature database. A simulated module has one of its own: its slots are not the real ones.
std::string default_database(bool simulated);

/// Templates kept by the simulated module.
std::string default_templates();

/// What the driver printed in the last run.
std::string default_trace();

/// The driver's plug-in, and the library that stands behind libusb's names when simulating: beside
/// this program in a build tree, else as installed. The plain file name if neither exists.
std::string default_plugin();
std::string module_library();

/// Makes the folder of `file` for this user alone. False (errno set) when it cannot.
bool make_folder_of(const std::string& file);

/// Opens a file for writing that its user alone may read, be it new or there already. `flags` are
/// open's, besides those for writing and making it. The descriptor, or -1 with errno.
int open_private(const std::string& path, int flags);

}  // namespace wrx::host
