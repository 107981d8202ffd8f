// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The script's vocabulary beyond its verbs: the qualities of a press and the settings.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "module/device/sensor.h"

namespace wrx_module {

class Device;

/// What a press of this quality makes the module report; none for an unknown word.
std::optional<Press> quality_named(std::string_view word);

/// What a setting's value looks like.
enum class ValueKind {
  choice,  ///< one of the words in `words`, separated by '|'; its value is the word's place
  number,  ///< from `least` to `most`
  time,    ///< a time, stored in microseconds
  delay,   ///< a time, or "never" (stored as -1)
};

struct SettingRow {
  std::string_view name;
  ValueKind kind;
  std::string_view words;
  int64_t least, most;
  void (*apply)(Device& device, int64_t value);
};

/// All settings, in the order of their rows.
std::span<const SettingRow> setting_rows();

}  // namespace wrx_module
