// SPDX-License-Identifier: LGPL-2.1-or-later
// What the tests of the lower rooms share: packets summed by hand, and the driver's lines in a form
// short enough for tables.
#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/rig.h"

namespace wrx_test {

using Bytes = std::vector<uint8_t>;

/// A packet from the module (7: response, 8: data's end) with `length` in its head, by default what
/// the payload asks for, and a good sum.
inline Bytes packet(const Bytes& payload, uint8_t type = 7, int length = -1) {
  if (length < 0) length = static_cast<int>(payload.size()) + 2;
  Bytes bytes(9 + payload.size(), 0xFF);
  bytes[0] = 0xEF;
  bytes[1] = 0x01;
  bytes[6] = type;
  bytes[7] = static_cast<uint8_t>(length >> 8);
  bytes[8] = static_cast<uint8_t>(length);
  std::copy(payload.begin(), payload.end(), bytes.begin() + 9);
  const unsigned sum = std::accumulate(bytes.begin() + 6, bytes.end(), 0U);
  bytes.push_back(static_cast<uint8_t>(sum >> 8));
  bytes.push_back(static_cast<uint8_t>(sum));
  return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline std::string hex(const Bytes& bytes) {
  return wrx_module::trace_bytes({bytes.data(), bytes.size()});
}

inline constexpr char kLogFile[] = "etc/wrx6600/extra/log_wrx.txt";

inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

/// A line of the driver taken apart: what stands before the function of its prefix ("[", ":" behind
/// unit and line, or nothing), the function, the rest. A bare text is all rest.
struct Taken {
  std::string open, function, rest;
  explicit Taken(const std::string& line) : rest(line) {
    const bool bracket = line.starts_with('[');
    const size_t end = line.find(bracket ? "] " : ": ");
    if (end == line.npos || line.find(' ') < end) return;
    const size_t before = line.rfind(':', end - 1);
    open = bracket ? "[" : before != line.npos ? ":" : "";
    function = line.substr(before + 1, end - before - 1);
    rest = line.substr(end);
  }
  std::string text() const { return open + function + rest; }
};

using Names = std::vector<std::string>;

inline bool begins_with_one_of(const std::string& text, const Names& beginnings) {
  return std::any_of(beginnings.begin(), beginnings.end(),
                     [&](const std::string& beginning) { return text.starts_with(beginning); });
}

/// The driver's console lines, each as Taken::text, with a "+" before those that the log file holds
/// too. Those of functions that begin with one of `left_out` are left out, and then dumps too.
inline std::string said(Rig& rig, const Names& left_out = {}) {
  std::multiset<std::string> logged;
  for (std::string line : lines_of(rig.read_file(kLogFile))) {
    for (size_t at = 0; (at = line.find('\r')) != line.npos;)
      line.replace(at, 1, "\\r");
    if (line.size() > 9) logged.insert(Taken(line.substr(9)).text());
  }
  std::string result;
  for (const std::string& line : rig.trace.driver_lines()) {
    const Taken taken(line);
    const bool dump = line.find_first_not_of("0123456789abcdef \\r") == line.npos;
    if (!left_out.empty() && (dump || begins_with_one_of(taken.function, left_out))) continue;
    const auto found = logged.find(taken.text());
    if (found != logged.end()) {
      logged.erase(found);
      result += '+';
    }
    result += taken.text() + "\n";
  }
  return result;
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
