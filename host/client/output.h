// SPDX-License-Identifier: LGPL-2.1-or-later
// What the program says: for people (a bar on a terminal, plain lines otherwise) or for programs
// (JSON, an event a line, then one object). Errors of a run for people go to standard error; a run
// for programs says everything on standard output.
#pragma once

#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "host/common/outcome.h"

namespace wrx::client {

/// How a command ended and what it found.
struct Report {
  host::Outcome outcome = host::Outcome::Success;
  std::string text;                                ///< the outcome in a sentence
  std::string body;                                ///< for people: findings, whole lines, before it
  nlohmann::json data = nlohmann::json::object();  ///< for programs
};

/// Any thread may call it; each call writes whole lines. A line that cannot be written stops
/// nothing: the module's work goes on, and lost() tells of it.
class Output {
 public:
  Output(FILE* to, bool json, bool terminal) : to_(to), json_(json), terminal_(terminal) {}

  /// A remark while a command runs: what it waits for.
  void note(const std::string& text);
  /// The driver's words to the user.
  void driverSays(int number, const std::string& text);
  /// `done` of `total` steps of `what`, a text of the catalogue; programs get it as it is.
  void progress(const std::string& what, int done, int total);
  /// The command's end.
  void end(const std::string& command, const Report& report);
  /// The end, for a thread that may have interrupted a writer: says nothing rather than wait.
  void endAtOnce(const std::string& command, const Report& report);
  /// Whether something could not be written, on a full disk for example. A reader who went away
  /// wanted no more and lost nothing.
  bool lost() const { return lost_; }

 private:
  void event(const nlohmann::json& object);
  void line(const std::string& text);
  void put(const std::string& text);
  void flush();
  void drawBar();
  void leaveBar();
  void endLocked(const std::string& command, const Report& report);

  FILE* to_;
  bool json_, terminal_;
  std::mutex guard_;
  bool lost_ = false;
  bool bar_ = false;  ///< the cursor stands behind a bar
  int done_ = 0, total_ = 0;
  std::string beside_;  ///< the words beside the bar
};

}  // namespace wrx::client
