// SPDX-License-Identifier: LGPL-2.1-or-later
// Commands about fingers: enroll, verify, identify, search, list, clean.

#include <fmt/format.h>
#include <pwd.h>

#include <algorithm>

#include "commands.h"
#include "host/common/driver_texts.h"

namespace wrx::client {
namespace {

using host::Failure;
using host::Outcome;

std::string user_words(int uid) {
  if (uid == kEveryUser) return "any user";
  const passwd* entry = getpwuid(static_cast<uid_t>(uid));
  return entry != nullptr ? fmt::format("user {} ({})", uid, entry->pw_name)
                          : fmt::format("user {}", uid);
}

std::string words(const Finger& finger) {
  return fmt::format("finger {} (\"{}\") of {}, module slot {}", finger.index, finger.name,
                     user_words(finger.uid), fmt::join(finger.slots, ", "));
}

std::string lines(const std::vector<Finger>& fingers) {
  std::string text;
  for (const Finger& finger : fingers)
    text += "  " + words(finger) + "\n";
  return text;
}

nlohmann::json object(const Finger& finger) {
  return {
      {"uid", finger.uid}, {"index", finger.index}, {"name", finger.name}, {"slots", finger.slots}};
}

nlohmann::json array(const std::vector<Finger>& fingers) {
  nlohmann::json all = nlohmann::json::array();
  for (const Finger& finger : fingers)
    all.push_back(object(finger));
  return all;
}

/// The index range that the options select; all when they select none.
IndexRange selected(const Options& options) {
  if (options.index) return {*options.index, *options.index};
  return options.range.value_or(IndexRange{});
}

/// The framework's words for the operation's result, as a sentence without its end.
std::string result_words(Client& client) {
  return bio_get_ops_result_mesg(&client.device());
}

/// A report of an operation that did not come to its answer.
Report unanswered(Client& client, Outcome outcome) {
  if (outcome == Outcome::TimedOut) return {outcome, "no finger came in time", "", {}};
  if (outcome == Outcome::Absent) return {outcome, "the module went away", "", {}};
  if (client.device().enable == 0)
    return {outcome, "the driver is disabled by its configuration", "", {}};
  return {outcome, result_words(client), "", {}};
}

bool answered(Outcome outcome) {
  return outcome == Outcome::Success || outcome == Outcome::NoMatch;
}

/// The index to enrol under: the one asked for, which must be free, or the lowest free one.
int enrol_index(Client& client, const std::vector<Finger>& stored) {
  const Options& options = client.options();
  if (!options.index) return bio_common_get_empty_index(&client.device(), options.uid, 0, -1);
  const auto same = std::ranges::find(stored, *options.index, &Finger::index);
  if (same != stored.end())
    throw Failure(Outcome::Refused,
                  "the index is taken by " + words(*same) + "; clean it first, or take another");
  return *options.index;
}

/// The index to verify: the one asked for, or the user's only one.
int verify_index(Client& client) {
  const Options& options = client.options();
  if (options.index) return *options.index;
  const auto stored = client.fingers(options.uid, 0, kNoUpperEnd);
  if (stored.empty())
    throw Failure(Outcome::Refused, user_words(options.uid) + " has no fingerprints; enrol one");
  if (stored.size() > 1)
    throw Failure(Outcome::Usage, user_words(options.uid) + " has several fingerprints; say which" +
                                      " with --index (see \"wrxctl list\")");
  return stored.front().index;
}

Report enrol_refusal(Client& client, Outcome outcome) {
  if (client.monitor().duplicate() && outcome == Outcome::Stopped)
    return {Outcome::Refused,
            fmt::format("this finger is enrolled for {} already", user_words(client.options().uid)),
            "",
            {{"reason", "duplicate"}}};
  if (client.monitor().full())
    return {Outcome::Refused, "there is no room for another fingerprint", "", {{"reason", "full"}}};
  return unanswered(client, outcome);
}

}  // namespace

Report enroll(Client& client) {
  const Options& options = client.options();
  const int index = enrol_index(client, client.fingers(options.uid, 0, kNoUpperEnd));
  std::string finger_name = options.finger_name;
  client.monitor().onDuplicate([&client] { client.requestStop(); });
  const std::string prompt =
      fmt::format("Enrolling finger {} (\"{}\") of {}: touch the sensor once, then {} times more.",
                  index, finger_name, user_words(options.uid), host::kEnrolStages);
  const Outcome outcome = client.operate(prompt, [&](bio_dev& device) {
    device.ops_enroll(&device, ACTION_START, options.uid, index, finger_name.data());
  });
  if (outcome != Outcome::Success) return enrol_refusal(client, outcome);
  const auto stored = client.fingers(options.uid, index, index);
  if (stored.empty()) throw Failure(Outcome::Failed, "the new fingerprint is not in the database");
  return {outcome, "Enrolled " + words(stored.front()) + ".", "", object(stored.front())};
}

Report verify(Client& client) {
  const Options& options = client.options();
  const int index = verify_index(client);
  const std::string prompt =
      fmt::format("Verifying finger {} of {}: touch the sensor.", index, user_words(options.uid));
  const Outcome outcome = client.operate(prompt, [&](bio_dev& device) {
    device.ops_verify(&device, ACTION_START, options.uid, index);
  });
  if (!answered(outcome)) return unanswered(client, outcome);
  return {outcome,
          result_words(client) + ".",
          "",
          {{"uid", options.uid}, {"index", index}, {"match", outcome == Outcome::Success}}};
}

Report identify(Client& client) {
  const Options& options = client.options();
  const IndexRange range = selected(options);
  int found = -1;
  const Outcome outcome = client.operate("Identifying: touch the sensor.", [&](bio_dev& device) {
    client.setDeadline(options.timeout_ms);  // the driver has no limit of its own here
    found = device.ops_identify(&device, ACTION_START, options.uid, range.first, range.last);
  });
  if (!answered(outcome)) return unanswered(client, outcome);
  if (outcome == Outcome::Success && found < 0)
    return {Outcome::NoMatch,
            "The module knows this finger, but none of the selected users has it.",
            "",
            {{"uid", nullptr}, {"known_to_module", true}}};
  if (outcome == Outcome::NoMatch)
    return {
        outcome, result_words(client) + ".", "", {{"uid", nullptr}, {"known_to_module", false}}};
  return {outcome,
          fmt::format("This is {}.", user_words(found)),
          "",
          {{"uid", found}, {"known_to_module", true}}};
}

Report search(Client& client) {
  const Options& options = client.options();
  const IndexRange range = selected(options);
  feature_info* list = nullptr;
  const Outcome outcome = client.operate("Searching: touch the sensor.", [&](bio_dev& device) {
    list = device.ops_search(&device, ACTION_START, options.uid, range.first, range.last);
  });
  const auto found = taken(list);
  if (!answered(outcome)) return unanswered(client, outcome);
  return {outcome, result_words(client) + ".", lines(found), {{"fingers", array(found)}}};
}

Report list(Client& client) {
  const Options& options = client.options();
  const IndexRange range = selected(options);
  feature_info* features = nullptr;
  const Outcome outcome = client.consult([&](bio_dev& device) {
    features =
        device.ops_get_feature_list(&device, ACTION_START, options.uid, range.first, range.last);
  });
  const auto fingers = taken(features);
  if (!answered(outcome)) return unanswered(client, outcome);
  return {outcome,
          fmt::format("{} fingerprint{} stored for {}.", fingers.size(),
                      fingers.size() == 1 ? "" : "s", user_words(options.uid)),
          lines(fingers),
          {{"fingers", array(fingers)}}};
}

Report clean(Client& client) {
  const Options& options = client.options();
  const IndexRange range = selected(options);
  const auto before = client.fingers(options.uid, range.first, range.last);
  const Outcome outcome = client.operate("", [&](bio_dev& device) {
    device.ops_clean(&device, ACTION_START, options.uid, range.first, range.last);
  });
  const auto left = client.fingers(options.uid, range.first, range.last);
  std::vector<Finger> removed;
  for (const Finger& finger : before)
    if (std::ranges::find(left, finger.index, &Finger::index) == left.end())
      removed.push_back(finger);
  Report report = unanswered(client, outcome);
  if (outcome == Outcome::Success)
    report.text = fmt::format("Deleted {} fingerprint{} of {}.", removed.size(),
                              removed.size() == 1 ? "" : "s", user_words(options.uid));
  report.body = lines(removed);
  report.data = {{"removed", array(removed)}, {"left", array(left)}};
  return report;
}

}  // namespace wrx::client
