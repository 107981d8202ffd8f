// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver's words during an enrolment, understood.

#include "host/service/reader/enrol_watch.h"

#include <libintl.h>

#include "host/common/driver_texts.h"

namespace wrx::service {
namespace {

namespace texts = host::driver_text;
using host::Outcome;

struct BadPress {
  const char* text;
  Press press;
};

constexpr BadPress kBadPresses[] = {
    {texts::kBadQuality, Press::Smudged},
    {texts::kSmallArea, Press::Small},
    {texts::kRepeatedPosition, Press::Repeated},
    {texts::kBadFeature, Press::Bad},
    {texts::kBadPress, Press::Bad},
};

}  // namespace

EnrolWatch::EnrolWatch(std::function<void(Press)> pressed, std::function<void()> stop,
                       std::function<bool()> unanswered)
    : pressed_(std::move(pressed)),
      stop_(std::move(stop)),
      unanswered_(std::move(unanswered)),
      listener_{[this](const std::string& text) { hear(text); },
                [this](int percent) {
                  // Percentages are cut to whole ones; a press is more than eight of them.
                  count((percent * host::kEnrolStages + 99) / 100);
                }} {}

void EnrolWatch::hear(const std::string& text) {
  if (text == gettext(texts::kEnrolStarted)) started_ = true;
  // The driver says the same of a module without a free slot, of one that does not tell, and of a
  // user with ten fingers, for whom it asked the module nothing but which templates it has.
  if (text == gettext(texts::kFull)) (unanswered_() ? silent_ : full_) = true;
  if (text == gettext(texts::kDuplicate)) {
    // Once presses of the right finger were taken, another finger's is only a slip.
    if (started_ && taken_ > 0) return pressed_(Press::Repeated);
    if (!duplicate_) stop_();
    duplicate_ = true;
  }
  for (const BadPress& row : kBadPresses)
    if (text == gettext(row.text)) pressed_(row.press);
}

void EnrolWatch::count(int stages) {
  for (; taken_ < stages; ++taken_)
    pressed_(Press::Taken);
}

void EnrolWatch::complete() {
  count(host::kEnrolStages);
}

Ending EnrolWatch::ending(Outcome outcome, const std::function<bool()>& stored) const {
  if (outcome == Outcome::Success) return stored() ? Ending::Enrolled : Ending::Failed;
  if (duplicate_) return Ending::Duplicate;
  switch (outcome) {
    case Outcome::Stopped:
      return Ending::Stopped;
    case Outcome::Refused:
      if (silent_) return Ending::Failed;
      return full_ ? Ending::Full : Ending::Refused;
    case Outcome::Absent:
      return Ending::Disconnected;
    case Outcome::TimedOut:
      return Ending::Refused;
    default:
      return Ending::Failed;
  }
}

}  // namespace wrx::service
