// SPDX-License-Identifier: LGPL-2.1-or-later
// The outcome tables.

#include "outcome.h"

#include <algorithm>
#include <iterator>

#include "libbiometric.h"

namespace wrx::host {
namespace {

// Marks a text for the message catalogue, which whoever shows it asks.
constexpr const char* N_(const char* text) {
  return text;
}

struct Words {
  const char* name;
  const char* meaning;
};

// In the order of the exit codes.
constexpr Words kWords[] = {
    {"success", N_("done, or the finger matches")},
    {"no-match", N_("the finger does not match; fsck: slots and records differ")},
    {"usage", N_("a bad argument, or a file it names cannot be used")},
    {"stopped", N_("stopped by the user")},
    {"timed-out", N_("no finger came in time")},
    {"refused", N_("refused: full, disabled, a duplicate, taken, or nothing to work on")},
    {"absent", N_("no module, or it cannot be opened")},
    {"failed", N_("failed otherwise, the database included")},
};
static_assert(std::size(kWords) == static_cast<int>(Outcome::Failed) + 1);

struct Row {
  int result;
  Outcome outcome;
};

// Results that are not here are failures.
constexpr Row kResults[] = {
    {OPS_COMM_STOP_BY_USER, Outcome::Stopped}, {OPS_OPEN_FAIL, Outcome::Absent},
    {OPS_ENROLL_SUCCESS, Outcome::Success},    {OPS_ENROLL_FAIL, Outcome::Refused},
    {OPS_ENROLL_TIMEOUT, Outcome::TimedOut},   {OPS_VERIFY_MATCH, Outcome::Success},
    {OPS_VERIFY_NO_MATCH, Outcome::NoMatch},   {OPS_VERIFY_TIMEOUT, Outcome::TimedOut},
    {OPS_IDENTIFY_MATCH, Outcome::Success},    {OPS_IDENTIFY_NO_MATCH, Outcome::NoMatch},
    {OPS_IDENTIFY_TIMEOUT, Outcome::TimedOut}, {OPS_SEARCH_MATCH, Outcome::Success},
    {OPS_SEARCH_NO_MATCH, Outcome::NoMatch},   {OPS_SEARCH_TIMEOUT, Outcome::TimedOut},
    {OPS_CLEAN_SUCCESS, Outcome::Success},     {OPS_GET_FLIST_SUCCESS, Outcome::Success},
};

}  // namespace

const char* name(Outcome outcome) {
  return kWords[static_cast<int>(outcome)].name;
}

const char* meaning(Outcome outcome) {
  return kWords[static_cast<int>(outcome)].meaning;
}

Outcome outcome_of_result(int result, bool enabled) {
  if (!enabled) return Outcome::Refused;
  if (result == OPS_COMM_ERROR) return Outcome::Absent;
  const auto* row = std::ranges::find(kResults, result, &Row::result);
  return row != std::end(kResults) ? row->outcome : Outcome::Failed;
}

}  // namespace wrx::host
