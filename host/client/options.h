// SPDX-License-Identifier: LGPL-2.1-or-later
// The command line, read into one record.
#pragma once

#include <optional>
#include <string>

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
};

/// The word on the command line.
const char* name(Command command);

struct Options {
  Command command = Command::Info;

  // Who and which finger.
  int uid = 0;                      ///< kEveryUser: all
  std::optional<int> index;         ///< --index
  std::optional<IndexRange> range;  ///< --range
  bool all = false;                 ///< clean: every finger of the user
  std::string finger_name = "finger";

  // How.
  std::optional<int> timeout_ms;
  bool json = false;
  bool simulate = false;
  std::string script;

  // Files; never empty but for `config`, which may stand for no configuration at all.
  std::string plugin, config, database, trace, templates;
  bool trace_chosen = false;  ///< the trace file was named, so it must be writable
};

/// What reading the command line led to.
struct Parsed {
  std::optional<Options> options;  ///< none: the program ends with `exit_code`
  int exit_code = 0;               ///< 0 after --help, which was printed
  bool json = false;               ///< an error is wanted as JSON
  std::string error;               ///< why there are no options; empty after --help
};

Parsed parse(int argc, char** argv);

}  // namespace wrx::client
