// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Reading and writing the messages.
#include "module/usb/usbip_wire.h"

#include <algorithm>

namespace wrx_module::usbip {
namespace {

constexpr uint16_t kVersion = 0x0111, kReplyMask = 0x7FFF;
constexpr size_t kPathBytes = 256;
constexpr uint32_t kCmdSubmit = 1, kCmdUnlink = 2, kRetSubmit = 3, kRetUnlink = 4;
constexpr uint32_t kNoIsoPackets = 0xFFFFFFFF;
constexpr size_t kMostEndpoints = 16;
// Places in the configuration descriptor: number of interfaces, and the class triple of each
// interface descriptor.
constexpr size_t kInterfaceCountAt = 4, kInterfaceClassAt = 5;
constexpr uint8_t kInterfaceType = 4;

uint32_t be32(std::span<const uint8_t> bytes, size_t at) {
  return static_cast<uint32_t>(bytes[at]) << 24 | static_cast<uint32_t>(bytes[at + 1]) << 16 |
         static_cast<uint32_t>(bytes[at + 2]) << 8 | bytes[at + 3];
}

/// A message being written.
class Writer {
 public:
  Writer& u8(uint8_t value) {
    bytes_.push_back(value);
    return *this;
  }
  Writer& u16(uint32_t value) {
    return u8(static_cast<uint8_t>(value >> 8)).u8(static_cast<uint8_t>(value));
  }
  Writer& u32(uint32_t value) { return u16(value >> 16).u16(value & 0xFFFF); }
  Writer& i32(int32_t value) { return u32(static_cast<uint32_t>(value)); }
  Writer& text(const std::string& value, size_t field) {
    const size_t shown = std::min(value.size(), field - 1);
    bytes_.insert(bytes_.end(), value.begin(), value.begin() + static_cast<ptrdiff_t>(shown));
    return zeros(field - shown);
  }
  Writer& zeros(size_t count) {
    bytes_.resize(bytes_.size() + count);
    return *this;
  }
  Writer& data(std::span<const uint8_t> data) {
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    return *this;
  }
  Bytes take() { return std::move(bytes_); }

 private:
  Bytes bytes_;
};

Writer reply(RequestCode code, ReplyStatus status) {
  Writer writer;
  writer.u16(kVersion).u16(static_cast<uint16_t>(code) & kReplyMask);
  writer.u32(static_cast<uint32_t>(status));
  return writer;
}

// The record that both answers of stage 1 carry.
void put_device(Writer& writer, const ExportedDevice& device) {
  const Bytes& d = device.device_descriptor;
  const auto swapped = [&](size_t at) { return static_cast<uint32_t>(d[at + 1] << 8 | d[at]); };
  writer.text(device.path, kPathBytes).text(device.bus_id, kBusIdBytes);
  writer.u32(device.bus_number).u32(device.device_number);
  writer.u32(static_cast<uint32_t>(device.speed));
  writer.u16(swapped(8)).u16(swapped(10)).u16(swapped(12));
  writer.u8(d[4]).u8(d[5]).u8(d[6]);
  writer.u8(device.configuration).u8(d[17]);
  writer.u8(device.configuration_descriptor[kInterfaceCountAt]);
}

void put_interfaces(Writer& writer, const Bytes& configuration) {
  for (size_t at = 0; at + 1 < configuration.size(); at += std::max<size_t>(configuration[at], 1)) {
    if (configuration[at + 1] != kInterfaceType) continue;
    const std::span triple = std::span(configuration).subspan(at + kInterfaceClassAt, 3);
    writer.data(triple).u8(0);
  }
}

}  // namespace

std::optional<RequestCode> read_request(std::span<const uint8_t> head) {
  const uint32_t first = be32(head, 0);
  const auto code = static_cast<RequestCode>(first & 0xFFFF);
  if (first >> 16 != kVersion) return std::nullopt;
  if (code != RequestCode::import && code != RequestCode::device_list) return std::nullopt;
  return code;
}

std::string read_text(std::span<const uint8_t> field) {
  const auto end = std::find(field.begin(), field.end(), uint8_t{0});
  return {field.begin(), end};
}

Bytes device_list_reply(const ExportedDevice* device) {
  Writer writer = reply(RequestCode::device_list, ReplyStatus::ok);
  writer.u32(device == nullptr ? 0 : 1);
  if (device != nullptr) {
    put_device(writer, *device);
    put_interfaces(writer, device->configuration_descriptor);
  }
  return writer.take();
}

Bytes import_reply(ReplyStatus status, const ExportedDevice& device) {
  Writer writer = reply(RequestCode::import, status);
  if (status == ReplyStatus::ok) put_device(writer, device);
  return writer.take();
}

UrbMessage read_urb(std::span<const uint8_t> head) {
  const uint32_t command = be32(head, 0), seqnum = be32(head, 4);
  UrbMessage message;
  if (command == kCmdUnlink) message.unlink = {seqnum, be32(head, 20)};
  if (command != kCmdSubmit) return message;
  const uint32_t direction = be32(head, 12), endpoint = be32(head, 16), length = be32(head, 24);
  const uint32_t iso_packets = be32(head, 32);
  const bool sound = direction <= 1 && endpoint < kMostEndpoints && length <= kLongestTransfer &&
                     (iso_packets == 0 || iso_packets == kNoIsoPackets);
  if (!sound) return message;
  Submit submit{seqnum, be32(head, 8), direction == 1, static_cast<uint8_t>(endpoint), length, {}};
  std::copy_n(head.begin() + 40, submit.setup.size(), submit.setup.begin());
  message.submit = submit;
  return message;
}

Bytes submit_reply(uint32_t seqnum, int32_t status, size_t moved, std::span<const uint8_t> data) {
  Writer writer;
  writer.u32(kRetSubmit).u32(seqnum).zeros(12);
  writer.i32(status).u32(static_cast<uint32_t>(moved)).u32(0).u32(kNoIsoPackets).u32(0).zeros(8);
  return writer.data(data).take();
}

Bytes unlink_reply(uint32_t seqnum, int32_t status) {
  Writer writer;
  writer.u32(kRetUnlink).u32(seqnum).zeros(12);
  return writer.i32(status).zeros(24).take();
}

}  // namespace wrx_module::usbip
