// SPDX-License-Identifier: LGPL-2.1-or-later
// The trace of a scenario, for people and for golden files: every bulk transfer, every call of the
// framework, every wait, and the driver's own console lines between them, in true order.
//
// "@ t=… " begins a line of the recorder; all others are the driver's. A line number in a driver's
// prefix is shown as "#". A trailing \r is part of the line; a trailing \ marks a line that the
// driver left open.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "module/usb/trace.h"

namespace wrx_test {

class Recorder {
 public:
  /// Takes over standard output, so that what the driver prints becomes part of the trace.
  Recorder();
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  static Recorder* active();

  /// Adds a line of the recorder's own: "@ t=<ms> <text>".
  void note(const std::string& text);
  /// Adds what a device's bus did.
  void usb(const wrx_module::TraceRecord& record);
  /// What has been recorded so far.
  std::vector<std::string> lines();
  /// The same, the driver's lines only, with their prefixes.
  std::vector<std::string> driver_lines();
  /// Whether some line contains `text`.
  bool saw(const std::string& text);
  /// How many lines contain `text`.
  int count(const std::string& text);
  /// Begins anew, with the numbers of database connections too.
  void clear();

 private:
  static ssize_t write(void* self, const char* bytes, size_t size);
  void finish_open_line();

  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::string open_line_;
  std::FILE* stream_;
  std::FILE* system_stdout_;
};

/// The next connection to the feature database is the first.
void number_connections_anew();

/// While one lives, its thread's calls of the framework are not recorded: they are the bench's own.
struct Unrecorded {
  Unrecorded();
  ~Unrecorded();
};

/// "text" with its control characters, quotes and backslashes escaped as in C, in quotes.
std::string quoted(const char* text);

/// The trace without the passages that it has shown already, but for a shift in time: a line names
/// the lines of the result that each of them repeats. A step of a scene ("> ") stays.
std::vector<std::string> without_repeats(const std::vector<std::string>& lines);

/// The lines of tests/golden/<name>.txt.
std::vector<std::string> golden_lines(const std::string& name);
/// Compares with that file; returns an explanation of the first difference, or
/// nothing. With WRX_UPDATE_GOLDEN set, the file is written anew instead.
std::string golden_difference(const std::string& name, std::vector<std::string> lines);

}  // namespace wrx_test
