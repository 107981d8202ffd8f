// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's bootloader: a USB device of its own, its frames and its commands.
#pragma once

#include <libusb-1.0/libusb.h>

#include <cstdint>

#include "records/upgrade_param.h"

#pragma GCC visibility push(default)
extern "C" {

extern UPGRADE_PARAM upgrade_param;

// ---- link

/// Initialises libusb's default context and the record. 0 or -1.
int32_t upgrade_module_init(void);
/// Finds the device with the vendor and product of `user_device`, which then holds it and the list
/// it stands in. 0 found, -2 not present, -1 for an unreadable descriptor, or libusb's error.
int32_t get_device_descriptor(libusb_device_descriptor* dev_desc, usb_dev* user_device);
/// Finds the interface of class `user_device->bInterfaceClass`. 0 found, -2 none, -1 for an
/// unreadable configuration. No caller in the driver.
int32_t get_device_endpoint(libusb_device_descriptor* dev_desc, usb_dev* user_device);
/// Opens the bootloader and claims its interface. 0, or -1 with no handle held.
int32_t boot_open_dev(void);
/// Closes the handle and releases the device list of the search. 0, or -1 when nothing was open.
int32_t boot_close_dev(void);
/// Writes `len` bytes, waiting without limit. Their number, or -1.
int32_t boot_write_usb(uint8_t* data, int32_t len);
/// Reads at most `len` bytes, waiting at most 1000 ms. Their number, or -1.
int32_t boot_read_usb(uint8_t* data, int32_t len);

// ---- frames

/// XOR of `len` bytes; 0xFF for a null buffer or no bytes.
uint8_t Check_BCC(const uint8_t* data, int32_t len);
/// Feeds received bytes to the parser. 0 as soon as a good frame is complete, else -1.
int32_t parseProtocal(const uint8_t* data, int32_t len);

// ---- commands: 0 or -1

/// Reads flash; the answer is not kept. Always 0. No caller in the driver.
int32_t readEFlash(uint32_t addr, uint8_t len);
/// Erases the application's flash.
int32_t eraseEFlash(void);
/// Writes `len` image bytes, at most 240, at flash offset `addr`.
int32_t downloadCodeToEFlash(uint32_t addr, const char* data, int32_t len);
/// Has the bootloader sum `len` bytes of flash from `addr` into `crc_value_dev`.
int32_t readCRC(uint32_t addr, int32_t len);
/// Stores the CRC by which the bootloader trusts the application.
int32_t downloadCRCValue(uint32_t len, uint16_t crc, uint32_t addr);
/// Writes the code that lets the bootloader start the application.
int32_t securityCode(void);
/// Starts the application: the bootloader leaves the bus.
int32_t runAPP(void);
/// Reads the serial number into `dev_sn`. No caller in the driver.
int32_t readSN(void);
/// Sends nothing. Always 0. No caller in the driver.
int32_t checkCRC(void);
/// Sends nothing. Always 0. No caller in the driver.
int32_t selfTest(void);

// ---- image checksum

/// CRC-16/X-25 of `datalen` bytes.
uint16_t CRC16_X25(const char* data, uint32_t datalen);
/// Reverses the bits of `*srcBuf` into `*dBuf`; both may be the same object.
void InvertUint8(uint8_t* dBuf, const uint8_t* srcBuf);
/// The same for 16 bits.
void InvertUint16(uint16_t* dBuf, const uint16_t* srcBuf);

}  // extern "C"
#pragma GCC visibility pop
