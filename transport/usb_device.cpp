// SPDX-License-Identifier: LGPL-2.1-or-later
// The application channel's record, its opening and closing, and one bulk request.
#include "transport/usb_device.h"

#include "base/log.h"
#include "base/units.h"
#include "transport/default_context.h"

using wrx::print_function;
using wrx::print_line;
using wrx::transport::default_context_ready;
using wrx::transport::here;

USB_DEV_STRUCT usb_dev_param;

namespace {

constexpr unsigned char kEndpointOut = 0x01;
constexpr unsigned char kEndpointIn = 0x81;
// Stands in messages only; nothing is opened by this name.
constexpr char kChannelName[] = "/dev/fp256_360_usb_drv";

// Moves `*length` bytes and stores what was moved, 0 after a failure. The handle may have been
// dropped during the transfer before.
bool transfer(unsigned char endpoint, DEV_CMD& cmd, uint32_t& length) {
  int moved = 0;
  if (usb_dev_param.usbdev_handle == nullptr) {
    length = 0;
    return false;
  }
  const int result = libusb_bulk_transfer(usb_dev_param.usbdev_handle, endpoint, cmd.buff,
                                          static_cast<int>(length), &moved, cmd.timeout);
  length = result == 0 ? static_cast<uint32_t>(moved) : 0;
  return result == 0;
}

}  // namespace

bool wrx::transport::default_context_ready() {
  static bool ready = false;
  if (!ready) ready = libusb_init(nullptr) == 0;
  return ready;
}

int32_t usb_dev_module_init(void) {
  if (usb_dev_param_init() != 0) {
    print_line(here(), "usb_dev_param_init failed!!!\r\n");
    return -1;
  }
  if (!default_context_ready()) {
    WRX_LOG(here(), "libusb_init failed.\n");
    return -1;
  }
  return 0;
}

int32_t usb_dev_param_init(void) {
  usb_dev_param = {};
  return 0;
}

int32_t usb_dev_open(bio_dev* dev) {
  usb_dev_param.usbdev_handle = nullptr;
  if (default_context_ready()) {
    for (const usb_id* row = dev->usb_info.id_table; row != nullptr && row->idVendor != 0; ++row) {
      usb_dev_param.usbdev_handle =
          libusb_open_device_with_vid_pid(nullptr, row->idVendor, row->idProduct);
      if (usb_dev_param.usbdev_handle != nullptr) return 0;
    }
  }
  WRX_LOG(here(), "device open failed!!!\r\n");
  return -1;
}

int32_t usb_dev_close(void) {
  if (usb_dev_param.usbdev_handle == nullptr) {
    print_function(here(), "%s not open!!!\r\n", kChannelName);
    return -1;
  }
  libusb_close(usb_dev_param.usbdev_handle);
  usb_dev_param.usbdev_handle = nullptr;
  return 0;
}

int32_t usb_dev_set_null(void) {
  usb_dev_param.usbdev_handle = nullptr;
  return 0;
}

libusb_device_handle* usb_get_dev_handle(void) {
  return usb_dev_param.usbdev_handle;
}

int32_t fp_get_device_num(void) {
  return usb_get_dev_handle() != nullptr ? 1 : 0;
}

int32_t usb_dev_ioctl(DEV_CMD* cmd) {
  if (cmd == nullptr) {
    print_function(here(), "the point dev_cmd is null, error!!!\r\n");
    return -1;
  }
  if (usb_dev_param.usbdev_handle == nullptr) {
    print_function(here(), "%s not open, error!!!\r\n", kChannelName);
    return -1;
  }
  if (cmd->write_len != 0 && !transfer(kEndpointOut, *cmd, cmd->write_len)) {
    print_line(here(), "libusb_bulk_transfer write failed!!!\r\n");
    return -1;
  }
  if (cmd->read_len != 0 && !transfer(kEndpointIn, *cmd, cmd->read_len)) {
    print_line(here(), "libusb_bulk_transfer read failed!!!\r\n");
    return -1;
  }
  return 0;
}
