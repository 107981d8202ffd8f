// SPDX-License-Identifier: LGPL-2.1-or-later
//
// libusb's functions over the bench.
#include "module/usb/usb_front_end.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "module/usb/bus.h"

namespace wm = wrx_module;

// The opaque types are completed here; nobody else sees inside.

struct libusb_context {};

/// A device as it was when it was listed or opened.
struct libusb_device {
  wm::Device* device = nullptr;
  wm::Presence presence;
  std::vector<uint8_t> ports;
  std::vector<uint8_t> descriptor;
  std::vector<uint8_t> configuration;
  bool kernel_driver_holds = false;
  std::atomic<int> references = 1;
};

struct libusb_device_handle {
  libusb_device* device = nullptr;
  int number = 0;
  bool kernel_driver_detached = false;
};

namespace {

uint16_t le16(const std::vector<uint8_t>& bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

// The devices on the bus now, each with one reference.
std::vector<libusb_device*> present_devices() {
  std::vector<libusb_device*> found;
  wm::bus().each([&](wm::Device& device) {
    const auto presence = device.present();
    if (!presence) return;
    auto listed = std::make_unique<libusb_device>();
    listed->device = &device;
    listed->presence = *presence;
    listed->ports = device.settings().usb.ports;
    listed->descriptor = device.device_descriptor();
    listed->configuration = device.configuration_descriptor();
    listed->kernel_driver_holds = device.settings().usb.kernel_driver_holds;
    found.push_back(listed.release());
  });
  wm::bus().count(
      [&](wm::LiveCounts& live) { live.device_references += static_cast<int>(found.size()); });
  return found;
}

bool still_present(const libusb_device& listed) {
  bool present = false;
  wm::bus().each([&](wm::Device& device) {
    if (&device != listed.device) return;
    const auto presence = device.present();
    present = presence && presence->enumeration == listed.presence.enumeration;
  });
  return present;
}

libusb_device_handle* open_listed(libusb_device* listed) {
  auto handle = std::make_unique<libusb_device_handle>();
  handle->device = libusb_ref_device(listed);
  handle->number = wm::bus().next_handle();
  wm::bus().count([](wm::LiveCounts& live) { ++live.handles; });
  return handle.release();
}

void trace_open(uint16_t vendor, uint16_t product, const libusb_device_handle* handle) {
  wm::TraceRecord record;
  record.kind = wm::TraceKind::open;
  record.vendor = vendor;
  record.product = product;
  record.handle = handle == nullptr ? 0 : handle->number;
  wm::bus().trace(std::move(record));
}

int error_of(wm::BulkStatus status) {
  switch (status) {
    case wm::BulkStatus::done:
      return LIBUSB_SUCCESS;
    case wm::BulkStatus::timed_out:
      return LIBUSB_ERROR_TIMEOUT;
    case wm::BulkStatus::stalled:
      return LIBUSB_ERROR_PIPE;
    case wm::BulkStatus::io_error:
      return LIBUSB_ERROR_IO;
    case wm::BulkStatus::gone:
      return LIBUSB_ERROR_NO_DEVICE;
    case wm::BulkStatus::overflowed:
      return LIBUSB_ERROR_OVERFLOW;
  }
  return LIBUSB_ERROR_OTHER;
}

/// A configuration with all it points to.
struct Configuration : libusb_config_descriptor {
  libusb_interface only_interface{};
  libusb_interface_descriptor setting{};
  std::array<libusb_endpoint_descriptor, 2> endpoints{};
};

constexpr size_t kConfigurationBytes = 9, kInterfaceBytes = 9, kEndpointBytes = 7;

libusb_config_descriptor* read_configuration(const std::vector<uint8_t>& bytes) {
  auto owned = std::make_unique<Configuration>();
  Configuration& c = *owned;
  libusb_config_descriptor& head = c;
  head = {bytes[0], bytes[1], le16(bytes, 2),    bytes[4], bytes[5], bytes[6],
          bytes[7], bytes[8], &c.only_interface, nullptr,  0};
  const uint8_t* at = bytes.data() + kConfigurationBytes;
  c.setting = {at[0],   at[1], at[2], at[3], at[4], at[5], at[6], at[7], at[8], c.endpoints.data(),
               nullptr, 0};
  c.only_interface = {&c.setting, 1};
  size_t offset = kConfigurationBytes + kInterfaceBytes;
  for (libusb_endpoint_descriptor& endpoint : c.endpoints) {
    endpoint = {bytes[offset],
                bytes[offset + 1],
                bytes[offset + 2],
                bytes[offset + 3],
                le16(bytes, offset + 4),
                bytes[offset + 6],
                0,
                0,
                nullptr,
                0};
    offset += kEndpointBytes;
  }
  wm::bus().count([](wm::LiveCounts& live) { ++live.configurations; });
  return owned.release();
}

}  // namespace

extern "C" {

int LIBUSB_CALL libusb_init(libusb_context** context) {
  static libusb_context the_context;
  if (const int rc = wm::bus().refusal(wm::Call::init); rc != 0) return rc;
  if (context != nullptr) *context = &the_context;
  wm::bus().count([](wm::LiveCounts& live) { ++live.contexts; });
  return LIBUSB_SUCCESS;
}

void LIBUSB_CALL libusb_exit(libusb_context*) {
  wm::bus().count([](wm::LiveCounts& live) { --live.contexts; });
}

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context*, libusb_device*** list) {
  if (const int rc = wm::bus().refusal(wm::Call::device_list); rc != 0) return rc;
  std::vector<libusb_device*> found = present_devices();
  const auto count = static_cast<ssize_t>(found.size());
  found.push_back(nullptr);
  auto array = std::make_unique<libusb_device*[]>(found.size());
  std::copy(found.begin(), found.end(), array.get());
  *list = array.release();
  wm::bus().count([](wm::LiveCounts& live) { ++live.lists; });
  return count;
}

void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int unref_devices) {
  if (list == nullptr) return;
  for (libusb_device** at = list; unref_devices != 0 && *at != nullptr; ++at) {
    libusb_unref_device(*at);
  }
  const std::unique_ptr<libusb_device*[]> owned(list);
  wm::bus().count([](wm::LiveCounts& live) { --live.lists; });
}

libusb_device* LIBUSB_CALL libusb_ref_device(libusb_device* device) {
  ++device->references;
  wm::bus().count([](wm::LiveCounts& live) { ++live.device_references; });
  return device;
}

void LIBUSB_CALL libusb_unref_device(libusb_device* device) {
  if (device == nullptr) return;
  wm::bus().count([](wm::LiveCounts& live) { --live.device_references; });
  if (--device->references == 0) std::unique_ptr<libusb_device>(device).reset();
}

int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* device, libusb_device_descriptor* out) {
  if (const int rc = wm::bus().refusal(wm::Call::device_descriptor); rc != 0) return rc;
  const std::vector<uint8_t>& b = device->descriptor;
  *out = {b[0],       b[1],        le16(b, 2),  b[4],  b[5],  b[6],  b[7],
          le16(b, 8), le16(b, 10), le16(b, 12), b[14], b[15], b[16], b[17]};
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_get_config_descriptor(libusb_device* device, uint8_t index,
                                             libusb_config_descriptor** out) {
  if (const int rc = wm::bus().refusal(wm::Call::configuration_descriptor); rc != 0) return rc;
  if (index != 0) return LIBUSB_ERROR_NOT_FOUND;
  *out = read_configuration(device->configuration);
  return LIBUSB_SUCCESS;
}

void LIBUSB_CALL libusb_free_config_descriptor(libusb_config_descriptor* configuration) {
  if (configuration == nullptr) return;
  const std::unique_ptr<Configuration> owned(static_cast<Configuration*>(configuration));
  wm::bus().count([](wm::LiveCounts& live) { --live.configurations; });
}

uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device* device) {
  return device->presence.bus_number;
}

uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device* device) {
  return device->presence.address;
}

int LIBUSB_CALL libusb_get_port_numbers(libusb_device* device, uint8_t* ports, int length) {
  if (const int rc = wm::bus().refusal(wm::Call::port_numbers); rc != 0) return rc;
  const int count = static_cast<int>(device->ports.size());
  if (length < count) return LIBUSB_ERROR_OVERFLOW;
  std::copy(device->ports.begin(), device->ports.end(), ports);
  return count;
}

int LIBUSB_CALL libusb_open(libusb_device* device, libusb_device_handle** handle) {
  int rc = wm::bus().refusal(wm::Call::open);
  if (rc == 0 && !still_present(*device)) rc = LIBUSB_ERROR_NO_DEVICE;
  *handle = rc == 0 ? open_listed(device) : nullptr;
  trace_open(device->presence.vendor, device->presence.product, *handle);
  return rc;
}

libusb_device_handle* LIBUSB_CALL libusb_open_device_with_vid_pid(libusb_context*, uint16_t vendor,
                                                                  uint16_t product) {
  libusb_device_handle* handle = nullptr;
  const bool refused = wm::bus().refusal(wm::Call::open) != 0;
  for (libusb_device* device : present_devices()) {
    const bool wanted = device->presence.vendor == vendor && device->presence.product == product;
    if (wanted && handle == nullptr && !refused) handle = open_listed(device);
    libusb_unref_device(device);
  }
  trace_open(vendor, product, handle);
  return handle;
}

void LIBUSB_CALL libusb_close(libusb_device_handle* handle) {
  if (handle == nullptr) return;
  wm::TraceRecord record;
  record.kind = wm::TraceKind::close;
  record.handle = handle->number;
  libusb_unref_device(handle->device);
  std::unique_ptr<libusb_device_handle>(handle).reset();
  wm::bus().count([](wm::LiveCounts& live) { --live.handles; });
  wm::bus().trace(std::move(record));
}

libusb_device* LIBUSB_CALL libusb_get_device(libusb_device_handle* handle) {
  return handle->device;
}

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle* handle, int interface_number) {
  int rc = wm::bus().refusal(wm::Call::claim);
  if (rc == 0 && interface_number != 0) rc = LIBUSB_ERROR_NOT_FOUND;
  if (rc == 0 && !still_present(*handle->device)) rc = LIBUSB_ERROR_NO_DEVICE;
  if (rc == 0 && handle->device->kernel_driver_holds && !handle->kernel_driver_detached) {
    rc = LIBUSB_ERROR_BUSY;
  }
  wm::TraceRecord record;
  record.kind = wm::TraceKind::claim;
  record.interface = interface_number;
  record.rc = rc;
  wm::bus().trace(std::move(record));
  return rc;
}

int LIBUSB_CALL libusb_release_interface(libusb_device_handle*, int) {
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_detach_kernel_driver(libusb_device_handle* handle, int) {
  if (const int rc = wm::bus().refusal(wm::Call::detach); rc != 0) return rc;
  if (!handle->device->kernel_driver_holds) return LIBUSB_ERROR_NOT_FOUND;
  handle->kernel_driver_detached = true;
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_bulk_transfer(libusb_device_handle* handle, unsigned char endpoint,
                                     unsigned char* data, int length, int* moved,
                                     unsigned int timeout) {
  if (moved != nullptr) *moved = 0;
  if (handle == nullptr || length < 0) return LIBUSB_ERROR_INVALID_PARAM;
  const std::span<uint8_t> bytes(data, static_cast<size_t>(length));
  const bool in = (endpoint & LIBUSB_ENDPOINT_IN) != 0;
  const wm::BulkOutcome result = wm::bus().transfer(
      {handle->device->device, handle->device->presence.enumeration, endpoint, bytes, timeout});
  if (moved != nullptr) *moved = static_cast<int>(result.moved);

  wm::TraceRecord record;
  record.kind = in ? wm::TraceKind::in : wm::TraceKind::out;
  record.endpoint = endpoint;
  record.length = bytes.size();
  record.timeout_ms = timeout;
  record.moved = result.moved;
  record.rc = error_of(result.status);
  if (wm::bus().traced()) {
    const auto shown = in ? bytes.first(result.moved) : bytes;
    record.bytes.assign(shown.begin(), shown.end());
  }
  const int rc = record.rc;
  wm::bus().trace(std::move(record));
  return rc;
}

const char* LIBUSB_CALL libusb_error_name(int code) {
  constexpr std::array kNames = {"LIBUSB_SUCCESS",
                                 "LIBUSB_ERROR_IO",
                                 "LIBUSB_ERROR_INVALID_PARAM",
                                 "LIBUSB_ERROR_ACCESS",
                                 "LIBUSB_ERROR_NO_DEVICE",
                                 "LIBUSB_ERROR_NOT_FOUND",
                                 "LIBUSB_ERROR_BUSY",
                                 "LIBUSB_ERROR_TIMEOUT",
                                 "LIBUSB_ERROR_OVERFLOW",
                                 "LIBUSB_ERROR_PIPE",
                                 "LIBUSB_ERROR_INTERRUPTED",
                                 "LIBUSB_ERROR_NO_MEM",
                                 "LIBUSB_ERROR_NOT_SUPPORTED"};
  if (code == LIBUSB_ERROR_OTHER) return "LIBUSB_ERROR_OTHER";
  if (code > 0 || -code >= static_cast<int>(kNames.size())) return "**UNKNOWN**";
  return kNames[static_cast<size_t>(-code)];
}

}  // extern "C"
