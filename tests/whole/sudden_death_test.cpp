// SPDX-License-Identifier: LGPL-2.1-or-later
// Any moment can be the last: the host's process is killed at every transfer of every operation.
// The next start works, records and slots agree, or the difference is found and said, and a module
// whose rewrite was torn off has its new firmware. Each start is a process of its own. (That the
// module loses its power at any transfer is among the sweep's faults.)
#include <map>

#include "sweep/operations.h"
#include "upgrade/upgrade_support.h"
#include "whole/remains.h"

namespace wrx_test {
namespace {

wrx_module::Settings module_of(const sweep::Operation& operation) {
  wrx_module::Settings settings = Rig::instant();
  if (operation.settings != nullptr) operation.settings(settings);
  return settings;
}

// The operation, killed inside a transfer; or how many it makes.
std::string killed(const sweep::Operation& operation, int transfer, const Remains& remains) {
  return in_fresh_process([&] {
    Rig rig(module_of(operation));
    sweep::stock(rig);
    operation.before(rig);
    remains.strike_at(rig, transfer, wrx_module::FaultKind::death, !operation.leaves.needs_power);
    operation.run(rig);
    return std::to_string(wrx_module::bus().faults().count());
  });
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
    const bool rewritten = operation.leaves.needs_start;
    if (rewritten && !holds(rig.device.memory(), image_of(481))) return "has other firmware";
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

TEST(SuddenDeath, OfTheHostAtEveryTransferOfEveryOperation) {
  // What may differ: the operation's own work, half done.
  const std::map<std::string_view, std::string_view> allowed = {
      {"enroll", "slot 23 without record; "}, {"clean", "record"}, {"fp_empty_template", "record"}};
  constexpr int kNever = 1'000'000;
  int tried = 0;
  for (const sweep::Operation& operation : sweep::operations()) {
    // They differ by themselves, or leave no room for the enrolment that follows.
    if (operation.name.starts_with("enroll-")) continue;
    const int transfers = std::stoi(killed(operation, kNever, Remains()));
    for (int transfer = 1; transfer <= transfers; ++transfer, ++tried) {
      const Remains remains;
      SCOPED_TRACE(std::string(operation.name) + ":" + std::to_string(transfer));
      ASSERT_EQ(killed(operation, transfer, remains), "process ended with status 9");
      const std::string found = next_start(operation, remains);
      const auto row = allowed.find(operation.name);
      EXPECT_TRUE(found.empty() || (row != allowed.end() && found.starts_with(row->second)))
          << found;
    }
  }
  EXPECT_GT(tried, 500);
  std::printf("host killed at %d transfers: every next start works\n", tried);
}

// At 0 no image is selected, so nothing is there to write.
TEST(SuddenDeath, WithoutBudgetAModuleStaysInItsBootloader) {
  for (const int budget : {0, 1}) {
    EXPECT_EQ(in_fresh_process([&] {
                wrx_module::Settings settings = Rig::instant();
                settings.bootloader.version_of_image = [](auto) { return 101U; };
                Rig rig(settings);
                rig.extra_config(fmt::format("UpgradeMode=AUTO_UPGRADE\nUpgradeFlag={}\n", budget));
                rig.install_firmware("ACM32FP_V101", image_of(481));
                break_firmware(rig);
                rig.start();
                rig.clock.sleep_us(2'000'000);
                return std::string(wrx_module::bootable(rig.device.memory()) ? "new" : "dead");
              }),
              budget == 0 ? "dead" : "new");
  }
}

}  // namespace
}  // namespace wrx_test
