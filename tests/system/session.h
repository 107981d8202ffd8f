// SPDX-License-Identifier: LGPL-2.1-or-later
// What the two builds of the session program differ in.
#pragma once

#include <string>

namespace wrx::system_test {

/// Puts a module where the driver's USB calls end: nothing on the real bus, whose module is a
/// program of its own; in process, a module that runs `script` and writes what goes over its wire
/// to the file `wire`. False when the build cannot do what is asked.
bool place_module(const std::string& script, const std::string& wire);

}  // namespace wrx::system_test
