// SPDX-License-Identifier: LGPL-2.1-or-later
// Finding, opening and closing the bootloader device, and its two bulk pipes.
#include "base/log.h"
#include "base/pause.h"
#include "base/units.h"
#include "transport/default_context.h"
#include "upgrade/bootloader.h"

using wrx::upgrade::here;

UPGRADE_PARAM upgrade_param;

namespace {

constexpr uint16_t kVendor = 0x1234;
constexpr uint16_t kProduct = 0xabce;
constexpr unsigned char kEndpointOut = 0x04;
constexpr unsigned char kEndpointIn = 0x84;
constexpr uint32_t kReadTimeoutMs = 1000;
constexpr uint32_t kNoTimeout = 0;
constexpr uint32_t kFramePauseMs = 2;  // the bootloader's time between frames

void release_device_list(usb_dev& device) {
  if (device.devs != nullptr) libusb_free_device_list(device.devs, 1);
  device.dev = nullptr;
  device.devs = nullptr;
}

// Claims the interface, taking it from a kernel driver if need be.
bool claim(libusb_device_handle* handle, int interface, wrx::CallSite site) {
  if (libusb_claim_interface(handle, interface) == 0) return true;
  if (libusb_detach_kernel_driver(handle, interface) != 0) {
    WRX_LOG(site, "libusb_detach_kernel_driver failed.\n");
    return false;
  }
  if (libusb_claim_interface(handle, interface) == 0) return true;
  WRX_LOG(site, "libusb_claim_interface failed.\n");
  return false;
}

// Opens and claims the device that was found; null, with the reason logged, if that fails.
libusb_device_handle* open_claimed(wrx::CallSite site) {
  libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, kVendor, kProduct);
  if (handle == nullptr) {
    WRX_LOG(site, "vid=0x%4x, pid=0x%04x usb device open failed!!!\n", kVendor, kProduct);
    return nullptr;
  }
  if (claim(handle, upgrade_param.udev.bInterfaceNumber, site)) return handle;
  libusb_close(handle);
  return nullptr;
}

bool link_is_unusable(const uint8_t* data, int32_t len, wrx::CallSite site) {
  if (data == nullptr || len <= 0) {
    WRX_LOG(site, "the param is error!!!\n");
    return true;
  }
  if (upgrade_param.usb_handle == nullptr) {
    WRX_LOG(site, "%s not open, error!!!\n", "usb vid=0x1234 pid=0xabce");
    return true;
  }
  return false;
}

// Whether an altsetting of the configuration has the class sought; stores its interface number.
bool find_interface(const libusb_config_descriptor& config, usb_dev& user_device) {
  for (uint8_t i = 0; i < config.bNumInterfaces; ++i) {
    const libusb_interface& interface = config.interface[i];
    for (int j = 0; j < interface.num_altsetting; ++j) {
      const libusb_interface_descriptor& setting = interface.altsetting[j];
      if (setting.bInterfaceClass != user_device.bInterfaceClass) continue;
      user_device.bInterfaceNumber = setting.bInterfaceNumber;
      return true;
    }
  }
  return false;
}

}  // namespace

int32_t upgrade_module_init(void) {
  upgrade_param.usb_handle = nullptr;
  if (libusb_init(nullptr) != 0) {
    WRX_LOG(here(), "libusb_init failed.\n");
    return -1;
  }
  upgrade_param.udev.vid = kVendor;
  upgrade_param.udev.pid = kProduct;
  upgrade_param.usb_recv_cnt = 0;
  upgrade_param.upgrade_state = 0;
  return 0;
}

int32_t get_device_descriptor(libusb_device_descriptor* dev_desc, usb_dev* user_device) {
  if (!wrx::transport::default_context_ready()) return LIBUSB_ERROR_OTHER;
  libusb_device** devices = nullptr;
  const ssize_t count = libusb_get_device_list(nullptr, &devices);
  if (count < 0) return static_cast<int32_t>(count);
  // Leaves the last device's descriptor there for a search that fails early.
  for (ssize_t i = 0; i < count; ++i)
    libusb_get_device_descriptor(devices[i], dev_desc);
  int32_t result = -2;
  for (ssize_t i = 0; i < count; ++i) {
    if (libusb_get_device_descriptor(devices[i], dev_desc) != 0) {
      result = -1;
      break;
    }
    if (dev_desc->idProduct != user_device->pid || dev_desc->idVendor != user_device->vid) continue;
    user_device->dev = devices[i];
    user_device->devs = devices;
    user_device->bInterfaceNumber = 0;
    wrx::print_text(here(), "bInterfaceNumber = %d\n", user_device->bInterfaceNumber);
    return 0;
  }
  libusb_free_device_list(devices, 1);
  return result;
}

int32_t get_device_endpoint(libusb_device_descriptor* dev_desc, usb_dev* user_device) {
  if (user_device->dev == nullptr) return -1;
  for (uint8_t i = 0; i < dev_desc->bNumConfigurations; ++i) {
    libusb_config_descriptor* config = nullptr;
    if (libusb_get_config_descriptor(user_device->dev, i, &config) != 0) return -1;
    const bool found = find_interface(*config, *user_device);
    libusb_free_config_descriptor(config);
    if (found) return 0;
  }
  return -2;
}

int32_t boot_open_dev(void) {
  usb_dev& device = upgrade_param.udev;
  release_device_list(device);
  device.vid = kVendor;
  device.pid = kProduct;
  libusb_device_descriptor descriptor{};
  if (get_device_descriptor(&descriptor, &device) != 0) {
    WRX_LOG(here(), "get_device_descriptor failed.\n");
    return -1;
  }
  libusb_device_handle* handle = open_claimed(here());
  if (handle == nullptr) {
    release_device_list(device);
    return -1;
  }
  upgrade_param.usb_handle = handle;
  wrx::print_text(here(), "vid=0x%4x, pid=0x%04x usb device open success.\n", kVendor, kProduct);
  return 0;
}

int32_t boot_close_dev(void) {
  release_device_list(upgrade_param.udev);
  if (upgrade_param.usb_handle == nullptr) {
    WRX_LOG(here(), "vid=0x%4x, pid=0x%04x usb device not open!!!\r\n", kVendor, kProduct);
    return -1;
  }
  libusb_close(upgrade_param.usb_handle);
  upgrade_param.usb_handle = nullptr;
  return 0;
}

int32_t boot_write_usb(uint8_t* data, int32_t len) {
  if (link_is_unusable(data, len, here())) return -1;
  int moved = 0;
  const int result =
      libusb_bulk_transfer(upgrade_param.usb_handle, kEndpointOut, data, len, &moved, kNoTimeout);
  if (result < 0) {
    WRX_LOG(here(), "libusb_bulk_transfer write failed ret = %d!!!\r\n", result);
    return -1;
  }
  wrx::pause_ms(kFramePauseMs);
  return moved;
}

int32_t boot_read_usb(uint8_t* data, int32_t len) {
  if (link_is_unusable(data, len, here())) return -1;
  int moved = 0;
  const int result = libusb_bulk_transfer(upgrade_param.usb_handle, kEndpointIn, data, len, &moved,
                                          kReadTimeoutMs);
  if (result != 0) {
    WRX_LOG(here(), "libusb_bulk_transfer read failed ret = %d!!!\n", result);
    return -1;
  }
  wrx::pause_ms(kFramePauseMs);
  return moved;
}
