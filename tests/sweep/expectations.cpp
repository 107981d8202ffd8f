// SPDX-License-Identifier: LGPL-2.1-or-later
// The table of expected failures.
#include "sweep/expectations.h"

#include <fnmatch.h>

namespace sweep {
namespace {

constexpr Expectation kExpectations[] = {
    {"*", "never", "command", Check::bound, "*",
     "a write without a time limit ends with the unplug"},
    {"*", "never", "boot-out", Check::bound, "*",
     "a write without a time limit ends with the unplug"},
    {"identify*", "*", "*", Check::bound, "*",
     "an identification that hears nothing is ended by a stop"},
    {"clean", "*", "*", Check::stop, "*", "a clean acknowledges no stop"},
    {"enroll*", "*", "*", Check::stop, "not acknowledged, result 201",
     "an enrolment refused for want of room acknowledges no stop"},
    {"clean", "*", "*", Check::slots, "record * empty",
     "a clean whose answer is lost leaves a record without its slot"},
    {"enroll-unstored", "*", "*", Check::slots, "record 3 *",
     "a finish report counts as success, whatever became of the template"},
    {"fp_empty_template", "*", "*", Check::slots, "record * empty",
     "emptying the library touches no records"},
    {"*", "wrong-length*", "*", Check::after, "verify works at attempt *",
     "a wrong length swallows what follows, up to 65533 bytes"},
    {"fp_*_img", "*", "*", Check::after, "verify works at attempt *",
     "an image that was not read to its end swallows what follows"},
    {"fp_read_flash_info_page", "twice", "answer", Check::after, "verify works at attempt 2",
     "a page that came twice is cut in its second half"},
    {"enroll*", "reset", "*", Check::after, "verify works at attempt [23]",
     "after a reset an enrolment goes on unheard, and reports more than a verify drains"},
    {"enroll*", "*", "*", Check::after, "verify works at attempt [23]",
     "an enrolment that failed, and its cancel too, reports more than a verify drains", 2},
};

bool matches(const char* pattern, std::string_view text) {
  return fnmatch(pattern, std::string(text).c_str(), 0) == 0;
}

}  // namespace

std::span<const Expectation> expectations() {
  return kExpectations;
}

const Expectation* expected(const Cell& cell, const Failure& failure) {
  for (const Expectation& row : kExpectations) {
    if (row.check != failure.check || cell.strikes.size() < row.faults ||
        !matches(row.operation, cell.operation->name) || !matches(row.what, failure.what)) {
      continue;
    }
    for (const Strike& strike : cell.strikes) {
      if (matches(row.fault, strike.fault->name) && matches(row.role, role_name(strike.role))) {
        return &row;
      }
    }
  }
  return nullptr;
}

}  // namespace sweep
