// SPDX-License-Identifier: LGPL-2.1-or-later
// Tables of the interface's words.

#include "host/service/reader/words.h"

#include <algorithm>
#include <iterator>

namespace wrx::service {
namespace {

constexpr std::string_view kNames[] = {
    "left-thumb",         "left-index-finger",   "left-middle-finger", "left-ring-finger",
    "left-little-finger", "right-thumb",         "right-index-finger", "right-middle-finger",
    "right-ring-finger",  "right-little-finger",
};
static_assert(std::size(kNames) == kFingers);

struct EndingWords {
  const char* verify;
  const char* enroll;
};

// In the order of Ending.
constexpr EndingWords kEndings[] = {
    {"verify-match", ""},
    {"verify-no-match", ""},
    {"", "enroll-completed"},
    {"", "enroll-data-full"},
    {"", "enroll-duplicate"},
    {"verify-disconnected", "enroll-disconnected"},
    {"verify-unknown-error", "enroll-failed"},
    {"verify-unknown-error", "enroll-unknown-error"},
    {"", ""},
};
static_assert(std::size(kEndings) == static_cast<int>(Ending::Stopped) + 1);

// In the order of Press.
constexpr const char* kPresses[] = {"enroll-stage-passed", "enroll-retry-scan",
                                    "enroll-finger-not-centered", "enroll-remove-and-retry",
                                    "enroll-retry-scan"};
static_assert(std::size(kPresses) == static_cast<int>(Press::Bad) + 1);

// In the order of Error.
constexpr const char* kErrors[] = {
    "ClaimDevice",       "AlreadyInUse",
    "Internal",          "PermissionDenied",
    "NoEnrolledPrints",  "NoActionInProgress",
    "InvalidFingername", "NoSuchDevice",
    "PrintsNotDeleted",  "PrintsNotDeletedFromDevice",
};
static_assert(std::size(kErrors) == static_cast<int>(Error::PrintsNotDeletedFromDevice) + 1);

}  // namespace

const char* finger_name(int index) {
  return kNames[index].data();
}

std::optional<int> finger_index(std::string_view name) {
  const auto* found = std::ranges::find(kNames, name);
  if (found == std::end(kNames)) return std::nullopt;
  return static_cast<int>(found - std::begin(kNames));
}

const char* verify_word(Ending ending) {
  return kEndings[static_cast<int>(ending)].verify;
}

const char* enroll_word(Ending ending) {
  return kEndings[static_cast<int>(ending)].enroll;
}

const char* press_word(Press press) {
  return kPresses[static_cast<int>(press)];
}

std::string bus_name(Error error) {
  return std::string("net.reactivated.Fprint.Error.") + kErrors[static_cast<int>(error)];
}

}  // namespace wrx::service
