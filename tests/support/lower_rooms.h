// SPDX-License-Identifier: LGPL-2.1-or-later
// What the tests of the lower rooms share: the log file, and the part of a trace that is theirs.
#pragma once

#include <algorithm>
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

/// `lines` but for those that contain one of `words`: what another trace shows already.
inline std::vector<std::string> without(const std::vector<std::string>& words,
                                        std::vector<std::string> lines) {
  std::erase_if(lines, [&](const std::string& line) {
    return std::any_of(words.begin(), words.end(),
                       [&](const std::string& word) { return line.find(word) != line.npos; });
  });
  return lines;
}

}  // namespace wrx_test
