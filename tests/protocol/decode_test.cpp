// SPDX-License-Identifier: LGPL-2.1-or-later
// What each response stores and says, from payloads that end where they may not.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "protocol/packet.h"
#include "records/fp_device_param.h"
#include "support/lower_rooms.h"
#include "support/records.h"

namespace wrx_test {
namespace {

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
    {"count", 29, {0, 1, 4}},
    {"count refused", 29, {1, 1, 4}},
    {"count cut", 29, {0, 1}},
    {"index table, page 3", 31, filled({0}, 33), 3},
    {"index table, page 4", 31, filled({0}, 33), 4},
    {"index table cut", 31, filled({0}, 32), 3},
    {"handshake, whatever its code", 53, {9}},
    {"serial number of 32", 52, filled({0}, 33)},
    {"serial number of 17", 52, filled({0}, 18)},
    {"deletion with more than its code", 12, {7, 9}},
    {"enrolment: validity", 49, {9, 0}},
    {"enrolment: capture", 49, {9, 1, 3}},
    {"enrolment: feature of the last press there is room for", 49, {9, 2, 15}},
    {"enrolment: press", 49, {9, 3, 0}},
    {"enrolment: press 16 has no entry", 49, {9, 3, 16}},
    {"enrolment: press 255 has no entry", 49, {9, 1, 255}},
    {"enrolment: capture without a press", 49, {9, 1}},
    {"enrolment: merge", 49, {9, 4}},
    {"enrolment: duplicate check", 49, {39, 5}},
    {"enrolment: storing", 49, {0, 6, 9, 9}},
    {"enrolment: unknown stage", 49, {9, 7, 1}},
    {"enrolment: no stage", 49, {9}},
    {"identification: validity", 50, {9, 0}},
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
