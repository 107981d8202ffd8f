// SPDX-License-Identifier: LGPL-2.1-or-later
// transport/ carries bytes to and from the module while it runs its application, and manages the
// power of its USB port. protocol/ is its only neighbour above for payloads; the frame, the
// operations and the upgrade open and close the channel. Everything here runs on the operation
// thread, one exchange at a time.
#pragma once

#include <libusb-1.0/libusb.h>

#include <cstdint>

#include "records/framework.h"
#include "records/usb_dev_param.h"

#pragma GCC visibility push(default)
extern "C" {

extern USB_DEV_STRUCT usb_dev_param;

/// Zeroes the record and initialises libusb's default context. 0, or -1. At plug-in start.
int32_t usb_dev_module_init(void);
/// Zeroes the record. Always 0.
int32_t usb_dev_param_init(void);

/// Opens the first device of the framework's id table that is on the bus. 0, or -1 with no handle
/// held.
int32_t usb_dev_open(bio_dev* dev);
/// 0, or -1 when nothing was open.
int32_t usb_dev_close(void);
/// Forgets the handle without closing it. Always 0.
int32_t usb_dev_set_null(void);
/// The held handle; null while closed.
libusb_device_handle* usb_get_dev_handle(void);
/// Number of modules held open: 1 or 0. The waits of operations/ ask it whether the module is still
/// there.
int32_t fp_get_device_num(void);

/// One write and/or one read. 0 or -1.
int32_t usb_dev_ioctl(DEV_CMD* cmd);
/// Announces a payload of `msg_len` bytes to the module. 0 or -1.
int32_t usb_prepare_send(int32_t msg_len);
/// Announces that up to `msg_len` bytes will be read. 0 or -1.
int32_t usb_prepare_read(int32_t msg_len);
/// Reads and checks the module's acknowledgement. 0 or -1.
int32_t usb_read_bulk_io_ack(void);
/// 0 when `len` is 4 and at least one byte of "USBS" stands in its place, else -1. Lenient because
/// an acknowledgement that a failed exchange left behind may be read in its stead.
int32_t usb_check_bulk_io_ack(const uint8_t* buf, int32_t len);

/// Sends one payload; `*write_len` is the number of its bytes moved. 0 or -1. Without a time limit
/// for the payload itself.
int32_t usb_send_data(uint8_t* buf, int32_t len, int32_t* write_len);
/// Reads one payload of at most `len` bytes; `*read_len` is the number received. 0 or -1. Each
/// transfer waits at most 1000 ms.
int32_t usb_read_data(uint8_t* buf, int32_t len, int32_t* read_len);

/// Diagnostic exchange: announces and reads 128 bytes. 0 or -1. No caller in the driver.
int32_t usb_test_handle(void);
/// Up to three diagnostic exchanges, 50 ms apart. Always 0. No caller in the driver.
int32_t usb_test(void);

/// Finds the module's sysfs folder from its bus and port numbers; of several modules the last in
/// libusb's list. 0 found, -1 not found.
int32_t usb_dev_get_port_path(void);
/// Says whether the folder found is to be trusted. Always 0.
int32_t usb_dev_set_port_path_valid_flag(uint8_t flag);
/// 1 while it is, else 0.
uint8_t usb_dev_get_port_path_valid_flag(void);
/// From the configuration: whether usb_dev_enable_autosuspend is to write anything. Always 0.
int32_t usb_set_autosuspend_flag(uint8_t flag);
/// Lets the kernel suspend the module after two idle seconds, if configured. 0, or -1 when its
/// sysfs folder is not known. Whether the kernel took it is not looked at.
int32_t usb_dev_enable_autosuspend(void);
/// Keeps the module awake. 0 or -1 as above. No caller in the driver.
int32_t usb_dev_disable_autosuspend(void);

}  // extern "C"
#pragma GCC visibility pop
