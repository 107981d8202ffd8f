// SPDX-License-Identifier: LGPL-2.1-or-later
// How a command or an operation ended, in the words and numbers the outside knows, and the
// exception that carries an ending other than the operation's own.
#pragma once

#include <stdexcept>
#include <string>

namespace wrx::host {

/// The values are the programs' exit codes; they never change.
enum class Outcome : int {
  Success = 0,  ///< done, or the finger matches
  NoMatch = 1,  ///< the finger does not match
  Usage = 2,    ///< a bad argument or file named on the command line
  Stopped = 3,  ///< stopped by the user
  TimedOut = 4,
  Refused = 5,  ///< full, disabled, duplicate, taken, nothing to work on
  Absent = 6,   ///< no module, or it cannot be opened
  Failed = 7,   ///< anything else, the database included
};

/// "success", "no-match", … : the outcome's fixed English name.
const char* name(Outcome outcome);

/// One line for people: what the exit code means.
const char* meaning(Outcome outcome);

/// What an operation's result word says. `enabled` tells an absent device from a disabled one,
/// which share a number.
Outcome outcome_of_result(int result, bool enabled);

/// Ends a command: an outcome with its reason.
class Failure : public std::runtime_error {
 public:
  Failure(Outcome outcome, const std::string& why) : std::runtime_error(why), outcome_(outcome) {}
  Outcome outcome() const { return outcome_; }

 private:
  Outcome outcome_;
};

}  // namespace wrx::host
