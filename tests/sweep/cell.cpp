// SPDX-License-Identifier: LGPL-2.1-or-later
// Running a cell and judging it.
#include "sweep/cell.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>

#include "base/stop_flags.h"
#include "protocol/packet.h"
#include "upgrade/upgrade_support.h"

namespace sweep {
namespace {

using wrx_module::EmptyRead;
using wrx_test::Rig;
using wrx_test::Stored;

constexpr int64_t kReadLimitMs = 1000;
// What one fault may add: its own transfer's limit, and a read that waits because of it.
constexpr int64_t kFaultMs = 2 * kReadLimitMs;
constexpr int64_t kSettleUs = 2'000'000;  // for a module that is between two identities
constexpr int kVerifies = 3;
constexpr char kFingerComes[] = "at 1500ms; press thumb";  // once the driver waits for it
constexpr int32_t kMostSwallowed = 65533;  // what a length field can make the parser wait for

wrx_module::Settings module_of(const Cell& cell) {
  wrx_module::Settings settings;
  settings.link.empty_read = cell.setting.empty;
  settings.usb.packet_size = cell.setting.packet;
  if (cell.operation->settings != nullptr) cell.operation->settings(settings);
  return settings;
}

std::string words_text(const Words& words) {
  return fmt::format("result {} with notification {}", words.first, words.second);
}

/// What the driver prints is dropped, unless somebody wants the trace.
class Silence {
 public:
  Silence(std::FILE*& stream, bool silent) : stream_(stream), kept_(stream) {
    static std::FILE* const nowhere = std::fopen("/dev/null", "w");
    if (silent) stream_ = nowhere;
  }
  ~Silence() { stream_ = kept_; }

 private:
  std::FILE*& stream_;
  std::FILE* kept_;
};

// The database as its bytes tell: most cells leave it as it was.
const std::vector<Stored>& stored_by(Rig& rig) {
  static std::map<std::string, std::vector<Stored>> known;
  const std::string bytes = rig.read_file("feature.db");
  const auto found = known.find(bytes);
  if (found != known.end()) return found->second;
  if (known.size() > 100) known.clear();
  return known[bytes] = rig.stored();
}

/// The world of a cell: three fingers of a user, stored on both sides.
class World {
 public:
  World(const Cell& cell, bool traced)
      : rig(module_of(cell)), silence_(stdout, !traced), cell_(cell) {
    wrx_module::bus().set_trace({});
    if (!traced) rig.clock.on_sleep = {};
    stock(rig);
    cell.operation->before(rig);
    rig.trace.clear();
    wrx_module::bus().faults().clear();
    if (traced || cell.setting.stop) watch(traced);
  }
  ~World() { wrx_module::bus().faults().on_strike = {}; }

  /// Runs the operation with its faults.
  void run() {
    const Silence silence(stderr, true);
    set_faults();
    set_rescue();
    outcome.ms = rig.time_of([&] { outcome.returned = cell_.operation->run(rig); });
    outcome.words = {rig.result(), rig.notification()};
    judge_bound();
    judge_strikes();
  }
  void judge_end() {
    if (rig.status() != DEVS_COMM_IDLE) fail(Check::status, fmt::format("status {}", rig.status()));
    const auto& allowed = cell_.operation->family.words;
    if (std::ranges::find(allowed, outcome.words) == allowed.end())
      fail(Check::words, words_text(outcome.words));
  }
  void judge_stop() {
    const int since = wrx_module::bus().faults().count() - stopped_at_;
    rig.clock.join();
    const int32_t flag = rig.info().ctrlFlag;
    const int result = outcome.words.first;
    const Family& family = cell_.operation->family;
    outcome.state += "handshake " + std::to_string(flag);
    const bool answered = flag == kStopAcknowledged;
    std::string what;
    if (!cell_.setting.stop) {
      if (flag != 0 && !(answered && result == OPS_COMM_STOP_BY_USER))
        what = "handshake " + std::to_string(flag) + " without a stop, ";
    } else if (flag == 0) {
      what = "idle, ";
    } else if (answered) {
      if (result != OPS_COMM_STOP_BY_USER && result != OPS_ENROLL_FAIL)
        what = "acknowledged late, ";
    } else if (family.stop != Stop::unheard && result != OPS_ENROLL_FAIL &&
               since > family.transfers_to_end) {
      what = "ignored for " + std::to_string(since) + " transfers, ";
    } else {
      what = "not acknowledged, ";
    }
    if (!what.empty()) fail(Check::stop, what + words_text(outcome.words));
  }
  void judge_slots() {
    const auto& templates = rig.device.memory().templates;
    std::set<int> seen;
    for (const Stored& record : stored_by(rig)) {
      const int slot = record.slots.empty() ? -1 : record.slots.front();
      const auto found = templates.find(static_cast<uint16_t>(slot));
      std::string what = fmt::format("record {} and slot {}", record.index, slot);
      outcome.state += fmt::format("; {} in {}", record.index, slot);
      const bool own = record.uid == Rig::kUser;
      if (found == templates.end()) {
        what += ": empty, ";
      } else if (!seen.insert(slot).second || (own && found->second != finger_of(record.index))) {
        what += ": " + found->second + ", ";
      } else {
        continue;
      }
      fail(Check::slots, what + words_text(outcome.words));
    }
  }
  void judge_after() {
    settle();
    rig.info().timeoutMS = kFingerMs;
    rig.close();
    if (rig.open() != 0) return fail(Check::after, "cannot be opened");
    int tries = 1;
    while (!verify_works() && tries <= kVerifies)
      ++tries;
    std::string what = "verify works at attempt " + std::to_string(tries);
    if (tries > kVerifies) {
      // Is it the parser that waits for the rest of a packet?
      const std::vector<uint8_t> rest(kMostSwallowed + 2);
      fp_parse_prot(rest.data(), kMostSwallowed + 2);
      what = verify_works() ? "verify works after a packet of the greatest length"
                            : "no verify works, result " + std::to_string(rig.result());
    }
    outcome.state += "; " + what;
    if (tries > 1) fail(Check::after, what + ", " + words_text(outcome.words));
  }

  Rig rig;
  Outcome outcome;  ///< filed in it is every failure

 private:
  // After the transfer in whose moment a stop is due, everybody waits until it is in force.
  void watch(bool traced) {
    wrx_module::bus().set_trace([this, traced, given = false](const auto& record) mutable {
      if (traced) rig.trace.usb(record);
      if (given || stopped_at_ == 0) return;
      given = true;
      rig.clock.sleep_us(1);
    });
  }
  void set_faults() {
    wrx_module::FaultPlan& plan = wrx_module::bus().faults();
    for (const Strike& strike : cell_.strikes()) {
      if (strike.fault->call) {
        wrx_module::bus().refuse(*strike.fault->call, strike.fault->rc);
      } else {
        plan.add({strike.transfer, strike.fault->kind, strike.fault->value});
      }
    }
    if (!cell_.setting.stop) return;
    plan.on_strike = [this] {
      if (stopped_at_ != 0) return;
      stopped_at_ = cell_.strikes().front().transfer;
      rig.stop_at(0);
    };
  }
  // What ends a wait that has no end of its own: the cable is pulled, then the user stops. A stop
  // that was given already spares the wait for a finger.
  void set_rescue() {
    const Family& family = cell_.operation->family;
    const auto strikes = cell_.strikes();
    const int64_t read_ms = cell_.setting.empty == EmptyRead::times_out ? kReadLimitMs : 0;
    const int64_t finger_ms = cell_.setting.stop ? 0 : kFingerMs;
    const Waits& bound = family.bound;
    bound_ms_ = bound.ms + bound.reads * read_ms + bound.fingers * finger_ms +
                kFaultMs * static_cast<int64_t>(strikes.size());
    endless_ = std::ranges::any_of(
        strikes, [](const Strike& s) { return s.fault->name == "never" && unlimited(s.role); });
    if (endless_) rig.play("at " + std::to_string(bound_ms_) + "ms; unplug");
    if (family.stop != Stop::only_end || cell_.setting.stop) return;
    rig.stop_at(bound_ms_ * (endless_ ? 2 : 1));
  }
  // An operation that had to be rescued has its bound anew from there on.
  void judge_bound() {
    if (outcome.ms < bound_ms_ || (outcome.ms == bound_ms_ && !endless_)) return;
    const bool only_stop = cell_.operation->family.stop == Stop::only_end;
    const bool stopped = only_stop && outcome.words.first == OPS_COMM_STOP_BY_USER;
    std::string what = fmt::format("{} ms, its waits allow {}", outcome.ms, bound_ms_);
    if (endless_ && outcome.ms <= bound_ms_ * (only_stop ? 3 : 2)) what = "ended by the unplug";
    if (!endless_ && stopped && outcome.ms <= bound_ms_ * 2) what = "ended by a stop";
    fail(Check::bound, what);
  }
  void judge_strikes() {
    const auto struck = wrx_module::bus().faults().struck();
    size_t next = 0;
    for (const Strike& strike : cell_.strikes()) {
      const bool hit = strike.fault->call
                           ? wrx_module::bus().refusal(*strike.fault->call) == 0
                           : next < struck.size() && struck[next].at == strike.transfer;
      if (!strike.fault->call) ++next;
      if (hit) continue;
      fail(Check::strike, std::string(strike.fault->name) + " at " +
                              std::to_string(strike.transfer) + " did not strike");
    }
  }
  // Whatever the faults did to the module, it is on the bus again, by the world's hand.
  void settle() {
    const Leaves& leaves = cell_.operation->leaves;
    wrx_module::bus().faults().clear();
    wrx_module::bus().faults().on_strike = {};
    rig.device.sensor().clear_queue();
    rig.device.lift();
    rig.device.settings().power_up.outcome = wrx_module::PowerUpOutcome::none;
    if (leaves.needs_start || leaves.needs_power) rig.clock.sleep_us(kSettleUs);
    if (leaves.needs_power) rig.device.cut_power();
    rig.device.plug();
    if (!leaves.needs_start) return;
    rig.configure();
    rig.driver_init();
    rig.clock.sleep_us(kSettleUs);
  }
  bool verify_works() {
    const bool erased = cell_.operation->leaves.erases && rig.slots().empty();
    rig.play(kFingerComes);
    const int result = erased ? OPS_VERIFY_NO_MATCH : OPS_VERIFY_MATCH;
    if (rig.verify() == 0 && rig.result() == result) return true;
    rig.device.lift();
    return false;
  }
  void fail(Check check, const std::string& what) { outcome.failures.push_back({check, what}); }

  Silence silence_;
  const Cell& cell_;
  int64_t bound_ms_ = 0;
  bool endless_ = false;  // an unplug alone ends a write
  int stopped_at_ = 0;    // transfer
};

// A vain read is three transfers, or one that fails at once.
void mark_waits(const std::vector<wrx_module::TraceRecord>& seen,
                std::vector<Transfer>& transfers) {
  const auto alike = [](const wrx_module::TraceRecord& a, const wrx_module::TraceRecord& b) {
    return a.endpoint == b.endpoint && a.rc == b.rc && a.bytes == b.bytes;
  };
  for (const size_t period : {size_t{1}, size_t{3}}) {
    std::vector<size_t> same(seen.size());  // so many in a row are as they were a period before
    for (size_t i = period; i < seen.size(); ++i)
      same[i] = alike(seen[i], seen[i - period]) ? same[i - 1] + 1 : 0;
    const size_t ends = 5 * period;
    for (size_t i = 0; i + ends < seen.size(); ++i)
      transfers[i].waiting |= same[i] >= ends && same[i + ends] == same[i] + ends;
  }
}

}  // namespace

std::string_view check_name(Check check) {
  constexpr std::string_view kNames[] = {"strike", "bound", "status", "words",
                                         "stop",   "slots", "after"};
  return kNames[static_cast<size_t>(check)];
}

std::vector<Transfer> transfers_of(const Cell& cell) {
  World world(cell, false);
  std::vector<wrx_module::TraceRecord> seen;
  wrx_module::bus().set_trace([&seen](const wrx_module::TraceRecord& record) {
    const bool bulk =
        record.kind == wrx_module::TraceKind::in || record.kind == wrx_module::TraceKind::out;
    if (bulk) seen.push_back(record);
  });
  world.run();
  wrx_module::bus().set_trace({});
  std::vector<Transfer> transfers(seen.size());
  std::ranges::transform(seen, transfers.begin(),
                         [](const auto& record) { return Transfer{role_of(record)}; });
  mark_waits(seen, transfers);
  return transfers;
}

Outcome run(const Cell& cell, bool traced) {
  World world(cell, traced);
  world.run();
  world.judge_end();
  world.judge_stop();
  if (traced) world.outcome.trace = world.rig.trace.lines();
  world.judge_slots();
  world.judge_after();
  return world.outcome;
}

}  // namespace sweep
