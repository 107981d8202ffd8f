// SPDX-License-Identifier: LGPL-2.1-or-later
// Waits for a finger, enrolment, removal.

#include "host/service/reader/operations.h"

#include <thread>

#include "host/common/outcome.h"
#include "host/service/reader/enrol_watch.h"
#include "host/service/reader/records.h"

namespace wrx::service {
namespace {

using host::Failure;
using host::Outcome;

constexpr std::chrono::milliseconds kLookAgain{50};

/// The first of the found features that is what was searched for: this user's, under one of the ten
/// names. The list is freed.
int first_of_user(feature_info* list, int uid) {
  int finger = -1;
  for (const feature_info* info = list; info != nullptr && finger < 0; info = info->next)
    if (info->uid == uid && info->index >= 0 && info->index < kFingers) finger = info->index;
  bio_sto_free_feature_info_list(list);
  return finger;
}

bool is_stored(const bio_dev& device, int uid, int finger) {
  try {
    return !stored_indexes(device, uid, finger, finger).empty();
  } catch (const Refusal&) {
    return false;
  }
}

/// Closes the channel when a round ends, however it ends.
class Closing {
 public:
  explicit Closing(host::PluginHost& host) : host_(host) {}
  ~Closing() { host_.close(); }
  Closing(const Closing&) = delete;
  Closing& operator=(const Closing&) = delete;

 private:
  host::PluginHost& host_;
};

}  // namespace

bool Operations::discover() {
  return host_.discover() >= 1 && host_.device().enable != 0;
}

Outcome Operations::outcome() const {
  const bio_dev& device = host_.device();
  return host::outcome_of_result(bio_get_ops_result(&host_.device()), device.enable != 0);
}

bool Operations::open(const Job& job, Verdict& why_not) {
  for (;;) {
    try {
      host_.open();
      return true;
    } catch (const Failure& failure) {
      const bool absent = failure.outcome() == Outcome::Absent;
      why_not.ending = absent ? Ending::Disconnected : Ending::Refused;
      if (job.stopRequested()) why_not.ending = Ending::Stopped;
      if (!absent || job.stopRequested() || !returnExpected()) return false;
    }
    std::this_thread::sleep_for(kLookAgain);
  }
}

Verdict Operations::lost() {
  return {discover() ? Ending::Failed : Ending::Disconnected, -1};
}

void Operations::await(Job& job, const Round& round, const Tell& tell) {
  // The driver's time-out is not an answer to a client that waits for a finger.
  for (;;) {
    Verdict verdict;
    if (!store_readable()) return tell({Ending::Failed, -1});
    if (!open(job, verdict)) return tell(verdict);
    {
      const Closing closing(host_);
      if (job.stopRequested()) return tell({Ending::Stopped, -1});
      verdict = round();
      const Outcome ended = outcome();
      if (ended == Outcome::Success || ended == Outcome::NoMatch) return tell(verdict);
      if (job.stopRequested() || ended == Outcome::Stopped) return tell({Ending::Stopped, -1});
      if (ended == Outcome::TimedOut) continue;
      if (ended == Outcome::Absent) return tell({Ending::Disconnected, -1});
    }
    return tell(lost());
  }
}

void Operations::verify(Job& job, int uid, int finger, const Tell& tell) {
  const auto round = [&]() -> Verdict {
    bio_dev& device = host_.device();
    device.ops_verify(&device, ACTION_START, uid, finger);
    if (bio_get_ops_result(&device) != OPS_VERIFY_MATCH) return {Ending::NoMatch, -1};
    return {Ending::Match, -1};
  };
  await(job, round, tell);
}

void Operations::search(Job& job, int uid, const Tell& tell) {
  const auto round = [&]() -> Verdict {
    bio_dev& device = host_.device();
    // The records decide, not the result word.
    const int finger =
        first_of_user(device.ops_search(&device, ACTION_START, uid, 0, kFingers - 1), uid);
    return {finger >= 0 ? Ending::Match : Ending::NoMatch, finger};
  };
  await(job, round, tell);
}

void Operations::enrol(Job& job, int uid, int finger, const std::function<void(Press)>& pressed,
                       const Tell& tell) {
  bio_dev& device = host_.device();
  for (;;) {
    Verdict verdict;
    if (!store_readable()) return tell({Ending::Failed, -1});
    if (!open(job, verdict)) return tell(verdict);
    EnrolWatch watch(
        pressed, [&job] { job.stop(); }, [this] { return host_.unanswered(); });
    {
      const Closing closing(host_);
      if (job.stopRequested()) return tell({Ending::Stopped, -1});
      std::string name = finger_name(finger);
      events_.during(watch.listener(),
                     [&] { device.ops_enroll(&device, ACTION_START, uid, finger, name.data()); });
      const Outcome ended = outcome();
      // Presses that were taken are lost with the module's memory of them; before the first one
      // the wait can go on unnoticed.
      if (ended == Outcome::TimedOut && watch.taken() == 0 && !job.stopRequested()) continue;
      verdict.ending = watch.ending(ended, [&] { return is_stored(device, uid, finger); });
      if (verdict.ending == Ending::Enrolled) watch.complete();
      if (verdict.ending != Ending::Failed && verdict.ending != Ending::Full) return tell(verdict);
    }
    // Of a module that was pulled out the driver says that it is full.
    if (verdict.ending == Ending::Full)
      return tell(discover() ? verdict : Verdict{Ending::Disconnected, -1});
    return tell(lost());
  }
}

Removal Operations::remove(int uid, int first, int last) {
  bio_dev& device = host_.device();
  if (!store_readable()) return Removal::StoreFailed;
  try {
    const host::OpenDevice opened(host_);
    if (device.ops_clean(&device, ACTION_START, uid, first, last) != 0)
      return Removal::ModuleFailed;
    return stored_indexes(device, uid, first, last).empty() ? Removal::Done : Removal::StoreFailed;
  } catch (const Failure&) {
    return Removal::ModuleFailed;
  } catch (const Refusal&) {
    return Removal::StoreFailed;
  }
}

}  // namespace wrx::service
