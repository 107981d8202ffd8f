// SPDX-License-Identifier: LGPL-2.1-or-later
// Finding packets in the byte stream, filing their data and dumping them. That it does not matter
// how a stream is cut is the fuzzer's (fuzz/module_parser.cpp).
#include <gtest/gtest.h>

#include <cstring>

#include "base/log.h"
#include "protocol/packet.h"
#include "records/fp_device_param.h"
#include "support/lower_rooms.h"

namespace wrx_test {
namespace {

constexpr uint8_t kSys = PROT_CMD_READSYSPARA, kImage = PORT_CMD_ACQUIRE_IMAGEDATA;
constexpr size_t kHead = 9;  // bytes

int32_t parse(const Bytes& bytes) {
  return fp_parse_prot(bytes.data(), static_cast<int32_t>(bytes.size()));
}

Bytes front(Bytes bytes, size_t size) {
  bytes.resize(size);
  return bytes;
}

// An image whose checksum is `more` than that of its first 26624 bytes, the ones that are summed.
Bytes image(unsigned more) {
  Bytes payload(92160);
  for (size_t i = 0; i < payload.size(); ++i)
    payload[i] = static_cast<uint8_t>(i * 7);
  Bytes bytes = packet(payload, 8, 0xFFFF);
  const unsigned sum = std::accumulate(bytes.begin() + 6, bytes.begin() + kHead + 26624, more);
  bytes[bytes.size() - 2] = static_cast<uint8_t>(sum >> 8);
  bytes[bytes.size() - 1] = static_cast<uint8_t>(sum);
  return bytes;
}

class Parser : public testing::Test {
 protected:
  /// A step that parses `bytes` as the answer to `code`, with records that are new.
  int step(const std::string& name, uint8_t code, const Bytes& bytes) {
    prot_packet_usb = {};
    std::memset(&fp_device_param, 0, sizeof fp_device_param);
    fp_resp_init(code);
    return rig.step(name, [&] { return parse(bytes); });
  }
  Rig rig;
};

TEST_F(Parser, StreamsAsATrace) {
  const Bytes whole = packet({0, 0, 2, 1, 0x2C, 0, 5, 0xFF, 0xFF, 0xFF, 0xFF});
  Bytes broken = whole;
  broken[21] ^= 1;
  const Bytes marked = front(image(0), kHead + 92160) + Bytes{0x55, 0xAA};
  const struct {
    const char* name;
    uint8_t code;
    Bytes bytes;
  } rows[] = {
      {"behind noise", kSys, Bytes{0, 0, 0} + whole},
      {"behind half a head", kSys, Bytes{0xEF, 2} + whole},
      {"behind broken heads", kSys, Bytes{0xEF, 0, 0xEF, 0xEF} + whole},
      {"hidden by a first byte too many", kSys, Bytes{0xEF} + whole},
      {"length 1", kSys, front(packet({}, 7, 1), kHead)},
      {"length 2, goes straight to the sum", kSys, front(packet({}, 7, 2), kHead)},
      {"length 2, whole", kSys, packet({})},
      {"wrong sum, and a good one behind it", kSys, broken + packet({6})},
      {"all types", kSys,
       packet({3}, 1) + packet({4}, 2) + packet({5}, 9) + whole + packet({7}, 8)},
      {"65535 bytes", PROT_CMD_HANDSHAKE, packet(Bytes(65524, 1))},
      {"65536 bytes, counted as none", PROT_CMD_HANDSHAKE, packet(Bytes(65525, 1))},
      {"image by its sum", kImage, image(0)},
      {"image by its marker", kImage, marked},
      {"image by neither", kImage, image(1)},
      {"image to another command, a byte short of 65533", kSys, front(marked, kHead + 65532)},
      {"image to another command, 65533", kSys, front(marked, kHead + 65533)},
      {"image to another command, with the marker", kSys,
       front(marked, kHead + 65533) + Bytes{0x55, 0xAA}},
      {"short image", kImage, packet({1, 2, 3}, 8)},
  };
  for (const auto& [name, code, bytes] : rows) {
    const bool taken = step(name, code, bytes) == 0;
    if (code != kImage) continue;
    EXPECT_EQ(std::equal(bytes.begin() + kHead, bytes.end() - 2, fp_device_param.img_data), taken);
  }
  EXPECT_EQ(golden_difference("packets", rig.trace.lines()), "");
}

TEST_F(Parser, DumpsOnConsoleAndInTheLogAsATrace) {
  enable_printf_log(1);
  rig.trace.clear();
  for (const size_t payload : {21U, 30U, 300U}) {  // a full row, a part of one, the longest
    rig.write_file(kLogFile, "");
    step("packet of " + std::to_string(payload), PROT_CMD_HANDSHAKE, packet(Bytes(payload, 0xAB)));
    rig.show_file(kLogFile);
  }
  for (const size_t size : {100U, 128U, 130U}) {
    step("page of " + std::to_string(size), PROT_CMD_READINFOPAGE, packet(Bytes(size, 0x42), 8));
    const auto& page = fp_device_param.flash_info_page;
    EXPECT_EQ(std::count(std::begin(page), std::end(page), 0x42), size == 130 ? 0 : size);
  }
  EXPECT_EQ(golden_difference("dumps", rig.trace.lines()), "");
}

}  // namespace
}  // namespace wrx_test
