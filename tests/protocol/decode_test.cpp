// SPDX-License-Identifier: LGPL-2.1-or-later
// What each response stores, and that it stores nothing else: the whole state record is compared.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <memory>
#include <utility>

#include "protocol/packet.h"
#include "records/fp_device_param.h"
#include "support/lower_rooms.h"

namespace wrx_test {
namespace {

using State = FP_DEVICE_PARAM_STRUCT;
constexpr uint8_t kBefore = 0x5C;  // every byte of the record before a response

/// `count` elements of `size` bytes that a response sets to `value`.
struct Stores {
  size_t offset, size, count;
  int64_t value;
  /// Where the value's `size` low bytes are, in either byte order.
  const char* field() const {
    const bool low_last = std::endian::native == std::endian::big;
    return reinterpret_cast<const char*>(&value) + (low_last ? sizeof value - size : 0);
  }
};
// A field, or the first `count` elements of an array, of the record.
#define SET(field, value) FILL(field, 1, value)
#define FILL(field, count, value)                                              \
  Stores {                                                                     \
    offsetof(State, field), sizeof(std::declval<State&>().field), count, value \
  }
#define ENROLL(field, value) SET(auto_enroll_param.field, value)
#define IDENTIFY(field, value) SET(auto_identify_param.field, value)
#define POWERUP(field, value) SET(onekey_powerup.field, value)
#define POWERUP_RESULT(count)                                                 \
  POWERUP(onekey_powerup_flag, 1), POWERUP(continue_read_fw_version_flag, 1), \
      POWERUP(search_num, count), POWERUP(tv_current_time.tv_usec, 0),        \
      POWERUP(tv_current_time.tv_sec, VirtualClock::kEpoch)

struct Response {
  const char* fact;
  uint8_t code;
  Bytes payload;
  std::vector<Stores> stores = {};
  uint8_t page = kBefore;  ///< index_table_page before
};

Bytes filled(Bytes head, size_t size) {
  head.resize(size, 0xA7);
  return head;
}
constexpr char kVersion[] = "acm32_btl_zelta_pc_000123";
Bytes text(const char* letters) {
  return Bytes(1, 0) + Bytes(letters, letters + strlen(letters));
}

// clang-format off
const Response kResponses[] = {

    {"system parameters", 15, {0, 0, 2, 1, 0x2C, 0, 5, 0xFF, 0xFF, 0xFF, 0xFE},
     {SET(sys_param.sensor_type, 2), SET(sys_param.fp_database_size, 0x012C),
      SET(sys_param.security_level, 5), SET(sys_param.device_addr, 0xFFFFFFFE)}},
    {"system parameters cut in a field", 15, {0, 0, 2, 1, 0x2C, 0},
     {SET(sys_param.sensor_type, 2), SET(sys_param.fp_database_size, 0x012C)}},
    {"count", 29, {0, 1, 4}, {SET(valid_template_num, 260)}},
    {"count refused", 29, {1, 1, 4}},
    {"count cut", 29, {0, 1}},
    {"index table, page 3", 31, filled({0}, 33), {FILL(index_table_info[3][0], 32, 0xA7)}, 3},
    {"index table, page 4", 31, filled({0}, 33), {}, 4},
    {"index table cut", 31, filled({0}, 32), {}, 3},
    {"deletion", 12, {7, 9}, {SET(delete_template_result, 7)}},
    {"emptying", 13, {7, 9}, {SET(empty_template_result, 7)}},
    {"cancel", 48, {7, 9}, {SET(cancel_result, 7)}},
    {"sleep", 51, {7, 9}, {SET(sleep_result, 7)}},
    {"handshake, whatever its code", 53, {9}, {SET(handshake_state, 1)}},
    {"serial number of 16", 52, filled({0}, 17),
     {SET(chip_serial_num_len, 16), FILL(chip_serial_num[0], 16, 0xA7)}},
    {"serial number of 32", 52, filled({0}, 33),
     {SET(chip_serial_num_len, 32), FILL(chip_serial_num[0], 32, 0xA7)}},
    {"serial number of 17", 52, filled({0}, 18)},
    {"chip address", 21, {0, 1, 2, 3, 4}},

    {"enrolment: validity", 49, {9, 0}, {ENROLL(validity_check_result, 9)}},
    {"enrolment: capture", 49, {9, 1, 3},
     {ENROLL(capture_result[3], 9), ENROLL(current_enroll_time, 3)}},
    {"enrolment: feature of the last press there is room for", 49, {9, 2, 15},
     {ENROLL(create_feature_result[15], 9), ENROLL(current_enroll_time, 15)}},
    {"enrolment: press", 49, {9, 3, 0},
     {ENROLL(enroll_result[0], 9), ENROLL(current_enroll_time, 0),
      ENROLL(current_enroll_flag, 1)}},
    {"enrolment: press 16 has no entry", 49, {9, 3, 16},
     {ENROLL(current_enroll_time, 16), ENROLL(current_enroll_flag, 1)}},
    {"enrolment: press 255 has no entry", 49, {9, 1, 255}, {ENROLL(current_enroll_time, 255)}},
    {"enrolment: capture without a press", 49, {9, 1}},
    {"enrolment: merge", 49, {9, 4}, {ENROLL(merge_template_result, 9)}},
    {"enrolment: duplicate check", 49, {39, 5}, {ENROLL(enroll_conflict_result, 39)}},
    {"enrolment: storing", 49, {0, 6, 9, 9},
     {ENROLL(store_template_result, 0), ENROLL(enroll_finish_flag, 1)}},
    {"enrolment: unknown stage", 49, {9, 7, 1}},
    {"enrolment: no stage", 49, {9}},

    {"identification: validity", 50, {9, 0}, {IDENTIFY(validity_check_result, 9)}},
    {"identification: capture", 50, {9, 1},
     {IDENTIFY(validity_check_result, 0), IDENTIFY(capture_result, 9)}},
    {"identification: single result", 50, {0, 5, 1, 2, 3, 4},
     {IDENTIFY(validity_check_result, 0), IDENTIFY(search_result, 0), IDENTIFY(search_num, 1),
      IDENTIFY(search_id[0], 0x0102), IDENTIFY(score, 0x0304), IDENTIFY(identify_finish_flag, 1)}},
    {"identification: single result cut in the slot", 50, {9, 5, 1},
     {IDENTIFY(validity_check_result, 0), IDENTIFY(search_result, 9), IDENTIFY(search_num, 1),
      IDENTIFY(identify_finish_flag, 1)}},
    {"identification: list", 50, {0, 0xF5, 3, 7, 9, 11, 13},
     {IDENTIFY(search_result, 0), IDENTIFY(search_num, 3), IDENTIFY(search_id[0], 7),
      IDENTIFY(search_id[1], 9), IDENTIFY(search_id[2], 11), IDENTIFY(identify_finish_flag, 1)}},
    {"identification: list of more slots than the record holds", 50, filled({0, 0xF5, 21}, 24),
     {IDENTIFY(search_result, 0), IDENTIFY(search_num, 20),
      FILL(auto_identify_param.search_id[0], 20, 0xA7), IDENTIFY(identify_finish_flag, 1)}},
    {"identification: list longer than its packet", 50, {0, 0xF5, 200, 7},
     {IDENTIFY(search_result, 0), IDENTIFY(search_num, 1), IDENTIFY(search_id[0], 7),
      IDENTIFY(identify_finish_flag, 1)}},
    {"identification: list without a count", 50, {9, 0xF5},
     {IDENTIFY(search_result, 9), IDENTIFY(identify_finish_flag, 1)}},
    {"identification: unknown stage", 50, {9, 2}},
    {"identification: no stage", 50, {9}},

    {"version: the end stands one place further", 175, text(kVersion),
     {POWERUP(continue_read_fw_version_flag, 0), SET(firmware_version[26], 0),
      SET(firmware_version_num, 123)}},
    {"version of another pattern keeps the number", 175, Bytes(1, 0) + Bytes(25, 0x78),
     {POWERUP(continue_read_fw_version_flag, 0), FILL(firmware_version[0], 25, 0x78),
      SET(firmware_version[26], 0)}},
    {"version of another length", 175, text("acm32_btl_zelta_pc_0001234"),
     {POWERUP(continue_read_fw_version_flag, 1)}},
    {"power-up: single match", 175, {0, 5, 1, 2, 3, 4},
     {POWERUP_RESULT(1), POWERUP(search_id[0], 0x0102), POWERUP(search_id[1], 0xFFFF)}},
    {"power-up: single failure", 175, {9, 5, 1, 2, 3, 4},
     {POWERUP_RESULT(0), POWERUP(search_id[0], 0xFFFF)}},
    {"power-up: list", 175, {0, 0xF5, 2, 21, 23, 25},
     {POWERUP_RESULT(2), POWERUP(search_id[0], 21), POWERUP(search_id[1], 23),
      POWERUP(search_id[2], 0xFFFF)}},
    {"power-up: failed list", 175, {9, 0xF5, 2, 21, 23, 25},
     {POWERUP_RESULT(0), POWERUP(search_id[0], 0xFFFF)}},
    {"power-up: a full list has no closing entry", 175, filled({0, 0xF5, 99}, 90),
     {POWERUP_RESULT(20), FILL(onekey_powerup.search_id[0], 20, 0xA7)}},
    {"power-up: five bytes are no result", 175, {0, 0xF5, 1, 21, 0},
     {POWERUP(continue_read_fw_version_flag, 1)}},
};
// clang-format on

class Decoder : public testing::Test {
 protected:
  /// Decodes a payload that ends where its memory ends.
  static int32_t decode(uint8_t code, const Bytes& payload) {
    fp_resp_init(code);
    prot_packet_usb.prot_size = static_cast<uint16_t>(payload.size() + 2);
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[payload.size()]);
    std::copy(payload.begin(), payload.end(), exact.get());
    return fp_parse_prot_response(exact.get(), static_cast<int32_t>(payload.size()));
  }
  Rig rig;
};

TEST_F(Decoder, EachResponseStoresItsFieldsAndNothingElse) {
  std::vector<std::string> told;
  prot_packet_usb.current_sub_cmd_code = PROT_SUBCMD_READ_FW;
  for (const Response& row : kResponses) {
    SCOPED_TRACE(row.fact);
    const auto expected = std::make_unique<State>();
    auto* const bytes = reinterpret_cast<uint8_t*>(expected.get());
    std::memset(&fp_device_param, kBefore, sizeof fp_device_param);
    fp_device_param.index_table_page = row.page;
    std::memcpy(expected.get(), &fp_device_param, sizeof(State));
    for (const Stores& stored : row.stores) {
      for (size_t i = 0; i < stored.count; ++i)
        std::memcpy(bytes + stored.offset + i * stored.size, stored.field(), stored.size);
    }
    if (row.payload == text(kVersion)) std::memcpy(expected->firmware_version, kVersion, 25);
    rig.trace.clear();
    EXPECT_EQ(decode(row.code, row.payload), 0);
    EXPECT_TRUE(same_bytes(fp_device_param, *expected));
    EXPECT_EQ(prot_packet_usb.current_resp_cmd, row.code);
    told.push_back(std::string("== ") + row.fact);
    for (const std::string& line : rig.trace.driver_lines())
      told.push_back(line);
  }
  EXPECT_EQ(golden_difference("responses", told), "");
}

TEST_F(Decoder, ASerialNumberThatIsNotThereIsARefusal) {
  fp_resp_init(52);
  const std::unique_ptr<uint8_t[]> short_of_one(new uint8_t[16]{});
  prot_packet_usb.prot_size = 19;
  EXPECT_EQ(fp_parse_prot_response(short_of_one.get(), 16), 0);
  EXPECT_EQ(fp_resp_type_get(), 0xFF);
}

TEST_F(Decoder, OtherSubCommandsStoreNothing) {
  prot_packet_usb.current_sub_cmd_code = PROT_SUBCMD_SET_MODE;
  EXPECT_EQ(decode(175, {0, 5, 1, 2, 3, 4}), 0);
  EXPECT_EQ(fp_device_param.onekey_powerup.continue_read_fw_version_flag, 0);
  EXPECT_EQ(prot_packet_usb.current_resp_cmd, 175);
}

TEST_F(Decoder, EveryCodeIsAcceptedOrKnownOrUnknown) {
  const Bytes accepted = {1,  10, 12, 13, 15, 21, 22,  29,  31, 48,
                          49, 50, 51, 52, 53, 80, 175, 184, 255};
  const Bytes known = {2,  3,  4,  5,   6,   7,   8,   9,   11,  18,  19,  27,
                       41, 54, 64, 176, 177, 178, 179, 180, 181, 182, 183, 185};
  for (unsigned c = 0; c < 256; ++c) {
    const auto code = static_cast<uint8_t>(c);
    const bool is_accepted = std::count(accepted.begin(), accepted.end(), code) != 0;
    const bool is_known = std::count(known.begin(), known.end(), code) != 0;
    rig.trace.clear();
    EXPECT_EQ(decode(code, {0x2A, 0x77}), is_accepted || is_known ? 0 : -1) << c;
    EXPECT_EQ(prot_packet_usb.current_resp_cmd, is_accepted ? code : 0) << c;
    EXPECT_EQ(fp_resp_type_get(), code == 52 ? 0xFF : 0x2A) << c;
    EXPECT_EQ(rig.trace.lines().empty(), is_known) << c;
    if (!is_accepted && !is_known) {
      char line[80];
      std::snprintf(line, sizeof line, "] not find the current_cmd_code 0x%02x, error!!!\\r", c);
      EXPECT_EQ(rig.trace.count(line), 1);
    }
  }
}

}  // namespace
}  // namespace wrx_test
