// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's state as last reported: one process-wide record, filled by the response decoder of
// protocol/ and read by every procedure after its exchange. Touched by the operation thread alone,
// but for ctrlFlag (fp_set_ctrlFlag, fp_get_ctrlFlag).
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "records/prot_codes.h"

namespace wrx {

inline constexpr std::size_t kImageSize = 92160;  ///< 256 x 360 grey bytes
inline constexpr std::size_t kFlashInfoPageSize = 128;
inline constexpr std::size_t kIndexPages = 4;
inline constexpr std::size_t kIndexPageSize = 32;  ///< bytes; a bit a slot
inline constexpr std::size_t kMaxPresses = 16;     ///< entries of the per-press arrays

}  // namespace wrx

struct FP_SYS_PARAM_STRUCT {
  uint16_t sensor_type;
  uint16_t fp_database_size;  ///< template capacity
  uint16_t security_level;
  uint32_t device_addr;
};

/// The automatic enrolment. Per-press arrays are indexed by the press number, counted from 1.
struct FP_AUTOENROLL_PARAM_STRUCT {
  uint16_t enroll_id;             ///< slot the template is to be stored in
  uint8_t auto_enroll_times;      ///< presses requested
  uint8_t validity_check_result;  ///< confirm code of the command itself
  uint8_t current_enroll_time;    ///< press that the latest step report is about
  uint8_t current_enroll_flag;    ///< a step report has arrived and was not handed over yet
  uint8_t capture_result[wrx::kMaxPresses];
  uint8_t create_feature_result[wrx::kMaxPresses];
  uint8_t enroll_result[wrx::kMaxPresses];
  uint8_t merge_template_result;
  uint8_t enroll_conflict_result;
  uint8_t store_template_result;
  uint8_t enroll_finish_flag;  ///< the module reported the end of the procedure
};

/// The automatic identification.
struct FP_AUTOIDENTIFY_PARAM_STRUCT {
  uint8_t security_level;
  uint16_t identify_id;  ///< slot to match against, 0xFFFF: the whole library
  uint16_t param;
  uint8_t validity_check_result;  ///< confirm code of the command itself
  uint8_t capture_result;
  uint8_t search_result;  ///< 0: at least one match
  int32_t search_num;
  uint16_t search_id[wrx::kMaxMatches];
  uint16_t score;
  uint8_t identify_finish_flag;  ///< the search report has arrived
};

/// The identification that the module ran by itself at power-up.
struct FP_ONEKEY_POWERUP_STRUCT {
  uint8_t onekey_powerup_flag;  ///< 1: a result is held
  int32_t search_num;           ///< 0: nothing matched
  uint16_t search_id[wrx::kMaxMatches];
  struct timeval tv_current_time;         ///< when the result arrived
  uint8_t continue_read_fw_version_flag;  ///< a version request was answered by something else
};

struct FP_DEVICE_PARAM_STRUCT {
  uint8_t img_data[wrx::kImageSize];
  FP_SYS_PARAM_STRUCT sys_param;
  uint32_t chip_addr;
  uint8_t flash_info_page[wrx::kFlashInfoPageSize];
  uint8_t index_table_page;  ///< page that the next index-table response is filed under
  uint8_t index_table_info[wrx::kIndexPages][wrx::kIndexPageSize];
  uint8_t chip_serial_num_len;  ///< 16 or 32
  uint8_t chip_serial_num[32];
  uint8_t handshake_state;
  FP_AUTOENROLL_PARAM_STRUCT auto_enroll_param;
  FP_AUTOIDENTIFY_PARAM_STRUCT auto_identify_param;
  uint8_t delete_template_result;
  uint8_t empty_template_result;
  uint8_t cancel_result;
  uint8_t sleep_result;
  uint16_t valid_template_num;
  char firmware_version[64];
  uint32_t firmware_version_num;
  char firmware_version_new[64];
  int32_t ctrlFlag;  ///< _FP_CONTROL_FLAG_ENUM_
  FP_ONEKEY_POWERUP_STRUCT onekey_powerup;
};
static_assert(std::is_standard_layout_v<FP_DEVICE_PARAM_STRUCT> &&
              std::is_trivial_v<FP_DEVICE_PARAM_STRUCT>);

#pragma GCC visibility push(default)
extern "C" {
extern FP_DEVICE_PARAM_STRUCT fp_device_param;
}
#pragma GCC visibility pop
