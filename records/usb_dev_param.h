// SPDX-License-Identifier: LGPL-2.1-or-later
// Records of the application channel: its state and one bulk request.
#pragma once

#include <libusb-1.0/libusb.h>

#include <cstdint>
#include <type_traits>

struct USB_DEV_STRUCT {
  libusb_device_handle* usbdev_handle;  ///< null while closed
  uint8_t bulk_io_ack_state;            ///< 1 once an acknowledgement was accepted
  uint8_t dev_port_path_valid_flag;     ///< 1: dev_port_path holds the module's sysfs folder
  char dev_port_path[200];
  uint8_t autosuspend_flag;  ///< 1: runtime autosuspend is to be enabled
};
static_assert(std::is_standard_layout_v<USB_DEV_STRUCT>);

/// One bulk request: a write from `buff`, then a read into it. A length of 0 leaves that half out;
/// on return the lengths hold what was moved. `timeout` is in milliseconds for each transfer, 0
/// waits without limit.
struct DEV_CMD {
  uint8_t* buff;
  uint32_t write_len;
  uint32_t read_len;
  uint32_t timeout;
};
