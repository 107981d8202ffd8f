// SPDX-License-Identifier: LGPL-2.1-or-later
// The message table: a row a number, a column a word. What a word never takes is empty.

#include "messages.h"

#include <libintl.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "api.h"

namespace wrx::framework {
namespace {

// Marks a text for the message catalogue, which is asked when the text is used.
constexpr const char* N_(const char* text) {
  return text;
}

struct Row {
  int number;
  const char* status;
  const char* result;
  const char* notify;
};

constexpr Row kRows[] = {
    {0, N_("The device is idle"), N_("Success"), N_("Ready")},
    {1, nullptr, N_("Failed"), nullptr},
    {2, nullptr, N_("The device is absent, disabled or failed"), nullptr},
    {3, N_("The device is disabled"), N_("Stopped by the user"), N_("Stopped by the user")},
    // A busy status may be the plain number of the operation's kind.
    {4, N_("Identifying"), nullptr, nullptr},
    {5, nullptr, nullptr, N_("The device is absent or disabled")},
    {6, N_("Searching"), nullptr, nullptr},
    {8, N_("Listing fingerprints"), nullptr, nullptr},
    {9, nullptr, nullptr, N_("The driver has a message")},
    {100, nullptr, N_("Device opened"), N_("Device opened")},
    {101, N_("Opening the device"), N_("The device cannot be opened"),
     N_("The device cannot be opened")},
    {200, nullptr, N_("Fingerprint enrolled"), N_("Fingerprint enrolled")},
    {201, N_("Enrolling"), N_("The enrolment was refused"), N_("The enrolment was refused")},
    {202, nullptr, N_("The enrolment failed"), N_("The enrolment failed")},
    {204, nullptr, N_("The enrolment timed out"), N_("The enrolment timed out")},
    {300, nullptr, N_("The fingerprint matches"), N_("The fingerprint matches")},
    {301, N_("Verifying"), N_("The fingerprint does not match"),
     N_("The fingerprint does not match")},
    {302, nullptr, N_("The verification failed"), N_("The verification failed")},
    {304, nullptr, N_("The verification timed out"), N_("The verification timed out")},
    {400, nullptr, N_("The fingerprint was identified"), N_("The fingerprint was identified")},
    {401, N_("Identifying"), N_("Nobody has this fingerprint"), N_("Nobody has this fingerprint")},
    {402, nullptr, N_("The identification failed"), N_("The identification failed")},
    {404, nullptr, N_("The identification timed out"), N_("The identification timed out")},
    {500, nullptr, N_("Image captured"), nullptr},
    {501, N_("Capturing an image"), N_("The image cannot be captured"),
     N_("The image cannot be captured")},
    {600, nullptr, N_("The fingerprint was found"), N_("The fingerprint was found")},
    {601, N_("Searching"), N_("The fingerprint was not found"),
     N_("The fingerprint was not found")},
    {602, nullptr, N_("The search failed"), N_("The search failed")},
    {604, nullptr, N_("The search timed out"), N_("The search timed out")},
    {700, nullptr, N_("Fingerprints deleted"), N_("Fingerprints deleted")},
    {701, N_("Deleting fingerprints"), N_("The fingerprints were not all deleted"),
     N_("The fingerprints were not all deleted")},
    {800, nullptr, N_("Fingerprints listed"), nullptr},
    {801, N_("Listing fingerprints"), N_("The fingerprints cannot be listed"), nullptr},
};
static_assert(std::ranges::is_sorted(kRows, std::ranges::less_equal{}, &Row::number));

const char* own_text(Word word, int number) {
  const auto* row = std::ranges::lower_bound(kRows, number, {}, &Row::number);
  if (row == std::end(kRows) || row->number != number) return nullptr;
  if (word == Word::Status) return row->status;
  return word == Word::Result ? row->result : row->notify;
}

}  // namespace

const char* message(Word word, int number) {
  if (const char* text = own_text(word, number)) return dgettext("wrx5300", text);
  thread_local char unknown[64];
  static constexpr const char* kUnknown[] = {N_("Unknown status %d"), N_("Unknown result %d"),
                                             N_("Unknown notification %d")};
  std::snprintf(unknown, sizeof unknown, "%s",
                dgettext("wrx5300", kUnknown[static_cast<int>(word)]));
  // The number replaces "%d" here and not by printf, because a catalogue's text is no format.
  if (char* mark = std::search(unknown, std::end(unknown), "%d", &"%d"[2]);
      mark != std::end(unknown))
    std::snprintf(mark, static_cast<std::size_t>(std::end(unknown) - mark), "%d", number);
  return unknown;
}

}  // namespace wrx::framework
