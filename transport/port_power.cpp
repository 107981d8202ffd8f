// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's place on the USB tree, and the kernel's power attributes there.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/paths.h"
#include "base/units.h"
#include "transport/default_context.h"
#include "transport/usb_device.h"

using wrx::print_piece;
using wrx::print_text;
using wrx::transport::here;

namespace {

constexpr uint16_t kVendor = 0x4d2e;
constexpr uint16_t kProduct = 0x5300;
constexpr int kMaxPorts = 8;
constexpr std::size_t kPortString = 20;
constexpr std::size_t kCommandSize = 500;

/// libusb's device list, released with its references.
class DeviceList {
 public:
  DeviceList() {
    if (wrx::transport::default_context_ready())
      count_ = libusb_get_device_list(nullptr, &devices_);
  }
  ~DeviceList() {
    if (count_ >= 0) libusb_free_device_list(devices_, 1);
  }
  DeviceList(const DeviceList&) = delete;
  DeviceList& operator=(const DeviceList&) = delete;

  ssize_t count() const { return count_; }
  libusb_device* operator[](ssize_t i) const { return devices_[i]; }

 private:
  libusb_device** devices_ = nullptr;
  ssize_t count_ = -1;
};

// Fills `text` with the port chain as sysfs names it ("1.2"), saying it piece by piece. A chain
// that does not fit is cut.
void port_string(libusb_device* device, char (&text)[kPortString]) {
  std::array<uint8_t, kMaxPorts> ports{};
  text[0] = '\0';
  const int count = libusb_get_port_numbers(device, ports.data(), kMaxPorts);
  std::size_t length = 0;
  for (int i = 0; i < count; ++i) {
    print_piece(i == 0 ? " path: %d" : ".%d", ports[static_cast<std::size_t>(i)]);
    if (length >= kPortString - 1) continue;
    const int added = std::snprintf(text + length, kPortString - length, i == 0 ? "%d" : ".%d",
                                    ports[static_cast<std::size_t>(i)]);
    length += static_cast<std::size_t>(added);
  }
}

// Records the sysfs folder of a matching device.
void remember_path(libusb_device* device, const libusb_device_descriptor& descriptor,
                   wrx::CallSite site) {
  const int bus = libusb_get_bus_number(device);
  print_text(site, "%04x:%04x (bus %d, device %d)", descriptor.idVendor, descriptor.idProduct, bus,
             libusb_get_device_address(device));
  char ports[kPortString];
  port_string(device, ports);
  print_piece("\n");
  std::snprintf(usb_dev_param.dev_port_path, sizeof usb_dev_param.dev_port_path, "%s%d-%s",
                wrx::paths::kUsbDevices, bus, ports);
  WRX_LOG(site, "usb dev port path: %s\n", usb_dev_param.dev_port_path);
  usb_dev_param.dev_port_path_valid_flag = 1;
}

/// A power attribute of the module's folder, and the shell words that would set it.
struct PowerAttribute {
  const char* echo;   ///< as the log shows it
  const char* value;  ///< what the kernel is handed
  const char* file;
};

constexpr PowerAttribute kAutosuspend[] = {
    {"echo \"auto\"", "auto\n", "/power/control"},
    {"echo 2", "2\n", "/power/autosuspend"},
    {"echo 2000", "2000\n", "/power/autosuspend_delay_ms"},
};
constexpr PowerAttribute kAwake[] = {
    {"echo \"on\"", "on\n", "/power/control"},
};

// Written without a shell: same effect, no words for a shell to take apart. What the kernel does
// with it is not looked at: an attribute may be missing or the service may lack the right.
void write_attribute(const PowerAttribute& attribute, wrx::CallSite site) {
  char path[sizeof usb_dev_param.dev_port_path + 40];
  std::snprintf(path, sizeof path, "%s%s", usb_dev_param.dev_port_path, attribute.file);
  char command[kCommandSize];
  std::snprintf(command, sizeof command, "%s > %s", attribute.echo, path);
  WRX_LOG(site, "%s\n", command);
  const int fd = open(path, O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0) return;
  [[maybe_unused]] const ssize_t written = write(fd, attribute.value, std::strlen(attribute.value));
  close(fd);
}

bool path_is_missing(wrx::CallSite site) {
  if (usb_dev_param.dev_port_path_valid_flag == 1) return false;
  WRX_PRINT(site, "not get dev_port_path!\r");
  return true;
}

}  // namespace

int32_t usb_dev_get_port_path(void) {
  std::memset(usb_dev_param.dev_port_path, 0, sizeof usb_dev_param.dev_port_path);
  usb_dev_param.dev_port_path_valid_flag = 0;
  const DeviceList list;
  int32_t result = -1;
  for (ssize_t i = 0; i < list.count(); ++i) {
    libusb_device_descriptor descriptor{};
    if (libusb_get_device_descriptor(list[i], &descriptor) < 0) {
      std::fputs("failed to get device descriptor", stderr);
      break;
    }
    if (descriptor.idVendor != kVendor || descriptor.idProduct != kProduct) continue;
    remember_path(list[i], descriptor, here());
    result = 0;
  }
  return result;
}

int32_t usb_dev_set_port_path_valid_flag(uint8_t flag) {
  usb_dev_param.dev_port_path_valid_flag = flag;
  return 0;
}

uint8_t usb_dev_get_port_path_valid_flag(void) {
  return usb_dev_param.dev_port_path_valid_flag;
}

int32_t usb_set_autosuspend_flag(uint8_t flag) {
  usb_dev_param.autosuspend_flag = flag;
  return 0;
}

int32_t usb_dev_enable_autosuspend(void) {
  if (path_is_missing(here())) return -1;
  if (usb_dev_param.autosuspend_flag == 1) {
    for (const PowerAttribute& attribute : kAutosuspend)
      write_attribute(attribute, here());
  }
  return 0;
}

int32_t usb_dev_disable_autosuspend(void) {
  if (path_is_missing(here())) return -1;
  for (const PowerAttribute& attribute : kAwake)
    write_attribute(attribute, here());
  return 0;
}
