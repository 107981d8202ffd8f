// SPDX-License-Identifier: LGPL-2.1-or-later
// Whatever the module sends: the receive parser with every decoder behind it. The first bytes
// choose what is expected and how the stream is cut; the same stream byte by byte must leave the
// same records.
#include <cstring>
#include <memory>

#include "fp_device_param.h"
#include "fuzz/scratch.h"
#include "protocol/packet.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  wrx_fuzz::enter_scratch_folder();
  return 0;
}

namespace {

void begin(uint8_t command, uint8_t sub, uint8_t page) {
  std::memset(&prot_packet_usb, 0, sizeof prot_packet_usb);
  std::memset(&fp_device_param, 0, sizeof fp_device_param);
  std::memset(usb_recv_data, 0, sizeof usb_recv_data);
  usb_recv_cnt = 0;
  fp_resp_init(command);
  prot_packet_usb.current_sub_cmd_code = sub;
  fp_device_param.index_table_page = page;
}

// The moment a power-up result arrived differs from run to run.
void forget_time() {
  std::memset(&fp_device_param.onekey_powerup.tv_current_time, 0, sizeof(timeval));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  wrx_fuzz::Input input(data, size);
  const uint8_t command = input.byte(), sub = input.byte(), page = input.byte();
  const std::size_t piece = input.byte() + std::size_t{1};
  const std::string_view stream = input.rest();

  begin(command, sub, page);
  for (const char byte : stream)
    fp_deal_usb_data(static_cast<uint8_t>(byte));
  forget_time();
  const auto packet = std::make_unique<PROT_PACKET>(prot_packet_usb);
  const auto state = std::make_unique<FP_DEVICE_PARAM_STRUCT>(fp_device_param);

  begin(command, sub, page);
  while (!input.empty()) {
    const std::string_view part = input.bytes(piece);
    fp_parse_prot(reinterpret_cast<const uint8_t*>(part.data()), static_cast<int32_t>(part.size()));
  }
  forget_time();
  if (std::memcmp(packet.get(), &prot_packet_usb, sizeof *packet) != 0 ||
      std::memcmp(state.get(), &fp_device_param, sizeof *state) != 0) {
    std::abort();
  }
  return 0;
}
