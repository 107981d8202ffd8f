// SPDX-License-Identifier: LGPL-2.1-or-later
// operations/ tells the stories: the framework's enrol, verify, identify, search, clean and list
// callbacks (operations.h), and this header's module-side procedures behind them. Below it are the
// command engine and the receive path of protocol/. Everything runs on the operation thread.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "records/fp_device_param.h"

#pragma GCC visibility push(default)
extern "C" {

// ---- template slots. The driver only ever uses slots 20 to 39; what lies outside is not touched.

/// The lowest free slot, or 0xFFFF when none is free or the module's index table could not be read.
uint16_t fp_get_empty_enroll_id(void);
/// Erases `num` templates from `enroll_id` on. 0, or -1 for a refusal or no answer.
int32_t fp_delete_template(uint16_t enroll_id, uint16_t num);
/// Erases the whole library. 0 (also without an answer), or -1 for a refusal.
int32_t fp_empty_template(void);
/// Erases every occupied slot whose bit is clear in `index_list`, a bitmap of 32 bytes a page, of
/// which the first page is read. 0, or -1 for a null list.
int32_t fp_delete_invalid_template(const uint8_t* index_list);

// ---- automatic enrolment: start once, wait for report after report, then fp_cancel.

/// Resets the record for a new enrolment; the last of the 16 entries of each list of results stays.
/// 0, or -1 for a null record.
int32_t fp_auto_enroll_param_init(FP_AUTOENROLL_PARAM_STRUCT* auto_enroll_param, uint16_t enroll_id,
                                  uint8_t auto_enroll_times);
/// Starts an enrolment of `enroll_times` presses into a slot. 0 when the module accepted it, else
/// -1; the control flag is then 4 if the slot was refused or the library is full.
int32_t fp_auto_enroll_start(uint16_t enroll_id, uint8_t enroll_times, uint16_t param);
/// Waits for the next report, at most `timeout_ms` milliseconds. 0 when one arrived, else -1 with
/// the control flag saying why: 1 stopped, 2 timed out, 3 no module.
int32_t fp_auto_enroll(int32_t timeout_ms);
/// Number of the press that the latest report is about; 0 before the first.
uint8_t fp_get_current_enroll_time(void);
/// 1 once the module has reported the end of the enrolment, else 0.
uint8_t fp_get_enroll_finish_flag(void);
/// The module's answer about the storing of the template; 0xFF until it was reported.
uint8_t fp_get_store_template_result(void);
/// Result of making press `enroll_time`'s feature, 0 to 15; 0xFF for a number beyond.
uint8_t fp_get_enroll_create_feature_result(uint8_t enroll_time);
/// Result of press `enroll_time` itself, 0 to 15; 0xFF for a number beyond.
uint8_t fp_get_enroll_result(uint8_t enroll_time);
/// Milliseconds since `tv_old`, towards zero; in 32 bits, so below 0 from the 25th day on.
int32_t fp_get_increment_of_time_ms(struct timeval* tv_old);

// ---- automatic identification.

/// Resets the record for a new identification; of the 20 slots only the first two are reset, the
/// number of matches says which count. 0, or -1 for a null record.
int32_t fp_auto_identify_param_init(FP_AUTOIDENTIFY_PARAM_STRUCT* identify_param,
                                    uint8_t security_level, uint16_t identify_id, uint16_t param);
/// Has the module identify the finger on the sensor; waits at most `timeout_ms` milliseconds, 0
/// without limit. 0 when the search finished: matching slots are then in `identify_result_id` (room
/// for 20), which a search without a match leaves alone. -1 otherwise, the control flag saying why
/// as for fp_auto_enroll; unchanged when the module refused.
int32_t fp_auto_identify(uint8_t security_level, uint16_t identify_id, uint16_t param,
                         uint16_t* identify_result_id, int32_t timeout_ms);
/// At most five polls, `wait_ms` milliseconds apart, for the search that the module made of the
/// press that powered it on; a finished one is held in `onekey_powerup`. 0 or -1.
int32_t fp_onekey_powerup_identify(uint8_t security_level, uint16_t identify_id, uint16_t param,
                                   uint16_t* identify_result_id, int32_t wait_ms);

// ---- the held power-up result.

/// When the result was taken; the record is the driver's and lives as long as the plug-in, as do
/// the slots below.
struct timeval* get_onekey_powerup_tv_time(void);
/// 1 while a result is held, else 0.
uint8_t get_onekey_powerup_flag(void);
/// The 20 slots that matched, 0xFFFF where none did.
uint16_t* get_onekey_powerup_search_id(void);
/// Sets all 20 slots to 0xFFFF. Always 0.
int32_t init_onekey_powerup_search_id(void);
/// How many of the slots count.
int32_t get_onekey_powerup_search_num(void);

}  // extern "C"
#pragma GCC visibility pop

namespace wrx::operations {

/// What every caller passes to the identify procedures.
inline constexpr uint8_t kSecurityLevel = 3;
inline constexpr uint16_t kWholeLibrary = 0xFFFF;
inline constexpr uint16_t kIdentifyOption = 1;

/// Microseconds since `then` by the wall clock; below 0 when that was set back since.
int64_t elapsed_us(const struct timeval& then);

}  // namespace wrx::operations
