// SPDX-License-Identifier: LGPL-2.1-or-later
// Any moment can be the last: the host's process is killed at every transfer of every operation,
// and the feature database loses its power at every write. The next start works, and records and
// slots agree, or the difference is found and said.
#include <signal.h>

#include <filesystem>
#include <map>

#include "sweep/operations.h"
#include "upgrade/upgrade_support.h"
#include "whole/losing_vfs.h"
#include "whole/remains.h"

namespace wrx_test {
namespace {

namespace fs = std::filesystem;

wrx_module::Settings module_of(const sweep::Operation& operation) {
  wrx_module::Settings settings = Rig::instant();
  if (operation.settings != nullptr) operation.settings(settings);
  return settings;
}

int transfers_of(const sweep::Operation& operation) {
  return std::stoi(in_fresh_process([&] {
    Rig rig(module_of(operation));
    sweep::stock(rig);
    operation.before(rig);
    wrx_module::bus().faults().clear();
    operation.run(rig);
    return std::to_string(wrx_module::bus().faults().count());
  }));
}

// The operation, killed inside a transfer. The module, which has not noticed, does what it was last
// told to.
std::string killed(const sweep::Operation& operation, int transfer, const Remains& remains) {
  return in_fresh_process([&] {
    Rig rig(module_of(operation));
    sweep::stock(rig);
    operation.before(rig);
    wrx_module::FaultPlan& faults = wrx_module::bus().faults();
    faults.clear();
    faults.add({transfer, wrx_module::FaultKind::death});
    faults.on_death = [&] {
      rig.clock.sleep_us(2'000'000);
      remains.keep(rig, !operation.leaves.needs_power);
      raise(SIGKILL);
    };
    operation.run(rig);
    return std::string("lives");
  });
}

std::string differences(Rig& rig) {
  std::string text;
  std::vector<int> unclaimed = rig.slots();
  for (const Stored& record : rig.stored()) {
    if (std::erase(unclaimed, record.slots.at(0)) == 0) {
      text += "record " + std::to_string(record.index) + " without slot; ";
    }
  }
  for (const int slot : unclaimed)
    text += "slot " + std::to_string(slot) + " without record; ";
  return text;
}

// A start after the end: the module is opened, a finger verified; what differs between records and
// slots is said. Whatever slots have no record go with the next enrolment, which says so; whatever
// records have no slot go with the clean that is asked for again.
std::string next_start(const sweep::Operation& operation, const Remains& remains) {
  return in_fresh_process([&]() -> std::string {
    Rig rig(module_of(operation));
    remains.give(rig);
    rig.start();
    rig.clock.sleep_us(2'000'000);
    if (rig.open() != 0) return "cannot be opened";
    rig.play("press thumb");
    if (rig.verify() != 0) return "verify fails";
    if (rig.result() != OPS_VERIFY_MATCH && !operation.leaves.erases) return "verify finds nothing";
    const std::string before = differences(rig);
    if (before.find("without slot") != std::string::npos) rig.clean(Rig::kUser, 0, -1);
    rig.play("press pinky x13");
    if (rig.enroll(Rig::kUser, 9, "pinky") != 0) return "enrolment fails";
    const bool said = rig.trace.saw(" is invalid!!!");
    if (!differences(rig).empty()) return "still " + differences(rig);
    return said == (before.find("without record") != std::string::npos) ? before : "not said";
  });
}

// What may differ: the operation's own work, half done.
bool may_differ(std::string_view operation, const std::string& differences) {
  const std::map<std::string_view, std::string_view> allowed = {
      {"enroll", "slot 23 without record; "}, {"clean", "record"}, {"fp_empty_template", "record"}};
  if (differences.empty()) return true;
  const auto row = allowed.find(operation);
  return row != allowed.end() && differences.starts_with(row->second);
}

TEST(SuddenDeath, OfTheHostAtEveryTransferOfEveryOperation) {
  const Remains remains;
  int tried = 0, differed = 0;
  for (const sweep::Operation& operation : sweep::operations()) {
    // They differ by themselves, or leave no room for the enrolment that follows.
    if (operation.name.starts_with("enroll-")) continue;
    const int transfers = transfers_of(operation);
    for (int transfer = 1; transfer <= transfers; ++transfer, ++tried) {
      remains.clear();
      const std::string where = std::string(operation.name) + ":" + std::to_string(transfer);
      ASSERT_EQ(killed(operation, transfer, remains), "process ended with status 9") << where;
      const std::string found = next_start(operation, remains);
      EXPECT_TRUE(may_differ(operation.name, found)) << where << ": " << found;
      if (!found.empty()) ++differed;
    }
  }
  EXPECT_GT(tried, 500);
  std::printf(
      "host killed at %d transfers: every next start works; records and slots differed "
      "after %d, and agreed again\n",
      tried, differed);
}

// The power goes at a write of the database: host and module lose it together, and of the files
// there is left what was synced.
std::string power_lost(bool enrol, int at_write, bool names_are_synced, int& writes) {
  LosingDisk& disk = losing_disk();
  wrx_module::Memory memory;
  std::map<std::string, std::string> files;
  {
    Rig rig;
    sweep::stock(rig);
    rig.ready();
    disk.begin(at_write, names_are_synced);
    rig.play("press ring x14");
    if (enrol) {
      rig.enroll(Rig::kUser, 3, "ring");
    } else {
      rig.clean(Rig::kUser, 1, 2);
    }
    writes = disk.writes();
    files = disk.end();
    memory = rig.device.memory();
  }
  Rig rig;
  for (const auto& [path, content] : files)
    rig.write_file(fs::path(path).filename(), content);
  rig.device.cut_power();
  rig.device.memory() = memory;
  rig.device.plug();
  rig.ready();
  if (rig.stored().empty()) return "records are lost";
  return differences(rig);
}

TEST(SuddenDeath, OfTheDatabaseAtEveryWrite) {
  int tried = 0;
  for (const bool enrol : {true, false}) {
    int writes = 0;
    power_lost(enrol, 0, true, writes);
    const int last = writes;
    EXPECT_GT(last, 5);
    for (int at = 1; at <= last; ++at) {
      for (const bool names_are_synced : {true, false}) {
        const std::string found = power_lost(enrol, at, names_are_synced, writes);
        // A torn enrolment leaves a template, a torn clean records: each to be found as above.
        const bool whole = found.empty() || found.starts_with(enrol ? "slot 23 without" : "record");
        EXPECT_TRUE(whole) << (enrol ? "enrol" : "clean") << ", write " << at << ": " << found;
        ++tried;
      }
    }
  }
  std::printf("database without power at %d writes: every next start reads it\n", tried);
}

// A success that was reported is kept, also when the power goes right behind it.
TEST(SuddenDeath, OfTheDatabaseBehindASuccessLosesNothing) {
  for (const bool enrol : {true, false}) {
    for (const bool names_are_synced : {true, false}) {
      int writes = 0;
      EXPECT_EQ(power_lost(enrol, 0, names_are_synced, writes), "")
          << (enrol ? "enrol" : "clean") << (names_are_synced ? "" : ", names of files not synced");
    }
  }
}

}  // namespace
}  // namespace wrx_test
