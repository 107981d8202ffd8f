// SPDX-License-Identifier: LGPL-2.1-or-later
// The words of the desktop's fingerprint interface: finger names, verdicts, errors. Each is stated
// once, here.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace wrx::service {

/// Fingers of a user. The driver's feature index of a finger is its place in the list of names.
inline constexpr int kFingers = 10;

/// The interface's name of finger `index` (0 to 9).
const char* finger_name(int index);
/// Index of the finger named so; nothing for an unknown name, "any" among them.
std::optional<int> finger_index(std::string_view name);

/// Stands for every finger of the user.
inline constexpr char kAnyFinger[] = "any";

/// How a wait for a finger ended, seen from the client.
enum class Ending {
  Match,         ///< a finger of the user's, and the one that was asked for
  NoMatch,       ///< any other finger
  Enrolled,      ///< all presses taken, template and record stored
  Full,          ///< the user has ten fingers, or the module no free slot
  Duplicate,     ///< the finger or the name is enrolled already
  Disconnected,  ///< the module is gone
  Refused,       ///< the module or the driver would not begin
  Failed,        ///< anything else, sleep among it
  Stopped,       ///< by the client's own wish, who is not told
};

/// The interface's words for an ending; empty where there is nothing to say.
const char* verify_word(Ending ending);
const char* enroll_word(Ending ending);

/// What became of one press of an enrolment.
enum class Press { Taken, Smudged, Small, Repeated, Bad };
const char* press_word(Press press);

/// Reasons for which a call is answered by an error.
enum class Error {
  ClaimDevice,
  AlreadyInUse,
  Internal,
  PermissionDenied,
  NoEnrolledPrints,
  NoActionInProgress,
  InvalidFingername,
  NoSuchDevice,
  PrintsNotDeleted,
  PrintsNotDeletedFromDevice,
};

/// The error's full name on the bus.
std::string bus_name(Error error);

/// Ends a call by an error.
class Refusal : public std::runtime_error {
 public:
  Refusal(Error error, const std::string& why) : std::runtime_error(why), error_(error) {}
  Error error() const { return error_; }

 private:
  Error error_;
};

}  // namespace wrx::service
