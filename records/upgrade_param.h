// SPDX-License-Identifier: LGPL-2.1-or-later
// Records of the bootloader link: device, response parser, upgrade state.
//
// A frame, both ways, multi-byte fields little-endian:
//
//   offset  size
//   0       1     0xAA
//   1       1     command code; a response carries that of the command it answers
//   2       2     N, number of data bytes
//   4       N     data
//   4+N     1     check byte: XOR of every other byte of the frame
//   5+N     1     0x55
//
// A command with an outcome is answered by a status frame: one data byte, 0 for success.
#pragma once

#include <libusb-1.0/libusb.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace wrx::upgrade {

inline constexpr std::size_t kMaxFrame = 1024;
inline constexpr std::size_t kFrameHead = 4;      ///< head, code, length
inline constexpr std::size_t kFrameOverhead = 6;  ///< and check byte, end
inline constexpr uint8_t kFrameStart = 0xAA;
inline constexpr uint8_t kFrameEnd = 0x55;
inline constexpr int32_t kBlockSize = 240;  ///< image bytes of one download frame

/// States of the response parser. Number 1 was never given.
enum ParserState : uint8_t {
  kWaitHead = 0,
  kWaitType = 2,
  kWaitLengthLow = 3,
  kWaitLengthHigh = 4,
  kWaitData = 5,
  kWaitCheck = 6,
  kWaitEnd = 7,
  kComplete = 8,
  kBroken = 100,
};

}  // namespace wrx::upgrade

/// Identity and interface of the bootloader device.
struct usb_dev {
  uint32_t pid;
  uint32_t vid;
  uint8_t bInterfaceClass;
  uint8_t bInterfaceSubClass;
  uint8_t bmAttributes;
  uint8_t bInEndpointAddress;
  uint8_t bOutEndpointAddress;
  uint8_t bInterfaceNumber;
  libusb_device* dev;    ///< the device found, valid while `devs` is held
  libusb_device** devs;  ///< the list it was found in; released when the link closes
};

/// Receive state of the response parser.
struct UP_PROT_PACKET {
  uint8_t prot_state;
  uint8_t prot_head;
  uint8_t prot_type;
  uint16_t prot_size;
  uint8_t prot_data[wrx::upgrade::kMaxFrame];
  uint32_t prot_data_cnt;
  uint8_t prot_bcc;
  uint8_t prot_end;
  uint8_t prot_respond;
  uint8_t prot_source;
  uint8_t current_cmd_code;
  uint8_t current_resp_cmd;
  uint8_t current_resp_type;
};

struct UPGRADE_PARAM {
  libusb_device_handle* usb_handle;  ///< null while closed
  usb_dev udev;
  UP_PROT_PACKET prot_packet_usb;
  uint8_t usb_recv_data[wrx::upgrade::kMaxFrame];  ///< raw bytes of the frame being parsed
  uint16_t usb_recv_cnt;    ///< bytes of that frame, those beyond the array counted too
  uint8_t dev_sn[64];       ///< serial number reported by the bootloader
  uint16_t crc_value_dev;   ///< CRC reported by the bootloader
  uint16_t crc_value_file;  ///< CRC of the image
  uint8_t upgrade_state;    ///< 1 while flash is being rewritten
};
static_assert(std::is_standard_layout_v<UPGRADE_PARAM> && std::is_trivial_v<UPGRADE_PARAM>);
