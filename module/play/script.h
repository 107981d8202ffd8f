// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The small language that drives the module: the same in tests, in the client and on a real bus.
// A statement is a verb and its words; statements end at a line end or at ";", "#" begins a
// comment. Times are a number with ms, us or s.
//
//   at TIME                            what follows happens TIME after the script's start
//   wait TIME                          what follows happens TIME later than what went before
//   finger NAME                        whose finger a press without a name is
//   press [NAME] [QUALITY] [xN]        a touch; before any at or wait it is made, and lifted,
//                                      whenever the module waits for a finger (xN: N times)
//   lift                               takes the finger off
//   plug | unplug | cut-power | power-cycle
//   unplug after N transfers           the transfer after the next N finds the device gone
//   fault at N KIND [VALUE]            transfer N from here: timeout, stall, io, nodev, short N,
//                                      overflow, corrupt N, stale, garbage, twice, foreign,
//                                      wrongack, emptyack, delay TIME, unplug, reset, powercut,
//                                      death
//   powerup match SLOT… | nomatch | none   [single | list]
//   refuse COMMAND CODE [xN]           the command (a number) is answered with CODE
//   set NAME VALUE                     one of the module's settings, see setting_names()
//
//   QUALITY: good smudged(49) small(50) repeated(48) duplicate(39) rejected dry wet, code N
//   NAME: letters, digits, '-', '_', at most 32
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "module/device/sensor.h"
#include "module/device/settings.h"
#include "module/play/faults.h"

namespace wrx_module {

class Device;

struct PressAction {
  Press press;
  int times = 1;
};
struct LiftAction {};
enum class PowerAction { plug, unplug, cut_power, power_cycle };
/// A fault whose `at` counts from the moment the statement runs.
struct FaultAction {
  Fault fault;
};
struct PowerUpAction {
  PowerUpSettings power_up;
};
struct RefuseAction {
  uint8_t command = 0;
  Refusal refusal;
};
struct SetAction {
  size_t setting = 0;  ///< row of the table of settings
  int64_t value = 0;
};

/// One statement. Without a moment it runs at the start (and a press is queued).
struct Step {
  std::optional<int64_t> at_us;
  std::variant<PressAction, LiftAction, PowerAction, FaultAction, PowerUpAction, RefuseAction,
               SetAction>
      action;
};

struct Script {
  std::vector<Step> steps;  ///< in the order written; moments never go back
};

/// Where and why a text is no script; line and column count from 1.
struct ScriptError {
  int line = 0;
  int column = 0;
  std::string message;
  /// "line 2, column 7: …"
  std::string text() const;
};

struct ParsedScript {
  Script script;  ///< empty after an error
  std::optional<ScriptError> error;
};

/// Reads a script; never fails otherwise than by `error`. At most 10000 steps.
ParsedScript parse_script(std::string_view text);

/// The names that `set` takes, with the words or unit each wants, for help texts.
std::vector<std::string> setting_names();
/// Carries out a `set`.
void apply_setting(Device& device, const SetAction& set);

}  // namespace wrx_module
