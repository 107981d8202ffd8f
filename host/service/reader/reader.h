// SPDX-License-Identifier: LGPL-2.1-or-later
// The fingerprint reader as clients share it: who has claimed it for which user, what runs under
// the claim, and who is told what came of it. It knows users and fingers, and nothing of the bus
// but its clients' names. All of it lives on the loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/service/reader/module_thread.h"
#include "host/service/reader/operations.h"
#include "host/service/reader/words.h"

namespace wrx::service {

/// What the reader tells its clients by signals and properties.
class ReaderListener {
 public:
  virtual ~ReaderListener() = default;
  /// A wait has begun for this finger, or found it.
  virtual void fingerSelected(const std::string& name) = 0;
  /// How a comparison ended.
  virtual void verifyStatus(const std::string& word, bool done) = 0;
  /// What became of a press, or (done) of the enrolment.
  virtual void enrollStatus(const std::string& word, bool done) = 0;
  /// The reader waits for a finger, or does no more.
  virtual void fingerNeededChanged() = 0;
  /// A finger has come or gone.
  virtual void fingerPresentChanged() = 0;
};

/// Called once: with null when the call succeeded, else with the reason why not.
using Reply = std::function<void(const Refusal*)>;

/// What a claim is being used for.
enum class Use { Verify, Enrol };

class Reader {
 public:
  Reader(EventLoop& loop, ModuleThread& module, Operations& operations, const bio_dev& device)
      : loop_(loop), module_(module), operations_(operations), device_(device) {}
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  /// Who is told; null while there is no object on the bus.
  void setListener(ReaderListener* listener) { listener_ = listener; }
  /// Called after every claim and every end of one.
  void onClaimChanged(EventLoop::Action changed) { claim_changed_ = std::move(changed); }

  const bio_dev& device() const { return device_; }
  bool claimed() const { return claim_.has_value(); }
  bool fingerNeeded() const { return finger_needed_; }
  bool fingerPresent() const { return finger_present_; }

  // The calls of a client throw Refusal; one with a Reply answers when the module is quiet.

  /// Refuses while anybody has the claim.
  void requireFree() const;
  /// Reserves the reader for the client, to act for user `uid`.
  void claim(const std::string& client, int uid);
  /// Ends the client's claim with whatever runs under it.
  void release(const std::string& client, const Reply& reply);
  /// The user of the client's claim.
  int claimedFor(const std::string& client) const;
  /// Refuses while another client has the claim.
  void requireNoOther(const std::string& client) const;
  /// Waits for the finger named so ("any": one of the user's).
  void verify(const std::string& client, const std::string& finger);
  /// Takes a new finger under that name; one that has a record is answered as a duplicate.
  void enrol(const std::string& client, const std::string& finger);
  /// Ends the running wait, answered or not.
  void stop(const std::string& client, Use use, const Reply& reply);
  /// Deletes fingers of `uid`, from `first` to `last` (-1: no upper end).
  void remove(const std::string& client, int uid, int first, int last, const Reply& reply);

  // What happens to clients from outside.

  /// The client left the bus: its claim ends with whatever ran under it.
  void leave(const std::string& client);
  /// The module is gone: the claim ends, the client is told.
  void vanish();
  /// The running wait is answered and the channel closed; `quiet` is called then. Until wake()
  /// nothing is begun.
  void sleep(EventLoop::Action quiet);
  void wake() { module_.proceed(); }

 private:
  struct Claim {
    std::string client;
    int uid;
  };
  /// One wait for a finger, from its start to the client's stop.
  struct Action {
    Use use;
    std::shared_ptr<Job> job;
    bool answered = false;  ///< the last word was said, or nobody wants it any more
    bool ended = false;     ///< the module's thread is done with it
    std::vector<Reply> stops;
  };
  using ActionRef = std::shared_ptr<Action>;

  const Claim& claimOf(const std::string& client) const;
  void requireQuiet() const;
  ActionRef begin(Use use);
  void run(const ActionRef& action, Job::Work work);
  void answerLater(const ActionRef& action, const Verdict& verdict);
  void answer(const ActionRef& action, const Verdict& verdict);
  void pressed(const ActionRef& action, Press press);
  void ended(const ActionRef& action);
  void drop(const ActionRef& action, const Reply& reply);
  void endClaim(const Reply& reply);
  void setFingerNeeded(bool needed);
  void touch();

  EventLoop& loop_;
  ModuleThread& module_;
  Operations& operations_;
  const bio_dev& device_;
  ReaderListener* listener_ = nullptr;
  EventLoop::Action claim_changed_;
  std::optional<Claim> claim_;
  ActionRef action_;
  bool finger_needed_ = false;
  bool finger_present_ = false;
};

}  // namespace wrx::service
