// SPDX-License-Identifier: LGPL-2.1-or-later
// protocol/ turns commands into packets and packets into the module's state record. This header is
// its wire format and the two ways through it: a command sent (fp_send_cmd) and bytes received
// (fp_read_and_parse_prot). Below it is transport/; above are the command procedures, the
// operations and the upgrade. Operation thread only, one exchange at a time, except for the control
// flag.
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

#include "prot_codes.h"

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

#pragma GCC visibility push(default)
extern "C" {

extern PROT_PACKET prot_packet_usb;
/// Raw copy of the bytes of the packet being parsed, for the hex dump.
extern uint8_t usb_recv_data[wrx::kMaxPayload];
/// Bytes in usb_recv_data; 16 bits on purpose, so that the copy of a long packet starts over
/// instead of running past the buffer.
extern uint16_t usb_recv_cnt;

/// Sum of `len` bytes modulo 65536; 0 for a null buffer.
uint16_t get_check_sum(const uint8_t* buf, uint16_t len);
/// Fills a head in network order; `cmd_len` counts payload and checksum. 0 or -1.
int32_t fp_fill_msg_head(MSG_HEAD_STRUCT* head, uint8_t pkg_flag, uint16_t cmd_len);
/// Writes the checksum of `len` bytes, counted from the packet's type byte, behind them. 0 or -1.
int32_t fp_fill_msg_checksum(uint8_t* buf, int32_t len);
/// Arms the receive record for the answer to `cmd_code`. 0.
int32_t fp_resp_init(uint8_t cmd_code);
/// Confirm code of the exchange's last response, 0xFF: none.
uint8_t fp_resp_type_get(void);
/// One whole exchange: `len` parameter bytes at `buf` (may be null and 0) behind the code. 0 when
/// the answer to this command arrived, whatever it says; -1 otherwise.
int32_t fp_send_cmd(uint8_t cmd_code, const uint8_t* buf, int32_t len, RECV_DATA_STRUCT recv_param);

/// Zeroes the receive record and the module's state record. 0. At plug-in start.
int32_t fp_module_init(void);
/// Fills a reading plan. 0, or -1 for a null record.
int32_t fp_recv_param_init(RECV_DATA_STRUCT* recv_param, int32_t recv_len, uint16_t wait_ms,
                           uint16_t cycle_times, uint16_t cycle_ms);
/// Reads and parses `len` bytes. 0 when at least one packet was completed, else -1.
int32_t fp_read_and_parse_prot(int32_t len);
/// Feeds `len` bytes to the parser. 0 when at least one packet was completed, else -1.
int32_t fp_parse_prot(const uint8_t* buf, int32_t len);
/// Feeds one byte. 0 for the byte that completes a good packet, else -1.
int32_t fp_deal_usb_data(uint8_t value);
/// Hands the completed packet in the receive record to its decoder. 0, or -1 for a packet type
/// that is none. `buf` is the record, `len` its size.
int32_t fp_parse_prot_head(const uint8_t* buf, int32_t len);
/// Files the data of an end packet by the expected command. 0 or -1.
int32_t fp_parse_prot_data_end(const uint8_t* buf, int32_t len);
/// Decodes a response into the module's state record. 0, or -1 for an unknown expected command.
int32_t fp_parse_prot_response(const uint8_t* buf, int32_t len);
/// Reads `count` times 64 bytes and drops them. 0, or -1 from the first read that fails.
int32_t fp_read_invalid_pkg(int32_t count);

/// Stores the control flag. 0. Any thread.
int32_t fp_set_ctrlFlag(int32_t ctrlFlag);
/// The control flag (_FP_CONTROL_FLAG_ENUM_). Any thread.
int32_t fp_get_ctrlFlag(void);

}  // extern "C"
#pragma GCC visibility pop
