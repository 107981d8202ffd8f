// SPDX-License-Identifier: LGPL-2.1-or-later
// The command line, read into one record.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "values.h"

namespace wrx::client {

enum class Command {
  Info,
  Discover,
  Init,
  Enroll,
  Verify,
  Identify,
  Search,
  List,
  Clean,
  Firmware,
  Doctor,
  Fsck,
  ModuleHandshake,
  ModuleSerial,
  ModuleParameters,
  ModuleInfoPage,
  ModuleCount,
  ModuleSlots,
  ModuleImage,
};
inline constexpr int kCommandCount = static_cast<int>(Command::ModuleImage) + 1;

/// The word on the command line, or the two of a question to the module.
const char* name(Command command);

struct Options {
  Command command = Command::Info;

  // Who and which finger.
  int uid = 0;                      ///< kEveryUser: all
  std::optional<int> index;         ///< --index
  std::optional<IndexRange> range;  ///< --range
  bool all = false;                 ///< clean: every finger of the user
  bool repair = false;              ///< fsck: change what differs
  bool at_once = false;             ///< module image: do not wait for a finger
  std::string finger_name = "finger";

  // How.
  std::optional<int> timeout_ms;
  bool json = false;
  bool simulate = false;
  std::string script;

  // Files; never empty but for `config`, which may stand for no configuration at all.
  std::string plugin, config, database, trace, templates;
  std::string output;         ///< module image: the picture
  bool trace_chosen = false;  ///< the trace file was named, so it must be writable
};

/// What reading the command line led to.
struct Parsed {
  std::optional<Options> options;  ///< none: the program ends with `exit_code`
  int exit_code = 0;               ///< 0 after --help, which was printed
  bool json = false;               ///< an error is wanted as JSON
  std::string error;               ///< why there are no options; empty after --help
};

/// Reads the command line; prints nothing but a help that was asked for.
Parsed parse(int argc, char** argv);

/// A command as a shell completes it.
struct CommandShape {
  std::string name;                  ///< one or two words
  std::vector<std::string> options;  ///< long and short, with their dashes
  std::vector<std::string> files;    ///< those of them that take a file's name
};

/// Every command, from the tree that parse() reads the command line with.
std::vector<CommandShape> command_shapes();

}  // namespace wrx::client
