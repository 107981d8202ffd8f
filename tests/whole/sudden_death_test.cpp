// SPDX-License-Identifier: LGPL-2.1-or-later
// Any moment can be the last: the host's process is killed at every transfer of every operation,
// and at every transfer of a rewrite the process or the module's power. The next start works,
// records and slots agree, or the difference is found and said, and no module is dead. Each start
// is a process of its own.
#include <map>

#include "protocol/procedures.h"
#include "sweep/operations.h"
#include "upgrade/upgrade_support.h"
#include "whole/remains.h"

namespace wrx_test {
namespace {

using wrx_module::FaultKind;

constexpr char kKilled[] = "process ended with status 9";

// ---- operations

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
    remains.strike_at(rig, transfer, FaultKind::death, !operation.leaves.needs_power);
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
      ASSERT_EQ(killed(operation, transfer, remains), kKilled);
      const std::string found = next_start(operation, remains);
      const auto row = allowed.find(operation.name);
      EXPECT_TRUE(found.empty() || (row != allowed.end() && found.starts_with(row->second)))
          << found;
    }
  }
  EXPECT_GT(tried, 500);
  std::printf("host killed at %d transfers: every next start works\n", tried);
}

// ---- rewrites

constexpr uint32_t kNew = 101;
constexpr int kBudget = 3;

// A host without a trace, about to upgrade the module; both new in this process.
struct Upgrade : Rig {
  explicit Upgrade(const std::string& image, int budget = kBudget) : Rig(settings()) {
    wrx_module::bus().set_trace({});
    clock.on_sleep = {};
    extra_config("UpgradeMode=AUTO_UPGRADE\nUpgradeFlag=" + std::to_string(budget) + "\n");
    install_firmware("ACM32FP_V101", image);
  }
  // An image has no room for its version when it is one byte long.
  static wrx_module::Settings settings() {
    wrx_module::Settings settings = Rig::instant();
    settings.bootloader.version_of_image = [](auto) { return kNew; };
    return settings;
  }
};

// A rewrite torn off at a transfer.
std::string torn(const std::string& image, FaultKind cut, int transfer, const Remains& remains) {
  return in_fresh_process([&] {
    Upgrade rig(image);
    rig.configure();
    rig.open();
    fp_reboot();
    rig.close();
    rig.clock.sleep_us(1'000'000);
    remains.strike_at(rig, transfer, cut, true);
    upgrade_and_run();
    rig.clock.sleep_us(2'000'000);
    remains.keep(rig, false);
    return std::string(wrx_module::bus().faults().struck().size() == 1 ? "cut" : "not cut");
  });
}

// A whole start of the driver, by its callbacks: how the module ends, and the budget.
std::string next_upgrade(const std::string& image, const Remains& remains) {
  return in_fresh_process([&]() -> std::string {
    Upgrade rig(image);
    remains.give(rig);
    rig.start();
    rig.clock.sleep_us(2'000'000);
    if (rig.device.present()->mode == wrx_module::Mode::bootloader) return "dead";
    const bool is_new = holds(rig.device.memory(), image) && rig.device.memory().version == kNew;
    return (is_new ? "new " : "something else ") + std::to_string(budget_in_file(rig));
  });
}

// What the module must be after a cut at `transfer` of a rewrite in `frames` frames (two transfers
// each): old, in its bootloader, or new. Frame 1 erases, the checksum is stored by the last but
// two, the last starts the application.
std::string state_after(FaultKind cut, int transfer, int frames) {
  const int done = transfer / 2;  // frames that the module has executed
  if (cut == FaultKind::death) return done == frames ? "new" : "boot";
  if (done == 0) return "old";
  return done >= frames - 2 ? "new" : "boot";
}

std::string state_of(const wrx_module::Memory& memory) {
  if (!wrx_module::bootable(memory)) return "boot";
  return memory.version == kNew ? "new" : "old";
}

class TornRewrite : public testing::TestWithParam<FaultKind> {};

TEST_P(TornRewrite, AtEveryTransfer) {
  const FaultKind cut = GetParam();
  int tried = 0;
  for (const int size : {1, 239, 240, 241, 480, 481, 65536, 0x200000}) {
    const std::string image = image_of(static_cast<size_t>(size));
    const int frames = (size + 239) / 240 + 5, last = 2 * frames;
    for (int at = 1; at <= last && !HasFailure(); ++at) {
      // Of 2 MiB the edges, and points in between.
      if (size == 0x200000 && at > 5 && at < last - 12 && at % 4372 > 1) continue;
      const Remains remains;
      SCOPED_TRACE(std::to_string(size) + " bytes, cut at transfer " + std::to_string(at));
      EXPECT_EQ(torn(image, cut, at, remains), cut == FaultKind::death ? kKilled : "cut");
      EXPECT_EQ(state_of(remains.memory()), state_after(cut, at, frames));
      // Only a start whose rewrite was verified to its end has spent a unit, and the next one does.
      const bool spent = cut == FaultKind::power_cut && at > 2 * (frames - 1);
      EXPECT_EQ(next_upgrade(image, remains), "new " + std::to_string(kBudget - (spent ? 2 : 1)));
      ++tried;
    }
  }
  EXPECT_GT(tried, 3 * 12 + 2 * 14 + 16 + 558);
  std::printf("cut at %d transfers: %s\n", tried, HasFailure() ? "see above" : "no module is dead");
}

INSTANTIATE_TEST_SUITE_P(, TornRewrite, testing::Values(FaultKind::power_cut, FaultKind::death),
                         [](const auto& p) {
                           return p.param == FaultKind::death ? "HostDeath" : "PowerCut";
                         });

// The other side of the budget: at 0 no image is selected, so nothing is there to write.
TEST(PowerCut, WithoutBudgetAModuleStaysInItsBootloader) {
  for (const int budget : {0, 1}) {
    EXPECT_EQ(in_fresh_process([&] {
                Upgrade rig(image_of(481), budget);
                break_firmware(rig);
                rig.start();
                rig.clock.sleep_us(2'000'000);
                return state_of(rig.device.memory());
              }),
              budget == 0 ? "boot" : "new");
  }
}

}  // namespace
}  // namespace wrx_test
