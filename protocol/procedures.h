// SPDX-License-Identifier: LGPL-2.1-or-later
// The simple command procedures: one exchange each, their results read from fp_device_param
// afterwards. They return 0 or -1. Many forgive a failed exchange: they return 0 without a word,
// and only a code other than 0 that was received makes them fail (`unanswered` of their rows in
// command_set.h). Operation thread only.
#pragma once

#include <cstdint>

#pragma GCC visibility push(default)
extern "C" {

/// Reads the firmware version, and with it a power-up result that the module answers first. A
/// failed exchange is reported.
int32_t fp_get_firmware_version(void);
/// The version as the module wrote it.
char* fp_return_firmware_version(void);
/// The number in it.
uint32_t fp_return_firmware_version_num(void);

/// Captures an image and has it uploaded into `img_data`. Forgiving.
int32_t fp_get_fprint_img(void);
/// Uploads the captured image. Forgiving, but for the image itself.
int32_t fp_upload_fprint_img(void);
/// Captures without waiting for a finger, and reads the image. Forgiving, but for the image itself.
int32_t fp_force_get_fprint_img(void);

/// Reads `sys_param`. Forgiving.
int32_t fp_read_sys_param(void);
/// Gives the module a new address; later packets go to every address all the same. Forgiving.
int32_t fp_set_chip_addr(uint32_t chip_addr);
/// Reads `flash_info_page`. Forgiving, but for the page itself.
int32_t fp_read_flash_info_page(void);
/// Reads one page of the slot index table, filed under `index_table_page`, which the caller sets
/// first. A failed exchange is reported.
int32_t fp_read_index_table(uint8_t index_page);
/// Reads `chip_serial_num`. Forgiving.
int32_t fp_get_chip_serial_num(void);
/// Liveness check, into `handshake_state`. Forgiving.
int32_t fp_handshake(void);

/// Aborts the module's running procedure and drains what it still reports. Forgiving.
int32_t fp_cancel(void);
/// Puts the module into its low-power state. Forgiving.
int32_t fp_sleep(void);
/// Reads `valid_template_num`, 0xFFFF before it is known. Forgiving.
int32_t fp_get_valid_template_num(void);
/// Asks for the brightness; the answer is never accepted, the result always 0.
int32_t fp_get_bright(void);

/// Switches the working mode: `len` bytes of `mode`, "TEST" or "USER". A failed exchange is
/// reported.
int32_t fp_set_mode(const char* mode, int32_t len);
/// Reboots the module into its bootloader. A failed exchange is reported.
int32_t fp_reboot(void);
/// Tells the module the host's state. A failed exchange is reported.
int32_t fp_set_pc_state(uint8_t pc_state);

}  // extern "C"
#pragma GCC visibility pop
