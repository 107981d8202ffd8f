// SPDX-License-Identifier: LGPL-2.1-or-later
// Records of the module's packet protocol: outgoing packet, receive state, reading plan.
//
// A packet, both ways, multi-byte fields big-endian:
//
//   offset  size
//   0       2     0xEF01
//   2       4     module address, sent as 0xFFFFFFFF
//   6       1     packet type (PROT_TYPE_*)
//   7       2     length: payload and checksum, n + 2
//   9       n     payload: command code and parameters, or confirm code and results, or data
//   9+n     2     sum modulo 65536 of every byte from the type to the end of the payload
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "records/prot_codes.h"

namespace wrx {

inline constexpr std::size_t kMaxPayload = 93160;
inline constexpr std::size_t kHeadSize = 9;
inline constexpr std::size_t kTypeOffset = 6;
inline constexpr std::size_t kChecksumSize = 2;
inline constexpr std::size_t kMaxPacket = kHeadSize + kMaxPayload + kChecksumSize;

}  // namespace wrx

/// Head of an outgoing packet, fields in network order.
struct [[gnu::packed]] MSG_HEAD_STRUCT {
  uint16_t pkg_head;
  uint32_t chip_addr;
  uint8_t pkg_flag;
  uint16_t pkg_len;
};
static_assert(sizeof(MSG_HEAD_STRUCT) == wrx::kHeadSize);
static_assert(offsetof(MSG_HEAD_STRUCT, chip_addr) == 2 && offsetof(MSG_HEAD_STRUCT, pkg_len) == 7);
static_assert(offsetof(MSG_HEAD_STRUCT, pkg_flag) == wrx::kTypeOffset);

/// An outgoing packet. The checksum follows the payload inside `data`; `check_sum` is only reached
/// by a payload of full size.
struct [[gnu::packed]] MSG_STRUCT {
  MSG_HEAD_STRUCT head;
  uint8_t data[wrx::kMaxPayload];
  uint16_t check_sum;
};
static_assert(sizeof(MSG_STRUCT) == wrx::kMaxPacket);

/// The receive record: the packet being parsed, and what the pending exchange expects.
struct PROT_PACKET {
  uint8_t prot_state;  ///< of the parser, 0 to 11
  uint16_t prot_head;  ///< 0xEF01 once both bytes were seen
  uint32_t prot_addr;  ///< stored, never checked
  uint8_t prot_type;
  uint16_t prot_size;  ///< length field: payload bytes + 2
  uint8_t prot_data[wrx::kMaxPayload];
  uint32_t prot_data_cnt;  ///< payload bytes stored so far
  uint16_t prot_checksum;  ///< as received
  uint8_t prot_respond;
  uint8_t prot_source;
  uint8_t current_cmd_code;      ///< command whose answer is expected
  uint8_t current_resp_cmd;      ///< command that the decoder marked as answered, 0: none
  uint8_t current_resp_type;     ///< confirm code of the last response, 0xFF: none
  uint8_t current_sub_cmd_code;  ///< sub-command of the last PROT_CMD_TEST_TYPE that set one
};
static_assert(std::is_standard_layout_v<PROT_PACKET> && std::is_trivial_v<PROT_PACKET>);

/// How the answer of one exchange is read.
struct RECV_DATA_STRUCT {
  int32_t recv_len;      ///< bytes asked for, and fed to the parser, a read
  uint16_t wait_ms;      ///< sleep between sending and the first read, 0: none
  uint16_t cycle_times;  ///< read attempts
  uint16_t cycle_ms;     ///< sleep after a failed attempt, 0: none
};
