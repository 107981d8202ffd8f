// SPDX-License-Identifier: LGPL-2.1-or-later
// Receiving: packets found in the byte stream, their data filed and dumped, and what each response
// stores and says. That it does not matter how a stream is cut is the fuzzer's
// (fuzz/module_parser.cpp).
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "base/log.h"
#include "protocol/packet.h"
#include "records/fp_device_param.h"
#include "support/lower_rooms.h"
#include "support/records.h"

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
  step("the front of a packet", kSys, front(whole, kHead + 5));
  rig.step("its rest", [&] { return parse(Bytes(whole.begin() + kHead + 5, whole.end())); });
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
  rig.write_file(kLogFile, "");
  for (uint8_t stage = 0; stage < 7; ++stage)
    step("enrolment, stage " + std::to_string(stage), PROT_CMD_AUTOENROLL, packet({9, stage, 1}));
  rig.show_file(kLogFile);
  for (const size_t size : {100U, 128U, 130U}) {
    step("page of " + std::to_string(size), PROT_CMD_READINFOPAGE, packet(Bytes(size, 0x42), 8));
    const auto& page = fp_device_param.flash_info_page;
    EXPECT_EQ(std::count(std::begin(page), std::end(page), 0x42), size == 130 ? 0 : size);
  }
  EXPECT_EQ(golden_difference("dumps", rig.trace.lines()), "");
}

// ---- responses

constexpr uint8_t kBefore = 0x5C;  // every byte of the state record before a response

struct Response {
  const char* fact;
  uint8_t code;
  Bytes payload;
  uint8_t page = kBefore;  ///< index_table_page before
  uint8_t sub = PROT_SUBCMD_READ_FW;
};

Bytes filled(Bytes head, size_t size) {
  head.resize(size, 0xA7);
  return head;
}
Bytes text(const std::string& letters) {
  return Bytes(1, 0) + Bytes(letters.begin(), letters.end());
}

const Response kResponses[] = {
    {"system parameters cut in a field", 15, {0, 0, 2, 1, 0x2C, 0}},
    {"count refused", 29, {1, 1, 4}},
    {"count cut", 29, {0, 1}},
    {"index table, page 3", 31, filled({0}, 33), 3},
    {"index table, page 4", 31, filled({0}, 33), 4},
    {"index table cut", 31, filled({0}, 32), 3},
    {"handshake, whatever its code", 53, {9}},
    {"serial number of 32", 52, filled({0}, 33)},
    {"serial number of 17", 52, filled({0}, 18)},
    {"deletion with more than its code", 12, {7, 9}},
    {"enrolment: capture", 49, {9, 1, 3}},
    {"enrolment: feature of the last press there is room for", 49, {9, 2, 15}},
    {"enrolment: press", 49, {9, 3, 0}},
    {"enrolment: press 16 has no entry", 49, {9, 3, 16}},
    {"enrolment: press 255 has no entry", 49, {9, 1, 255}},
    {"enrolment: press without its number", 49, {9, 3}},
    {"enrolment: duplicate check", 49, {39, 5}},
    {"enrolment: storing", 49, {0, 6, 9, 9}},
    {"enrolment: unknown stage", 49, {9, 7, 1}},
    {"enrolment: no stage", 49, {9}},
    {"identification: capture", 50, {9, 1}},
    {"identification: single result", 50, {0, 5, 1, 2, 3, 4}},
    {"identification: single result cut in the slot", 50, {9, 5, 1}},
    {"identification: list", 50, {0, 0xF5, 3, 7, 9, 11, 13}},
    {"identification: list of more slots than the record holds", 50, filled({0, 0xF5, 21}, 24)},
    {"identification: list longer than its packet", 50, {0, 0xF5, 200, 7}},
    {"identification: list without a count", 50, {9, 0xF5}},
    {"identification: unknown stage", 50, {9, 2}},
    {"identification: no stage", 50, {9}},
    {"version: the end stands one place further", 175, text("acm32_btl_zelta_pc_000123")},
    {"version of another pattern keeps the number", 175, text("xxxxxxxxxxxxxxxxxxxxxxxxx")},
    {"version of another length", 175, text("acm32_btl_zelta_pc_0001234")},
    {"power-up: single match", 175, {0, 5, 1, 2, 3, 4}},
    {"power-up: single failure", 175, {9, 5, 1, 2, 3, 4}},
    {"power-up: list", 175, {0, 0xF5, 2, 21, 23, 25}},
    {"power-up: failed list", 175, {9, 0xF5, 2, 21, 23, 25}},
    {"power-up: a full list has no closing entry", 175, filled({0, 0xF5, 99}, 90)},
    {"power-up: five bytes are no result", 175, {0, 0xF5, 1, 21, 0}},
    {"another sub-command's answer", 175, {0, 5, 1, 2, 3, 4}, kBefore, PROT_SUBCMD_SET_MODE},
};

/// Decodes a payload that ends where its memory ends.
int32_t decode(const Bytes& payload) {
  prot_packet_usb.prot_size = static_cast<uint16_t>(payload.size() + 2);
  const std::unique_ptr<uint8_t[]> exact(new uint8_t[payload.size()]);
  std::copy(payload.begin(), payload.end(), exact.get());
  return fp_parse_prot_response(exact.get(), static_cast<int32_t>(payload.size()));
}

TEST(Decoder, WhatEachResponseStoresAsATrace) {
  Rig rig;
  std::vector<std::string> told;
  for (const Response& row : kResponses) {
    std::memset(&fp_device_param, kBefore, sizeof fp_device_param);
    fp_device_param.index_table_page = row.page;
    prot_packet_usb.current_sub_cmd_code = row.sub;
    fp_resp_init(row.code);
    rig.trace.clear();
    const auto before = record_contents();
    EXPECT_EQ(decode(row.payload), 0);
    told.push_back(fmt::format("== {}: {:#04x}", row.fact, fp_resp_type_get()));
    for (const auto& lines : {rig.trace.driver_lines(), record_changes(before)})
      told.insert(told.end(), lines.begin(), lines.end());
  }
  std::string accepted = "accepted:", known = "known, not accepted:";
  for (int code = 0; code < 256; ++code) {
    fp_resp_init(static_cast<uint8_t>(code));
    if (decode({0}) != 0) continue;
    (prot_packet_usb.current_resp_cmd == code ? accepted : known) += fmt::format(" {}", code);
  }
  told.insert(told.end(), {accepted, known});
  EXPECT_EQ(golden_difference("responses", without({"received PROT_CMD_", "record packet_"}, told)),
            "");
}

}  // namespace
}  // namespace wrx_test
