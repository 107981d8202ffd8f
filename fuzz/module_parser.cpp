// SPDX-License-Identifier: LGPL-2.1-or-later
// Whatever the module sends: the receive parser with every decoder behind it. The first bytes
// choose what is expected, the form of the rest and how the stream is cut; the same stream byte by
// byte must leave the same records.
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

#include "base/log.h"
#include "fuzz/scratch.h"
#include "module/device/packet.h"
#include "protocol/packet.h"
#include "records/fp_device_param.h"

namespace {

// Forms, by bits.
constexpr uint8_t kFramed = 1;  // the rest is payloads that go into sound packets, not a stream
constexpr uint8_t kLogged = 2;  // the log file is switched on

// Bits of a packet's type byte: an image packet; a payload that is its bytes many times over.
constexpr uint8_t kImagePacket = 0x80, kRepeated = 0x40;

constexpr std::size_t kImage = 92160;

void begin(uint8_t command, uint8_t sub, uint8_t page) {
  std::memset(&prot_packet_usb, 0, sizeof prot_packet_usb);
  std::memset(&fp_device_param, 0, sizeof fp_device_param);
  std::memset(usb_recv_data, 0, sizeof usb_recv_data);
  usb_recv_cnt = 0;
  fp_resp_init(command);
  prot_packet_usb.current_sub_cmd_code = sub;
  fp_device_param.index_table_page = page;
}

/// All that parsing can change. The moment a power-up result arrived differs from run to run.
struct World {
  World() { state.onekey_powerup.tv_current_time = {}; }
  PROT_PACKET packet = prot_packet_usb;
  FP_DEVICE_PARAM_STRUCT state = fp_device_param;
  std::vector<uint8_t> copy = {std::begin(usb_recv_data), std::end(usb_recv_data)};
  uint16_t copied = usb_recv_cnt;
};

void append_packet(std::string& stream, uint8_t type, std::string_view bytes, std::size_t times) {
  std::vector<uint8_t> payload;
  const bool image = (type & kImagePacket) != 0;
  if ((type & kRepeated) == 0) times = 1;
  for (std::size_t i = 0; i < times; ++i)
    payload.insert(payload.end(), bytes.begin(), bytes.end());
  if (image) payload.resize(kImage);
  const auto packet = image ? wrx_module::image_packet(payload, (type & 1) != 0)
                            : wrx_module::packet(type & 0xF, payload);
  stream.append(packet.begin(), packet.end());
}

std::string framed(wrx_fuzz::Input input) {
  std::string stream;
  for (int packets = 0; !input.empty() && packets < 16; ++packets) {
    const uint8_t type = input.byte(), size = input.byte(), times = input.byte();
    append_packet(stream, type, input.bytes(size), times + std::size_t{1});
  }
  return stream;
}

// Whether a packet was completed.
bool parse_in_pieces(std::string_view stream, std::size_t piece) {
  bool completed = false;
  for (; !stream.empty(); stream.remove_prefix(std::min(piece, stream.size()))) {
    completed |= fp_parse_prot(reinterpret_cast<const uint8_t*>(stream.data()),
                               static_cast<int32_t>(std::min(piece, stream.size()))) == 0;
  }
  return completed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  wrx_fuzz::Input input(data, size);
  const uint8_t form = input.byte(), command = input.byte(), sub = input.byte();
  const uint8_t page = input.byte(), cut = input.byte();
  const std::string stream = (form & kFramed) != 0 ? framed(input) : std::string(input.rest());
  enable_printf_log((form & kLogged) != 0 ? 1 : 0);

  begin(command, sub, page);
  bool completed = false;
  for (const char byte : stream)
    completed |= fp_deal_usb_data(static_cast<uint8_t>(byte)) == 0;
  const auto slow = std::make_unique<World>();

  begin(command, sub, page);
  const std::size_t piece = std::size_t{1} + std::size_t{2} * cut * cut;
  if (parse_in_pieces(stream, piece) != completed) std::abort();
  const auto fast = std::make_unique<World>();
  if (std::memcmp(&slow->packet, &fast->packet, sizeof slow->packet) != 0 ||
      std::memcmp(&slow->state, &fast->state, sizeof slow->state) != 0 ||
      slow->copy != fast->copy || slow->copied != fast->copied) {
    std::abort();
  }
  return 0;
}
