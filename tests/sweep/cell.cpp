// SPDX-License-Identifier: LGPL-2.1-or-later
// Running a cell and judging it.
#include "sweep/cell.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <sstream>

#include "stop_flags.h"
#include "upgrade_support.h"

namespace sweep {
namespace {

using wrx_module::EmptyRead;
using wrx_test::Rig;
using wrx_test::Stored;

constexpr int64_t kReadLimitMs = 1000;
// What one fault may add: its own transfer's limit, and a read that waits because of it.
constexpr int64_t kFaultMs = 2 * kReadLimitMs;
constexpr int64_t kSettleUs = 2'000'000;  // for a module that is between two identities
constexpr int kVerifies = 400;

wrx_module::Settings module_of(const Cell& cell) {
  wrx_module::Settings settings;
  settings.link.empty_read = cell.setting.empty;
  settings.usb.packet_size = cell.setting.packet;
  if (cell.operation->settings != nullptr) cell.operation->settings(settings);
  return settings;
}

/// What the driver prints is dropped, unless somebody wants the trace.
class Silence {
 public:
  explicit Silence(bool silent) : kept_(stdout) {
    static std::FILE* const nowhere = std::fopen("/dev/null", "w");
    if (silent) stdout = nowhere;
  }
  ~Silence() { stdout = kept_; }

 private:
  std::FILE* kept_;
};

/// The world of a cell: three fingers of a user, stored on both sides.
class World {
 public:
  World(const Cell& cell, bool traced) : rig(module_of(cell)), silence_(!traced), cell_(cell) {
    if (!traced) {
      wrx_module::bus().set_trace({});
      rig.clock.on_sleep = {};
    }
    stock(rig);
    cell.operation->before(rig);
    rig.trace.clear();
    wrx_module::bus().faults().clear();
  }
  ~World() { wrx_module::bus().faults().on_strike = {}; }

  /// Runs the operation with its faults; every failure is filed in `outcome`.
  void run(Outcome& outcome);
  void judge_end(Outcome& outcome);
  void judge_stop(Outcome& outcome);
  void judge_slots(Outcome& outcome);
  void judge_after(Outcome& outcome);

  Rig rig;

 private:
  void set_faults();
  void set_rescue(int64_t bound_ms);
  void settle();
  bool verify_works();

  Silence silence_;
  const Cell& cell_;
};

void World::set_faults() {
  wrx_module::FaultPlan& plan = wrx_module::bus().faults();
  for (const Strike& strike : cell_.strikes) {
    if (strike.fault->call) {
      wrx_module::bus().refuse(*strike.fault->call, strike.fault->rc);
    } else {
      plan.add({strike.transfer, strike.fault->kind, strike.fault->value});
    }
  }
  plan.on_strike = [this, asked = false]() mutable {
    if (cell_.setting.stop && !asked) rig.stop_at(0);
    asked = true;
  };
}

// What ends a wait that has no end of its own: the cable is pulled, then the user stops.
void World::set_rescue(int64_t bound_ms) {
  const bool endless = std::any_of(cell_.strikes.begin(), cell_.strikes.end(), [](const Strike& s) {
    return s.fault->name == "never" && unlimited(s.role);
  });
  if (endless) rig.play("at " + std::to_string(bound_ms) + "ms; unplug");
  if (cell_.operation->stop == Stop::only_end) rig.stop_at(bound_ms * (endless ? 2 : 1));
}

void World::run(Outcome& outcome) {
  const int64_t read_ms = cell_.setting.empty == EmptyRead::times_out ? kReadLimitMs : 0;
  const int64_t bound_ms =
      cell_.operation->bound_ms(read_ms) + kFaultMs * static_cast<int64_t>(cell_.strikes.size());
  set_faults();
  set_rescue(bound_ms);
  outcome.ms = rig.time_of([&] { outcome.returned = cell_.operation->run(rig); });
  outcome.words = {rig.result(), rig.notification()};
  const char* told = bio_get_notify_mid_mesg(&rig.dev);
  outcome.told = told != nullptr ? told : "";
  if (outcome.ms > bound_ms) {
    outcome.failures.push_back({Check::bound, std::to_string(outcome.ms) + " ms, its waits allow " +
                                                  std::to_string(bound_ms)});
  }
  const auto struck = wrx_module::bus().faults().struck();
  for (size_t i = 0; i < cell_.strikes.size(); ++i) {
    if (cell_.strikes[i].fault->call) continue;
    if (i < struck.size() && (i > 0 || struck[i].at == cell_.strikes[i].transfer)) continue;
    if (i == 0) outcome.failures.push_back({Check::strike, "the fault did not strike"});
  }
}

void World::judge_end(Outcome& outcome) {
  if (rig.status() != DEVS_COMM_IDLE) {
    outcome.failures.push_back({Check::status, "status " + std::to_string(rig.status())});
  }
  const auto& allowed = cell_.operation->words;
  if (std::find(allowed.begin(), allowed.end(), outcome.words) == allowed.end()) {
    outcome.failures.push_back({Check::words, "result " + std::to_string(outcome.words.first) +
                                                  " with notification " +
                                                  std::to_string(outcome.words.second)});
  }
}

void World::judge_stop(Outcome& outcome) {
  rig.clock.join();
  const int32_t flag = rig.info().ctrlFlag;
  outcome.state += "handshake " + std::to_string(flag);
  // An operation that came to its end leaves a late request as it is.
  static const std::set<int> kEnds = {200, 300, 301, 400, 401, 600, 601};
  if (flag != kStopRequested || kEnds.count(outcome.words.first) != 0) return;
  outcome.failures.push_back(
      {Check::stop, "not acknowledged, result " + std::to_string(outcome.words.first)});
}

void World::judge_slots(Outcome& outcome) {
  const auto& templates = rig.device.memory().templates;
  static const char* const kFingers[] = {"thumb", "index", "middle", "ring"};
  std::set<int> seen;
  for (const Stored& record : rig.stored()) {
    const int slot = record.slots.empty() ? -1 : record.slots.front();
    const auto found = templates.find(static_cast<uint16_t>(slot));
    const std::string which =
        "record " + std::to_string(record.index) + " and slot " + std::to_string(slot) + ": ";
    outcome.state += "; " + std::to_string(record.index) + " in " + std::to_string(slot);
    if (found == templates.end()) {
      outcome.failures.push_back({Check::slots, which + "empty"});
    } else if (const bool own = record.uid == Rig::kUser;
               !seen.insert(slot).second || (own && found->second != kFingers[record.index])) {
      outcome.failures.push_back({Check::slots, which + "holds " + found->second});
    }
  }
}

// Whatever the faults did to the module, it is on the bus again, by the world's hand.
void World::settle() {
  wrx_module::bus().faults().clear();
  wrx_module::bus().faults().on_strike = {};
  rig.device.sensor().clear_queue();
  rig.device.lift();
  rig.device.settings().power_up.outcome = wrx_module::PowerUpOutcome::none;
  rig.clock.sleep_us(kSettleUs);
  if (cell_.operation->leaves.needs_power) rig.device.cut_power();
  rig.device.plug();
  if (!cell_.operation->leaves.needs_start) return;
  rig.configure();
  rig.driver_init();
  rig.clock.sleep_us(kSettleUs);
}

bool World::verify_works() {
  rig.play("press thumb");
  if (rig.verify() == 0 && rig.result() == OPS_VERIFY_MATCH) return true;
  rig.device.sensor().clear_queue();
  return cell_.operation->leaves.erases && rig.result() == OPS_VERIFY_NO_MATCH;
}

void World::judge_after(Outcome& outcome) {
  settle();
  rig.info().timeoutMS = 5000;
  rig.close();
  if (rig.open() != 0) {
    outcome.failures.push_back({Check::after, "cannot be opened"});
    return;
  }
  int tries = 1;
  while (!verify_works() && tries <= kVerifies)
    ++tries;
  outcome.state += "; verify " + std::to_string(tries);
  if (tries == 1) return;
  outcome.failures.push_back(
      {Check::after, tries > kVerifies ? "no verify works, result " + std::to_string(rig.result())
                                       : "verify works at attempt " + std::to_string(tries)});
}

std::string setting_text(const Setting& setting) {
  return std::string(setting.empty == EmptyRead::times_out ? "wait," : "once,") +
         std::to_string(setting.packet) + (setting.stop ? ",stop" : "");
}

std::vector<std::string> split(const std::string& text, char at) {
  std::istringstream in(text);
  std::vector<std::string> parts;
  for (std::string part; std::getline(in, part, at);)
    parts.push_back(part);
  return parts;
}

}  // namespace

std::string_view check_name(Check check) {
  constexpr std::string_view kNames[] = {"strike", "bound", "status", "words",
                                         "stop",   "slots", "after"};
  return kNames[static_cast<size_t>(check)];
}

std::string coordinates(const Cell& cell) {
  std::string transfers, kinds;
  for (const Strike& strike : cell.strikes) {
    const char* plus = transfers.empty() ? "" : "+";
    transfers += plus + std::to_string(strike.transfer);
    kinds += plus + std::string(strike.fault->name);
  }
  return std::string(cell.operation->name) + ":" + transfers + ":" + kinds + ":" +
         setting_text(cell.setting);
}

std::optional<Cell> cell_named(const std::string& text, std::string& error) {
  const std::vector<std::string> parts = split(text, ':');
  Cell cell;
  error = "expected OPERATION:TRANSFER:FAULT[:settings]";
  if (parts.size() < 3) return std::nullopt;
  cell.operation = operation_named(parts[0]);
  error = "unknown operation " + parts[0];
  if (cell.operation == nullptr) return std::nullopt;
  for (const std::string& word : split(parts.size() > 3 ? parts[3] : "", ',')) {
    if (word == "wait") cell.setting.empty = EmptyRead::times_out;
    if (word == "512") cell.setting.packet = 512;
    if (word == "stop") cell.setting.stop = true;
  }
  const std::vector<Role> roles = transfers_of(*cell.operation, cell.setting);
  const std::vector<std::string> numbers = split(parts[1], '+'), kinds = split(parts[2], '+');
  for (size_t i = 0; i < kinds.size() && i < numbers.size(); ++i) {
    Strike strike;
    const auto end = numbers[i].data() + numbers[i].size();
    const bool number = std::from_chars(numbers[i].data(), end, strike.transfer).ptr == end;
    strike.fault = fault_named(kinds[i]);
    error = "unknown fault " + kinds[i];
    if (strike.fault == nullptr) return std::nullopt;
    const int last = static_cast<int>(roles.size());
    error = "transfer " + numbers[i] + " is none of 0 to " + std::to_string(last);
    if (!number || strike.transfer < 0 || strike.transfer > last) return std::nullopt;
    if (strike.transfer > 0) strike.role = roles[static_cast<size_t>(strike.transfer - 1)];
    error = kinds[i] + " does not fit transfer " + numbers[i];
    if (!fits(*strike.fault, strike.role)) return std::nullopt;
    cell.strikes.push_back(strike);
  }
  return cell;
}

std::vector<Role> transfers_of(const Operation& operation, const Setting& setting) {
  const Cell clean = {&operation, setting, {}};
  World world(clean, false);
  std::vector<Role> roles;
  wrx_module::bus().set_trace([&](const wrx_module::TraceRecord& record) {
    const bool bulk =
        record.kind == wrx_module::TraceKind::in || record.kind == wrx_module::TraceKind::out;
    if (bulk) roles.push_back(role_of(record));
  });
  operation.run(world.rig);
  wrx_module::bus().set_trace({});
  return roles;
}

Outcome run(const Cell& cell, bool traced) {
  Outcome outcome;
  World world(cell, traced);
  world.run(outcome);
  world.judge_end(outcome);
  world.judge_stop(outcome);
  if (traced) outcome.trace = world.rig.trace.lines();
  world.judge_slots(outcome);
  world.judge_after(outcome);
  return outcome;
}

}  // namespace sweep
