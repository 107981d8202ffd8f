// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The USB/IP protocol's messages as bytes, in both stages of a connection. All numbers are
// big-endian except the setup packet, which is the USB bus's own.
//
//   stage 1, one request and its answer:     stage 2, after an import, in any order:
//     0  version 0x0111                        0  command   1 submit, 2 unlink, +2 = its answer
//     2  code    (answer: without 0x8000)      4  seqnum
//     4  status  0 = well                      8  devid     bus number << 16 | device number
//     8  the code's own                       12  direction 0 = out, 1 = in
//                                             16  endpoint  0 … 15
//                                             20  28 bytes of the command's own, then the data
//
// Everything here may come from a network: readers take exactly the bytes they are given and say
// what is wrong, and no length of the peer's is believed beyond kLongestTransfer.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace wrx_module::usbip {

using Bytes = std::vector<uint8_t>;

inline constexpr size_t kRequestHeadBytes = 8;
inline constexpr size_t kBusIdBytes = 32;
inline constexpr size_t kUrbHeadBytes = 48;
/// The most that one transfer may carry; the module's largest answer is a tenth of it.
inline constexpr size_t kLongestTransfer = 1u << 20;

enum class RequestCode : uint16_t { import = 0x8003, device_list = 0x8005 };
enum class ReplyStatus : uint32_t { ok = 0, not_available = 1, busy = 2, no_device = 4 };

/// Speeds as the kernel numbers them.
enum class Speed : uint32_t { full = 2, high = 3 };

/// What stage 1 tells about a device.
struct ExportedDevice {
  std::string path;
  std::string bus_id;
  uint32_t bus_number = 0;
  uint32_t device_number = 0;
  Speed speed = Speed::full;
  Bytes device_descriptor;         ///< 18 bytes
  Bytes configuration_descriptor;  ///< with its interfaces
  uint8_t configuration = 0;       ///< the one now chosen; 0 = none

  uint32_t devid() const { return bus_number << 16 | device_number; }
};

/// The code of a request head of kRequestHeadBytes bytes; none when it is not one.
std::optional<RequestCode> read_request(std::span<const uint8_t> head);
/// The text of a fixed-size field that zeros fill up.
std::string read_text(std::span<const uint8_t> field);
/// The answer to a list request; `device` may be null (nothing is exported now).
Bytes device_list_reply(const ExportedDevice* device);
/// The answer to an import; the device goes along when the status is ok.
Bytes import_reply(ReplyStatus status, const ExportedDevice& device);

struct Submit {
  uint32_t seqnum = 0;
  uint32_t devid = 0;
  bool in = false;
  uint8_t endpoint = 0;  ///< without the direction bit
  size_t length = 0;     ///< of the data: to come after the head (out), or wanted (in)
  std::array<uint8_t, 8> setup{};
};
struct Unlink {
  uint32_t seqnum = 0;
  uint32_t victim = 0;  ///< seqnum of the submit to be taken back
};
/// A message of stage 2: exactly one of the two, or neither when the head is no such message.
struct UrbMessage {
  std::optional<Submit> submit;
  std::optional<Unlink> unlink;
};
/// Reads a head of kUrbHeadBytes bytes.
UrbMessage read_urb(std::span<const uint8_t> head);

/// The answer to a submit: `status` is 0 or a negative error number, `moved` the bytes that went
/// either way; `data` is what came (in).
Bytes submit_reply(uint32_t seqnum, int32_t status, size_t moved, std::span<const uint8_t> data);
/// The answer to an unlink: -ECONNRESET when the submit was taken back, 0 when it was too late.
Bytes unlink_reply(uint32_t seqnum, int32_t status);

}  // namespace wrx_module::usbip
