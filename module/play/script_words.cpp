// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Tables of the script's words.
#include "module/play/script_words.h"

#include <string>

#include "module/device/device.h"
#include "module/play/script.h"

namespace wrx_module {
namespace {

struct QualityRow {
  std::string_view word;
  uint8_t capture, feature, step;
};

constexpr QualityRow kQualities[] = {
    {"good", 0, 0, 0},       {"smudged", 0, 49, 0}, {"small", 0, 50, 0}, {"repeated", 0, 48, 0},
    {"duplicate", 0, 39, 0}, {"rejected", 0, 0, 3}, {"dry", 4, 0, 0},    {"wet", 5, 0, 0},
};

constexpr SettingRow choice(std::string_view name, std::string_view words,
                            void (*apply)(Device&, int64_t)) {
  return {name, ValueKind::choice, words, 0, 0, apply};
}
constexpr SettingRow number(std::string_view name, int64_t least, int64_t most,
                            void (*apply)(Device&, int64_t)) {
  return {name, ValueKind::number, {}, least, most, apply};
}

// A time of a group of settings, by the group's and the time's place.
template <auto Group, auto Time>
void set_time(Device& device, int64_t value) {
  device.settings().*Group.*Time = value;
}
template <auto Group, auto Time>
constexpr SettingRow time(std::string_view name) {
  return {name, ValueKind::time, {}, 0, 0, set_time<Group, Time>};
}
template <auto Time>
constexpr SettingRow delay(std::string_view name) {
  return {name, ValueKind::delay, {}, 0, 0, set_time<&Settings::reboot, Time>};
}

constexpr auto kProcedure = &Settings::procedure;
constexpr auto kUsb = &Settings::usb;
constexpr auto kBoot = &Settings::bootloader;

constexpr SettingRow kSettings[] = {
    choice("empty-read", "times-out|at-once",
           [](Device& d, int64_t v) { d.settings().link.empty_read = static_cast<EmptyRead>(v); }),
    choice("batch", "report|step|all",
           [](Device& d, int64_t v) { d.settings().link.batch = static_cast<Batch>(v); }),
    choice("capture-report", "off|on",
           [](Device& d, int64_t v) { d.settings().procedure.report_capture = v != 0; }),
    choice("result", "single|list",
           [](Device& d, int64_t v) { d.settings().procedure.form = static_cast<ResultForm>(v); }),
    choice("duplicates", "allowed|refused",
           [](Device& d, int64_t v) { d.settings().procedure.refuse_duplicates = v != 0; }),
    choice("image-check", "marker|sum",
           [](Device& d, int64_t v) {
             d.settings().identity.image_check = static_cast<ImageCheck>(v);
           }),
    choice("kernel-driver", "off|on",
           [](Device& d, int64_t v) { d.settings().usb.kernel_driver_holds = v != 0; }),
    number("version", 0, 999999,
           [](Device& d, int64_t v) { d.memory().version = static_cast<uint32_t>(v); }),
    number("next-version", 0, 999999,
           [](Device& d, int64_t v) {
             d.settings().bootloader.next_version = static_cast<uint32_t>(v);
           }),
    number("capacity", 1, 1024,
           [](Device& d, int64_t v) { d.settings().identity.capacity = static_cast<uint16_t>(v); }),
    time<&Settings::link, &LinkSettings::response_delay_us>("response-delay"),
    time<kProcedure, &ProcedureSettings::press_gap_us>("press-gap"),
    time<kProcedure, &ProcedureSettings::capture_us>("capture-time"),
    time<kProcedure, &ProcedureSettings::feature_us>("feature-time"),
    time<kProcedure, &ProcedureSettings::step_us>("step-time"),
    time<kProcedure, &ProcedureSettings::merge_us>("merge-time"),
    time<kProcedure, &ProcedureSettings::search_us>("search-time"),
    time<kUsb, &UsbSettings::out_cost_us>("out-cost"),
    time<kUsb, &UsbSettings::in_cost_us>("in-cost"),
    time<kBoot, &BootloaderSettings::erase_us>("erase-time"),
    time<kBoot, &BootloaderSettings::write_us>("write-time"),
    time<kBoot, &BootloaderSettings::crc_us>("crc-time"),
    time<&Settings::reboot, &RebootSettings::leave_us>("leave-delay"),
    time<&Settings::reboot, &RebootSettings::run_leave_us>("run-delay"),
    delay<&RebootSettings::bootloader_appears_us>("bootloader-delay"),
    delay<&RebootSettings::application_appears_us>("application-delay"),
    delay<&RebootSettings::power_up_us>("power-up-delay"),
};

}  // namespace

std::optional<Press> quality_named(std::string_view word) {
  for (const QualityRow& row : kQualities) {
    if (row.word == word) return Press{{}, row.capture, row.feature, row.step};
  }
  return std::nullopt;
}

std::span<const SettingRow> setting_rows() {
  return kSettings;
}

std::vector<std::string> setting_names() {
  std::vector<std::string> names;
  for (const SettingRow& row : kSettings) {
    std::string name(row.name);
    if (row.kind == ValueKind::choice) name.append(" ").append(row.words);
    if (row.kind == ValueKind::number) name += " N";
    if (row.kind == ValueKind::time) name += " TIME";
    if (row.kind == ValueKind::delay) name += " TIME|never";
    names.push_back(std::move(name));
  }
  return names;
}

void apply_setting(Device& device, const SetAction& set) {
  kSettings[set.setting].apply(device, set.value);
}

}  // namespace wrx_module
