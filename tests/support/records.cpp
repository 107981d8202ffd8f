// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/records.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>

#include "protocol/packet.h"
#include "records/fp_device_param.h"
#include "transport/usb_device.h"
#include "upgrade/bootloader.h"

namespace wrx_test {
namespace {

struct Watched {
  const char* name;
  std::span<const uint8_t> bytes;
};

// The members from `first` to `last`.
template <typename First, typename Last>
std::span<const uint8_t> from_to(const First& first, const Last& last) {
  const auto* begin = reinterpret_cast<const uint8_t*>(&first);
  return {begin, reinterpret_cast<const uint8_t*>(&last + 1)};
}

std::vector<Watched> watched() {
  const FP_DEVICE_PARAM_STRUCT& module = fp_device_param;
  const PROT_PACKET& packet = prot_packet_usb;
  const UP_PROT_PACKET& frame = upgrade_param.prot_packet_usb;
  return {
      {"sys_param", from_to(module.sys_param, module.chip_addr)},
      {"index_table", from_to(module.index_table_page, module.index_table_info)},
      {"serial_number", from_to(module.chip_serial_num_len, module.chip_serial_num)},
      {"handshake_state", from_to(module.handshake_state, module.handshake_state)},
      {"auto_enroll", from_to(module.auto_enroll_param, module.auto_enroll_param)},
      {"auto_identify", from_to(module.auto_identify_param, module.auto_identify_param)},
      {"results", from_to(module.delete_template_result, module.valid_template_num)},
      {"firmware_version", from_to(module.firmware_version, module.firmware_version_new)},
      {"onekey_powerup", from_to(module.onekey_powerup, module.onekey_powerup)},
      {"usb_dev", from_to(usb_dev_param.bulk_io_ack_state, usb_dev_param.autosuspend_flag)},
      {"packet_head", from_to(packet.prot_state, packet.prot_size)},
      {"packet_tail", from_to(packet.prot_data_cnt, packet.current_sub_cmd_code)},
      {"boot_usb", from_to(upgrade_param.udev.pid, upgrade_param.udev.bInterfaceNumber)},
      {"boot_frame_head", from_to(frame.prot_state, frame.prot_size)},
      {"boot_frame_tail", from_to(frame.prot_data_cnt, frame.current_resp_type)},
      {"boot_state", from_to(upgrade_param.usb_recv_cnt, upgrade_param.upgrade_state)},
  };
}

}  // namespace

std::vector<std::vector<uint8_t>> record_contents() {
  std::vector<std::vector<uint8_t>> contents;
  for (const Watched& record : watched())
    contents.emplace_back(record.bytes.begin(), record.bytes.end());
  return contents;
}

std::vector<std::string> record_changes(const std::vector<std::vector<uint8_t>>& before) {
  std::vector<std::string> lines;
  const std::vector<Watched> records = watched();
  for (size_t i = 0; i < records.size(); ++i) {
    const std::span<const uint8_t> now = records[i].bytes;
    const auto first = std::mismatch(now.begin(), now.end(), before[i].begin()).first;
    if (first == now.end()) continue;
    const auto behind = std::mismatch(now.rbegin(), now.rend(), before[i].rbegin()).first.base();
    lines.push_back(fmt::format("record {}[{}] {:02x}", records[i].name, first - now.begin(),
                                fmt::join(first, behind, "")));
  }
  return lines;
}

}  // namespace wrx_test
