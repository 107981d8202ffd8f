// SPDX-License-Identifier: LGPL-2.1-or-later
//
// How one simulated module behaves. Real modules differ in what they do with a read when there is
// nothing to say, in how they report a match, and in speed; each difference is a setting here.
// The defaults are an instant module: every cost and delay is 0 except re-enumeration.
// All times are microseconds.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace wrx_module {

/// What a payload read gets while the module has nothing to say.
enum class EmptyRead {
  times_out,      ///< no answer: the read runs into the host's limit, no acknowledgement follows
  answers_empty,  ///< a payload of zero bytes at once, then the acknowledgement
};

/// How much of what is ready goes into one payload read.
enum class Batch {
  one_report,  ///< one packet a read
  one_step,    ///< the packets of one step: of one press, of one search, of the finish
  all_ready,   ///< everything that fits; a packet may be split between two reads
};

/// The shape of an identification's result.
enum class ResultForm {
  single,  ///< stage 5: one 16-bit slot and a score
  list,    ///< stage 0xF5: a count and one byte a slot, no score
};

/// The check that ends an image packet.
enum class ImageCheck { marker, sum };

/// What the module found for the finger that switched the machine on.
enum class PowerUpOutcome { none, match, no_match };

/// How the module shows itself on the bus.
struct UsbSettings {
  uint16_t vendor = 0x4d2e;  ///< also in use: 0x4d2e:0x5100 and 0x1234:0xabcd
  uint16_t product = 0x5300;
  uint8_t bus_number = 1;
  uint8_t address = 5;  ///< device address, kept over re-enumerations
  std::vector<uint8_t> ports = {2};
  uint16_t packet_size = 64;         ///< bulk packet: 64 (full speed) or 512 (high speed)
  bool kernel_driver_holds = false;  ///< a claim is refused until the kernel driver is detached
  int64_t out_cost_us = 0;           ///< time a transfer to the module takes
  int64_t in_cost_us = 0;            ///< time a transfer from the module takes
};

/// What the module is.
struct IdentitySettings {
  uint32_t version = 100;       ///< of the firmware it leaves the factory with
  uint16_t capacity = 256;      ///< template slots, 1 to 1024
  uint16_t sensor_type = 2;     ///< system parameters…
  uint16_t security_level = 3;  ///< …as they are reported
  uint8_t brightness = 80;
  /// 16 or 32 bytes; other lengths are sent as they are, for drivers to refuse.
  std::vector<uint8_t> serial = {'W', 'R', 'X', '5', '3', '0', '0', '-',
                                 '0', '0', '0', '0', '0', '0', '0', '1'};
  /// 128 bytes on a real module; other lengths are sent as they are.
  std::vector<uint8_t> info_page = std::vector<uint8_t>(128, 0xA5);
  ImageCheck image_check = ImageCheck::marker;
};

/// How the module answers.
struct LinkSettings {
  EmptyRead empty_read = EmptyRead::times_out;
  Batch batch = Batch::one_report;
  int64_t response_delay_us = 0;  ///< from a command to its answer
};

/// How enrolment and identification go.
struct ProcedureSettings {
  int64_t press_gap_us = 0;    ///< a queued press is made this long after the module waits
  int64_t capture_us = 0;      ///< finger down to picture
  int64_t feature_us = 0;      ///< picture to feature
  int64_t step_us = 0;         ///< feature to verdict on the press
  int64_t merge_us = 0;        ///< each of merging, duplicate check and storing
  int64_t search_us = 0;       ///< picture to search result
  bool report_capture = true;  ///< identification reports its capture before its result
  ResultForm form = ResultForm::list;
  bool refuse_duplicates = false;  ///< a finger that some slot holds is not stored again (39)
};

/// The identification made at power-up, handed out once to the first request that may take it;
/// then `outcome` is none again.
struct PowerUpSettings {
  PowerUpOutcome outcome = PowerUpOutcome::none;
  std::vector<uint16_t> slots;  ///< matches
  ResultForm form = ResultForm::single;
  bool answers_version = true;   ///< precedes the first answer to a version request
  bool answers_identify = true;  ///< is the result of the first identification
};

/// Leaving the bus and coming back. A negative delay means never.
struct RebootSettings {
  int64_t leave_us = 40'000;                ///< reboot command to leaving the bus
  int64_t bootloader_appears_us = 500'000;  ///< from there to the bootloader
  int64_t run_leave_us = 20'000;            ///< run-application command to leaving the bus
  int64_t application_appears_us = 280'000;
  int64_t power_up_us = 0;  ///< power to presence, in either mode
};

/// One deliberate misbehaviour of the bootloader.
struct BootQuirk {
  enum class Kind { status, wrong_type, two_bytes, cut_short, garbage_first, silent, wrong_crc };
  uint8_t command = 0;       ///< type byte it applies to
  int nth = 0;               ///< 1 = first such frame, and so on; 0 = every one
  Kind kind = Kind::status;  ///< status: refused with `value`, nothing is done
  uint8_t value = 1;         ///< status byte, or wrong type
};

/// The bootloader's speed and faults.
struct BootloaderSettings {
  uint32_t flash_size = 0x200000;
  int64_t erase_us = 0;
  int64_t write_us = 0;   ///< a block
  int64_t crc_us = 0;     ///< checksum over the flash
  int64_t answer_us = 0;  ///< everything else
  std::vector<BootQuirk> quirks;
  /// Version of a new image that does not carry "acm32_btl_zelta_pc_NNNNNN" in its bytes.
  std::optional<uint32_t> next_version;
  /// Replaces both rules when set.
  std::function<uint32_t(std::span<const uint8_t> image)> version_of_image;
};

/// A command answered with `code` and not executed, `times` times (negative: always).
struct Refusal {
  uint8_t code = 0;
  int times = -1;
};

struct Settings {
  UsbSettings usb;
  IdentitySettings identity;
  LinkSettings link;
  ProcedureSettings procedure;
  PowerUpSettings power_up;
  RebootSettings reboot;
  BootloaderSettings bootloader;
  std::map<uint8_t, Refusal> refuse;  ///< by command code

  /// The speed of a module in a laptop, for people to watch; it answers empty reads at once, so
  /// that nobody waits for limits to pass.
  static Settings lifelike();
};

}  // namespace wrx_module
