// SPDX-License-Identifier: LGPL-2.1-or-later
// Claims and the waits under them.

#include "host/service/reader/reader.h"

#include <algorithm>
#include <utility>

#include "host/service/reader/records.h"

namespace wrx::service {

// ---- claims -------------------------------------------------------------------------------------

void Reader::requireNoOther(const std::string& client) const {
  if (claim_ && claim_->client != client)
    throw Refusal(Error::AlreadyInUse, "another program is using the fingerprint reader");
}

const Reader::Claim& Reader::claimOf(const std::string& client) const {
  requireNoOther(client);
  if (!claim_) throw Refusal(Error::ClaimDevice, "the fingerprint reader was not claimed");
  return *claim_;
}

int Reader::claimedFor(const std::string& client) const {
  return claimOf(client).uid;
}

void Reader::requireFree() const {
  if (claim_) throw Refusal(Error::AlreadyInUse, "the fingerprint reader is claimed already");
}

void Reader::claim(const std::string& client, int uid) {
  requireFree();
  claim_ = {client, uid};
  if (claim_changed_) claim_changed_();
}

void Reader::release(const std::string& client, const Reply& reply) {
  claimOf(client);
  endClaim(reply);
}

void Reader::endClaim(const Reply& reply) {
  claim_.reset();
  if (const ActionRef action = std::exchange(action_, {})) {
    drop(action, reply);
  } else {
    reply(nullptr);
  }
  if (claim_changed_) claim_changed_();
}

void Reader::leave(const std::string& client) {
  if (claim_ && claim_->client == client) endClaim([](const Refusal*) {});
}

// ---- waits for a finger -------------------------------------------------------------------------

void Reader::requireQuiet() const {
  if (action_) throw Refusal(Error::AlreadyInUse, "an operation is going on; stop it first");
}

Reader::ActionRef Reader::begin(Use use) {
  action_ = std::make_shared<Action>();
  action_->use = use;
  return action_;
}

void Reader::run(const ActionRef& action, Job::Work work) {
  setFingerNeeded(true);
  action->job = module_.begin(std::move(work), [this, action] { ended(action); });
}

/// From the module's thread.
void Reader::answerLater(const ActionRef& action, const Verdict& verdict) {
  loop_.post([this, action, verdict] { answer(action, verdict); });
}

void Reader::verify(const std::string& client, const std::string& finger) {
  const int uid = claimOf(client).uid;
  requireQuiet();
  const auto index = finger_index(finger);
  if (!index && finger != kAnyFinger && !finger.empty())
    throw Refusal(Error::InvalidFingername, "there is no finger \"" + finger + "\"");
  const int first = index.value_or(0);
  const int last = index.value_or(kFingers - 1);
  if (stored_indexes(device_, uid, first, last).empty())
    throw Refusal(Error::NoEnrolledPrints, "no such finger is enrolled");
  const ActionRef action = begin(Use::Verify);
  // Signals come after the answer to the call.
  loop_.post([this, action, name = index ? finger : kAnyFinger] {
    if (!action->answered && listener_ != nullptr) listener_->fingerSelected(name);
  });
  run(action, [this, action, uid, index](Job& job) {
    const Tell tell = [this, action](const Verdict& verdict) { answerLater(action, verdict); };
    if (index) {
      operations_.verify(job, uid, *index, tell);
    } else {
      operations_.search(job, uid, tell);
    }
  });
}

void Reader::enrol(const std::string& client, const std::string& finger) {
  const int uid = claimOf(client).uid;
  requireQuiet();
  const auto index = finger_index(finger);
  if (!index) throw Refusal(Error::InvalidFingername, "there is no finger \"" + finger + "\"");
  const bool taken = !stored_indexes(device_, uid, *index, *index).empty();
  const ActionRef action = begin(Use::Enrol);
  if (taken) {
    action->ended = true;
    return loop_.post([this, action] { answer(action, {Ending::Duplicate, -1}); });
  }
  run(action, [this, action, uid, index = *index](Job& job) {
    const auto tell_press = [this, action](Press press) {
      loop_.post([this, action, press] { pressed(action, press); });
    };
    operations_.enrol(job, uid, index, tell_press,
                      [this, action](const Verdict& verdict) { answerLater(action, verdict); });
  });
}

void Reader::stop(const std::string& client, Use use, const Reply& reply) {
  claimOf(client);
  if (!action_ || action_->use != use)
    throw Refusal(Error::NoActionInProgress, "there is nothing to stop");
  drop(ActionRef(action_), reply);  // its own reference: the end of it lets go of action_
}

/// Ends a wait in which its client has lost interest; `reply` is called once it has ended.
void Reader::drop(const ActionRef& action, const Reply& reply) {
  action->answered = true;
  setFingerNeeded(false);
  action->stops.push_back(reply);
  if (action->ended) return ended(action);
  action->job->stop();
}

void Reader::ended(const ActionRef& action) {
  action->ended = true;
  if (action->stops.empty()) return;
  if (action_ == action) action_.reset();
  for (const Reply& reply : std::exchange(action->stops, {}))
    reply(nullptr);
}

void Reader::answer(const ActionRef& action, const Verdict& verdict) {
  if (action->answered) return;
  action->answered = true;
  if (verdict.ending == Ending::Match || verdict.ending == Ending::NoMatch) touch();
  setFingerNeeded(false);
  if (listener_ == nullptr) return;
  // A wait that ended by a stop that its client did not ask for ended by a fault of ours.
  const Ending ending = verdict.ending == Ending::Stopped ? Ending::Failed : verdict.ending;
  if (action->use == Use::Enrol) return listener_->enrollStatus(enroll_word(ending), true);
  if (verdict.finger >= 0) listener_->fingerSelected(finger_name(verdict.finger));
  listener_->verifyStatus(verify_word(ending), true);
}

void Reader::pressed(const ActionRef& action, Press press) {
  if (action->answered) return;
  touch();
  if (listener_ != nullptr) listener_->enrollStatus(press_word(press), false);
}

// ---- removal ------------------------------------------------------------------------------------

void Reader::remove(const std::string& client, int uid, int first, int last, const Reply& reply) {
  requireNoOther(client);
  requireQuiet();
  if (stored_indexes(device_, uid, first, last).empty())
    throw Refusal(Error::NoEnrolledPrints, "no such finger is enrolled");
  const auto result = std::make_shared<Removal>(Removal::ModuleFailed);
  module_.begin(
      [this, uid, first, last, result](Job&) { *result = operations_.remove(uid, first, last); },
      [result, reply] {
        const Refusal from_store(Error::PrintsNotDeleted, "the database refused the deletion");
        const Refusal from_module(Error::PrintsNotDeletedFromDevice,
                                  "the fingerprint reader refused the deletion");
        switch (*result) {
          case Removal::Done:
            return reply(nullptr);
          case Removal::StoreFailed:
            return reply(&from_store);
          case Removal::ModuleFailed:
            return reply(&from_module);
        }
      });
}

// ---- the world outside --------------------------------------------------------------------------

void Reader::vanish() {
  if (action_ && !action_->answered) answer(action_, {Ending::Disconnected, -1});
  endClaim([](const Refusal*) {});
}

void Reader::sleep(EventLoop::Action quiet) {
  if (action_ && !action_->answered) {
    answer(action_, {Ending::Failed, -1});
    if (action_->job) action_->job->stop();
  }
  module_.hold(std::move(quiet));
}

void Reader::setFingerNeeded(bool needed) {
  if (needed == finger_needed_) return;
  finger_needed_ = needed;
  if (listener_ != nullptr) listener_->fingerNeededChanged();
}

/// The module reports a touch once it has read the finger; that the finger is lifted, never.
void Reader::touch() {
  for (const bool present : {true, false}) {
    finger_present_ = present;
    if (listener_ != nullptr) listener_->fingerPresentChanged();
  }
}

}  // namespace wrx::service
