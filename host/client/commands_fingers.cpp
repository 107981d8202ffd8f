// SPDX-License-Identifier: LGPL-2.1-or-later
// Commands about fingers: enroll, verify, identify, search, list, clean.

#include <algorithm>

#include "commands.h"
#include "fingers.h"
#include "host/common/driver_texts.h"
#include "records/fp_device_param.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Failure;
using host::Outcome;

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
  if (outcome == Outcome::TimedOut) return {outcome, tr("no finger came in time"), "", {}};
  if (outcome == Outcome::Absent) return {outcome, tr("the module went away"), "", {}};
  if (client.device().enable == 0)
    return {outcome, tr("the driver is disabled by its configuration"), "", {}};
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
                  tr("the index is taken by {}; clean it first, or take another", words(*same)));
  return *options.index;
}

/// The index to verify: the one asked for, or the user's only one.
int verify_index(Client& client) {
  const Options& options = client.options();
  if (options.index) return *options.index;
  const auto stored = client.fingers(options.uid, 0, kNoUpperEnd);
  if (stored.empty())
    throw Failure(Outcome::Refused,
                  tr("{} has no fingerprints; enrol one", user_words(options.uid)));
  if (stored.size() > 1)
    throw Failure(Outcome::Usage,
                  tr("{} has several fingerprints; say which with --index (see \"wrxctl list\")",
                     user_words(options.uid)));
  return stored.front().index;
}

Report enrol_refusal(Client& client, Outcome outcome) {
  if (client.monitor().duplicate() && outcome == Outcome::Stopped)
    return {Outcome::Refused,
            tr("this finger is enrolled for {} already", user_words(client.options().uid)),
            "",
            {{"reason", "duplicate"}}};
  if (client.monitor().full() && outcome == Outcome::Refused)
    return {
        Outcome::Refused, tr("there is no room for another fingerprint"), "", {{"reason", "full"}}};
  if (client.monitor().silent() && outcome == Outcome::Refused)
    return {Outcome::Failed, tr("the module did not answer"), "", {}};
  return unanswered(client, outcome);
}

}  // namespace

Report enroll(Client& client) {
  const Options& options = client.options();
  const int index = enrol_index(client, client.fingers(options.uid, 0, kNoUpperEnd));
  std::string finger_name = options.finger_name;
  client.monitor().onDuplicate([&client] { client.requestStop(); });
  client.monitor().askUnanswered([&client] { return client.plugin().unanswered(); });
  const std::string prompt =
      tr("Enrolling finger {} (\"{}\") of {}: touch the sensor once, then {} times more.", index,
         finger_name, user_words(options.uid), host::kEnrolStages);
  const Outcome outcome = client.operate(prompt, [&](bio_dev& device) {
    device.ops_enroll(&device, ACTION_START, options.uid, index, finger_name.data());
  });
  if (outcome != Outcome::Success) return enrol_refusal(client, outcome);
  const auto stored = client.fingers(options.uid, index, index);
  if (stored.empty())
    throw Failure(Outcome::Failed, tr("the new fingerprint is not in the database"));
  return {outcome, tr("Enrolled {}.", words(stored.front())), "", object(stored.front())};
}

Report verify(Client& client) {
  const Options& options = client.options();
  const int index = verify_index(client);
  const std::string prompt =
      tr("Verifying finger {} of {}: touch the sensor.", index, user_words(options.uid));
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
  const Outcome outcome =
      client.operate(tr("Identifying: touch the sensor."), [&](bio_dev& device) {
        client.setDeadline(options.timeout_ms);  // the driver has no limit of its own here
        found = device.ops_identify(&device, ACTION_START, options.uid, range.first, range.last);
      });
  if (!answered(outcome)) return unanswered(client, outcome);
  if (outcome == Outcome::Success && found < 0)
    return {Outcome::NoMatch,
            tr("The module knows this finger, but none of the selected users has it."),
            "",
            {{"uid", nullptr}, {"known_to_module", true}}};
  if (outcome == Outcome::NoMatch)
    return {
        outcome, result_words(client) + ".", "", {{"uid", nullptr}, {"known_to_module", false}}};
  return {outcome,
          tr("This is {}.", user_words(found)),
          "",
          {{"uid", found}, {"known_to_module", true}}};
}

/// Of what the driver found, what holds a slot that the module matched, each once: it reads a match
/// again by its index, and gives the fingers that other users have under that index as well.
std::vector<Finger> matched(const host::PluginHost& plugin, const std::vector<Finger>& found) {
  const auto& seen =
      plugin.function<FP_DEVICE_PARAM_STRUCT>("fp_device_param")->auto_identify_param.search_id;
  std::vector<Finger> result;
  for (const Finger& finger : found) {
    const auto same = [&](const Finger& other) {
      return other.uid == finger.uid && other.index == finger.index;
    };
    if (std::ranges::find_first_of(finger.slots, seen) != finger.slots.end() &&
        std::ranges::none_of(result, same))
      result.push_back(finger);
  }
  return result;
}

Report search(Client& client) {
  const Options& options = client.options();
  const IndexRange range = selected(options);
  feature_info* list = nullptr;
  const Outcome outcome = client.operate(tr("Searching: touch the sensor."), [&](bio_dev& device) {
    list = device.ops_search(&device, ACTION_START, options.uid, range.first, range.last);
  });
  const auto found = matched(client.plugin(), taken(list));
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
          tr_n("{} fingerprint stored for {}.", "{} fingerprints stored for {}.", fingers.size(),
               fingers.size(), user_words(options.uid)),
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
    report.text = tr_n("Deleted {} fingerprint of {}.", "Deleted {} fingerprints of {}.",
                       removed.size(), removed.size(), user_words(options.uid));
  report.body = lines(removed);
  report.data = {{"removed", array(removed)}, {"left", array(left)}};
  return report;
}

}  // namespace wrx::client
