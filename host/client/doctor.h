// SPDX-License-Identifier: LGPL-2.1-or-later
// `wrxctl doctor`: a row a thing that can be amiss, in the order of a finger's way. The checks that
// ask the system are in doctor_system.cpp, those that ask the driver and the module in doctor.cpp.
#pragma once

#include <optional>
#include <string>

#include "bus_view.h"
#include "client.h"

namespace wrx::client {

enum class Health {
  Ok,
  Note,     ///< works, but is worth knowing
  Bad,      ///< a finger's way ends here
  Skipped,  ///< cannot be looked at because of a row above
};

/// What a check found.
struct Finding {
  Health health = Health::Ok;
  std::string found;
  std::string advice;  ///< what to type; empty when all is well
  /// How a round ends in which this is the first bad one; none: as the row says.
  std::optional<host::Outcome> outcome = {};
};

/// What the checks share; filled by the first of them.
struct Scene {
  Client& client;
  SeenBus bus{};
  const SeenModule* module = nullptr;  ///< the one the driver takes; in `bus`
};

// On the worker thread, the module closed. Each returns what it found.
/// Is there a module? Fills the scene's bus and module.
Finding check_bus(Scene& scene);
/// May this user open its node?
Finding check_rights(Scene& scene);
/// Does another program or the kernel hold its interface?
Finding check_holder(Scene& scene);
/// Do its power attributes in sysfs suit the configuration?
Finding check_power(Scene& scene);
/// Can the drivers' configuration be used, and by nobody else be written?
Finding check_framework_config(Scene& scene);
/// The same of the driver's own.
Finding check_driver_config(Scene& scene);

/// Whether the drivers' configuration can be loaded; true for an empty path.
bool readable_config(const std::string& path);

}  // namespace wrx::client
