// SPDX-License-Identifier: LGPL-2.1-or-later
// The reader's properties on the bus, and its description. Most of the interface's property names
// have a dash in them, which the bus library takes for no name at all; so these calls are answered
// here, before the library's own answers to them.
#pragma once

#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-bus.h>

#include <map>
#include <string>

namespace wrx::service {

class Properties {
 public:
  using Values = std::map<std::string, sdbus::Variant>;

  /// Answers for `interface` on `object`, which must outlive this. `description` is the interface's
  /// XML, a whole document.
  Properties(sdbus::IObject& object, std::string interface, std::string description, Values values);
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;
  ~Properties() { sd_bus_slot_unref(slot_); }

  /// Changes a value and tells everybody.
  void set(const std::string& name, const sdbus::Variant& value);

 private:
  static int handle(sd_bus_message* call, void* self, sd_bus_error* error);
  int getAll(sd_bus_message* call) const;
  int get(sd_bus_message* call, sd_bus_error* error) const;

  sdbus::IObject& object_;
  std::string interface_;
  std::string description_;
  Values values_;
  sd_bus_slot* slot_ = nullptr;
};

}  // namespace wrx::service
