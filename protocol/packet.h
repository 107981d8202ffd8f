// SPDX-License-Identifier: LGPL-2.1-or-later
// protocol/ turns commands into packets and packets into the module's state record. This header is
// its wire format and the two ways through it: a command sent (fp_send_cmd) and bytes received
// (fp_read_and_parse_prot). Below it is transport/; above are the command procedures, the
// operations and the upgrade. Operation thread only, one exchange at a time, except for the control
// flag.
#pragma once

#include <cstddef>
#include <cstdint>

#include "records/prot_packet.h"

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

/// Stores whether the state record holds a power-up result (1) or not (0). 0. Also called by the
/// operations, which file a result, take it or drop it.
int32_t set_onekey_powerup_flag(uint8_t flag);

}  // extern "C"
#pragma GCC visibility pop
