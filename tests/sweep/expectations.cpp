// SPDX-License-Identifier: LGPL-2.1-or-later
// The table of expected failures.
#include "sweep/expectations.h"

#include <fnmatch.h>

namespace sweep {
namespace {

// Kinds that lose an answer without its sender noticing.
#define WRX_LOST "@(timeout|stall|io|nodev|short|overflow|wrong-*|garbage|foreign|empty-ack|never)"
#define WRX_IMAGE "fp_@(get|upload|force_get)_fprint_img"

constexpr Expectation kExpectations[] = {
    {"*", "never", "@(command|boot-out)", Check::bound, "ended by the unplug",
     "a write without a time limit ends with the unplug"},
    {"identify", WRX_LOST, "@(answer|ack)", Check::bound, "ended by a stop",
     "an identification that hears nothing is ended by a stop"},

    {"@(start*|upgrade|recover|fp_*)", "*", "*", Check::stop, "idle, *",
     "a start or a lone command acknowledges no stop: the device is idle"},
    {"clean", "*", "*", Check::stop, "not acknowledged, result 70[01] *",
     "a clean acknowledges no stop"},
    {"enroll*", "*", "*", Check::stop, "@(idle|not acknowledged), result 201 with notification 9",
     "an enrolment refused for want of room acknowledges no stop"},
    {"enroll*", "*", "*", Check::stop, "not acknowledged, result 200 *",
     "a finish report that is there wins over a stop"},
    {"@(verify|identify*|search)", "*", "*", Check::stop, "not acknowledged, result [346]0[01] *",
     "a search report that is there wins over a stop"},

    {"clean", "@(" WRX_LOST "|wrong-ack|reset|unplug|powercut)", "@(command|block|answer|ack)",
     Check::slots, "record [12] and slot 2[12]: empty, result 701 *",
     "a clean whose answer is lost, and says so, leaves a record without its slot"},
    {"enroll-unstored", "*", "*", Check::slots, "record 3 and slot 23: empty, result 200 *",
     "a finish report counts as success, whatever became of the template"},
    {"fp_empty_template", "*", "*", Check::slots, "record [0-2] and slot 2[0-2]: empty, *",
     "emptying the library touches no records"},

    {"*", "wrong-length", "@(answer|ack)", Check::after,
     "verify works after a packet of the greatest length, *",
     "a wrong length swallows what follows, up to 65533 bytes"},
    {"*", "@(twice|stale|wrong-length-low)", "answer", Check::after, "verify works at attempt 2, *",
     "half a packet takes what follows for its rest"},
    {WRX_IMAGE, "@(" WRX_LOST "|stale|twice|reset)", "@(block|command|answer|ack)", Check::after,
     "verify works @(at attempt 2|after a packet of the greatest length), *",
     "an image that was not read to its end swallows what follows"},
    {"enroll*", "reset", "*", Check::after, "verify works at attempt 2, *",
     "after a reset an enrolment goes on unheard, and reports more than a verify drains"},
    {"enroll", "*", "@(block|command|answer|ack)", Check::after,
     "verify works at attempt 2, result 20[14] *",
     "an enrolment that failed, and its cancel too, reports more than a verify drains", 2},
};

bool matches(const char* pattern, std::string_view text) {
  return fnmatch(pattern, std::string(text).c_str(), FNM_EXTMATCH) == 0;
}

}  // namespace

std::span<const Expectation> expectations() {
  return kExpectations;
}

const Expectation* expected(const Cell& cell, const Failure& failure) {
  for (const Expectation& row : kExpectations) {
    if (row.check != failure.check || cell.faults < row.faults ||
        !matches(row.operation, cell.operation->name) || !matches(row.what, failure.what)) {
      continue;
    }
    for (const Strike& strike : cell.strikes()) {
      if (matches(row.fault, strike.fault->name) && matches(row.role, role_name(strike.role))) {
        return &row;
      }
    }
  }
  return nullptr;
}

}  // namespace sweep
