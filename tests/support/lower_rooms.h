// SPDX-License-Identifier: LGPL-2.1-or-later
// What the tests of the lower rooms share: the log file, and what went over the wire.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "support/bytes.h"
#include "support/rig.h"

namespace wrx_test {

inline constexpr char kLogFile[] = "etc/wrx6600/extra/log_wrx.txt";

inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

/// Bulk transfers of the trace, "out" or "in", as hex.
inline std::vector<std::string> transfers(Rig& rig, const std::string& direction) {
  std::vector<std::string> result;
  for (const std::string& line : rig.trace.lines()) {
    if (line.find(" usb-" + direction + " ") == std::string::npos) continue;
    result.push_back(line.substr(line.rfind(' ') + 1));
  }
  return result;
}

}  // namespace wrx_test
