// SPDX-License-Identifier: LGPL-2.1-or-later
// Whatever the bootloader sends, cut into reads of any length.
#include "base/log.h"
#include "fuzz/scratch.h"
#include "upgrade/bootloader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  wrx_fuzz::Input input(data, size);
  const std::size_t piece = input.byte() + std::size_t{1};
  enable_printf_log(static_cast<int32_t>(piece % 2));
  upgrade_param = {};
  while (!input.empty()) {
    const std::string_view part = input.bytes(piece);
    const int32_t result = parseProtocal(reinterpret_cast<const uint8_t*>(part.data()),
                                         static_cast<int32_t>(part.size()));
    const UP_PROT_PACKET& p = upgrade_param.prot_packet_usb;
    if (result == 0 && (p.prot_state != wrx::upgrade::kComplete || p.prot_data_cnt > 1018)) {
      std::abort();
    }
    if (p.prot_state == wrx::upgrade::kComplete || p.prot_state == wrx::upgrade::kBroken) {
      upgrade_param.prot_packet_usb.prot_state = wrx::upgrade::kWaitHead;
    }
  }
  return 0;
}
