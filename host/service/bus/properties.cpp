// SPDX-License-Identifier: LGPL-2.1-or-later
// Get, GetAll and Introspect by hand.

#include "host/service/bus/properties.h"

#include <utility>
#include <vector>

namespace wrx::service {
namespace {

constexpr char kInterface[] = "org.freedesktop.DBus.Properties";
constexpr char kEnd[] = "</node>";

// What every object has besides its own.
constexpr char kStandard[] = R"(  <interface name="org.freedesktop.DBus.Properties">
    <method name="Get">
      <arg name="interface" type="s" direction="in"/>
      <arg name="property" type="s" direction="in"/>
      <arg name="value" type="v" direction="out"/>
    </method>
    <method name="GetAll">
      <arg name="interface" type="s" direction="in"/>
      <arg name="properties" type="a{sv}" direction="out"/>
    </method>
    <signal name="PropertiesChanged">
      <arg name="interface" type="s"/>
      <arg name="changed" type="a{sv}"/>
      <arg name="invalidated" type="as"/>
    </signal>
  </interface>
  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect"><arg name="xml" type="s" direction="out"/></method>
  </interface>
  <interface name="org.freedesktop.DBus.Peer">
    <method name="Ping"/>
    <method name="GetMachineId"><arg name="machine" type="s" direction="out"/></method>
  </interface>
)";

/// The bus library's own connection, which sdbus-c++ keeps to itself: a message knows it.
struct Raw : sdbus::Message {
  static sd_bus* busOf(const sdbus::Message& message) {
    return sd_bus_message_get_bus(static_cast<sd_bus_message*>(message.*(&Raw::msg_)));
  }
};

int append(sd_bus_message* reply, const sdbus::Variant& value) {
  const std::string type = value.peekValueType();
  if (type == "b") return sd_bus_message_append(reply, "v", "b", value.get<bool>() ? 1 : 0);
  if (type == "i") return sd_bus_message_append(reply, "v", "i", value.get<int32_t>());
  return sd_bus_message_append(reply, "v", "s", value.get<std::string>().c_str());
}

/// Sends a reply that `fill` has filled; 1, or a negative errno.
template <class Fill>
int reply_with(sd_bus_message* call, Fill fill) {
  sd_bus_message* reply = nullptr;
  int code = sd_bus_message_new_method_return(call, &reply);
  if (code >= 0) code = fill(reply);
  if (code >= 0) code = sd_bus_message_send(reply);
  sd_bus_message_unref(reply);
  return code < 0 ? code : 1;
}

}  // namespace

Properties::Properties(sdbus::IObject& object, std::string interface, std::string description,
                       Values values)
    : object_(object),
      interface_(std::move(interface)),
      description_(std::move(description)),
      values_(std::move(values)) {
  description_.insert(description_.rfind(kEnd), kStandard);
  const sdbus::Signal any = object_.createSignal(kInterface, "PropertiesChanged");
  const int code = sd_bus_add_object(Raw::busOf(any), &slot_, object_.getObjectPath().c_str(),
                                     &Properties::handle, this);
  if (code < 0) throw sdbus::createError(-code, "the properties cannot be published");
}

void Properties::set(const std::string& name, const sdbus::Variant& value) {
  values_[name] = value;
  auto signal = object_.createSignal(kInterface, "PropertiesChanged");
  signal << interface_ << Values{{name, value}} << std::vector<std::string>();
  object_.emitSignal(signal);
}

int Properties::handle(sd_bus_message* call, void* self, sd_bus_error* error) {
  const auto& properties = *static_cast<const Properties*>(self);
  if (sd_bus_message_is_method_call(call, kInterface, "GetAll") > 0) return properties.getAll(call);
  if (sd_bus_message_is_method_call(call, kInterface, "Get") > 0)
    return properties.get(call, error);
  if (sd_bus_message_is_method_call(call, "org.freedesktop.DBus.Introspectable", "Introspect") > 0)
    return reply_with(call, [&](sd_bus_message* reply) {
      return sd_bus_message_append(reply, "s", properties.description_.c_str());
    });
  return 0;  // the library's to answer
}

int Properties::getAll(sd_bus_message* call) const {
  const char* interface = nullptr;
  const int code = sd_bus_message_read(call, "s", &interface);
  if (code < 0) return code;
  if (interface_ != interface) return 0;
  return reply_with(call, [&](sd_bus_message* reply) {
    int filled = sd_bus_message_open_container(reply, 'a', "{sv}");
    for (const auto& [name, value] : values_) {
      if (filled >= 0) filled = sd_bus_message_open_container(reply, 'e', "sv");
      if (filled >= 0) filled = sd_bus_message_append(reply, "s", name.c_str());
      if (filled >= 0) filled = append(reply, value);
      if (filled >= 0) filled = sd_bus_message_close_container(reply);
    }
    return filled < 0 ? filled : sd_bus_message_close_container(reply);
  });
}

int Properties::get(sd_bus_message* call, sd_bus_error* error) const {
  const char* interface = nullptr;
  const char* name = nullptr;
  const int code = sd_bus_message_read(call, "ss", &interface, &name);
  if (code < 0) return code;
  if (interface_ != interface) return 0;
  const auto found = values_.find(name);
  if (found == values_.end())
    return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_PROPERTY, "no property \"%s\"", name);
  return reply_with(call, [&](sd_bus_message* reply) { return append(reply, found->second); });
}

}  // namespace wrx::service
