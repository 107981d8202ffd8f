// SPDX-License-Identifier: LGPL-2.1-or-later
// Whatever moment a rewrite is torn off at, the next start brings the module back. Two sweeps cut
// at every transfer of a rewrite in turn: the module loses its power, or the host's process dies.
// Each start is a process of its own.
#include <gtest/gtest.h>
#include <signal.h>

#include <vector>

#include "protocol/procedures.h"
#include "upgrade/upgrade_support.h"
#include "whole/remains.h"

namespace wrx_test {
namespace {

using wrx_module::FaultKind;
using wrx_module::Memory;

constexpr uint32_t kNew = 101;
constexpr int kBudget = 3;

// A host without a trace, and the module; both new in this process.
struct Start : Rig {
  Start() : Rig(settings()) {
    wrx_module::bus().set_trace({});
    clock.on_sleep = {};
  }
  void upgrade_to(const std::string& image) {
    extra_config("UpgradeMode=AUTO_UPGRADE\nUpgradeFlag=" + std::to_string(kBudget) + "\n");
    install_firmware("ACM32FP_V101", image);
  }
  // An image has no room for its version when it is one byte long.
  static wrx_module::Settings settings() {
    wrx_module::Settings settings = Rig::instant();
    settings.bootloader.version_of_image = [](auto) { return kNew; };
    return settings;
  }
};

enum class Cut { power, host };

// A rewrite torn off at a transfer. The host's death ends this process on the spot; the module,
// which has not noticed, does what it was last told to.
std::string torn_rewrite(const std::string& image, Cut cut, int transfer, const Remains& remains) {
  Start rig;
  rig.upgrade_to(image);
  rig.configure();
  rig.open();
  fp_reboot();
  rig.close();
  rig.clock.sleep_us(1'000'000);
  wrx_module::FaultPlan& faults = wrx_module::bus().faults();
  faults.clear();
  faults.add({transfer, cut == Cut::power ? FaultKind::power_cut : FaultKind::death});
  faults.on_death = [&] {
    rig.clock.sleep_us(2'000'000);
    remains.keep(rig, true);
    raise(SIGKILL);
  };
  upgrade_and_run();
  rig.clock.sleep_us(2'000'000);
  remains.keep(rig, false);
  return faults.struck().size() == 1 ? "cut" : "not cut";
}

// A whole start of the driver, by its callbacks: how the module ends, and the budget.
std::string next_start(const std::string& image, const Remains& remains) {
  Start rig;
  remains.give(rig);
  rig.start();
  rig.clock.sleep_us(2'000'000);
  if (rig.device.present()->mode == wrx_module::Mode::bootloader) return "dead";
  const Memory& memory = rig.device.memory();
  const bool is_new = holds(memory, image) && memory.version == kNew;
  return (is_new ? "new " : "something else ") + std::to_string(budget_in_file(rig));
}

// What the module must be after a cut at `transfer` of a rewrite in `frames` frames (two transfers
// each): old, in its bootloader, or new. Frame 1 erases, the checksum is stored by the last but
// two, the last starts the application.
std::string state_after(Cut cut, int transfer, int frames) {
  const int done = transfer / 2;  // frames that the module has executed
  if (cut == Cut::host) return done == frames ? "new" : "boot";
  if (done == 0) return "old";
  return done >= frames - 2 ? "new" : "boot";
}

std::string state_of(const Memory& memory) {
  if (!wrx_module::bootable(memory)) return "boot";
  return memory.version == kNew ? "new" : "old";
}

// One cut and the start after it. Everything that differs from what must be is an error.
void try_cut(const std::string& image, Cut cut, int transfer, int frames) {
  const Remains remains;
  SCOPED_TRACE(std::to_string(image.size()) + " bytes, cut at transfer " +
               std::to_string(transfer) + " of " + std::to_string(2 * frames));
  EXPECT_EQ(in_fresh_process([&] { return torn_rewrite(image, cut, transfer, remains); }),
            cut == Cut::power ? "cut" : "process ended with status 9");
  EXPECT_EQ(state_of(remains.memory()), state_after(cut, transfer, frames));
  // Only a start whose rewrite was verified to its end has spent a unit, and the next one does.
  const bool spent = cut == Cut::power && transfer > 2 * (frames - 1);
  EXPECT_EQ(in_fresh_process([&] { return next_start(image, remains); }),
            "new " + std::to_string(kBudget - (spent ? 2 : 1)));
}

int frames_of(size_t size) {
  return static_cast<int>((size + 239) / 240) + 5;
}

// Every transfer of small images and one of 64 KiB; of 2 MiB the edges, and points in between.
class TornRewrite : public testing::TestWithParam<Cut> {};

TEST_P(TornRewrite, AtEveryTransfer) {
  int tried = 0;
  for (const size_t size : {1U, 239U, 240U, 241U, 480U, 481U, 65536U}) {
    const std::string image = image_of(size);
    for (int at = 1; at <= 2 * frames_of(size) && !HasFailure(); ++at, ++tried)
      try_cut(image, GetParam(), at, frames_of(size));
  }
  EXPECT_EQ(tried, 3 * 12 + 2 * 14 + 16 + 558);
  std::printf("cut at %d transfers: %s\n", tried, HasFailure() ? "see above" : "no module is dead");
}

TEST_P(TornRewrite, AtTransfersOfTwoMebibytes) {
  const std::string image = image_of(0x200000);
  const int frames = frames_of(image.size());
  std::vector<int> points = {1, 2, 3, 4, 5, 4999, 5000, 8744, 13001};
  for (int last = 12; last >= 0; --last)
    points.push_back(2 * frames - last);
  for (const int at : points)
    try_cut(image, GetParam(), at, frames);
}

INSTANTIATE_TEST_SUITE_P(, TornRewrite, testing::Values(Cut::power, Cut::host), [](const auto& p) {
  return p.param == Cut::power ? "PowerCut" : "HostDeath";
});

// A whole start with the cut anywhere in it, the talk with the old firmware included: the start
// itself may repair what was torn, and the one after it always does.
TEST(PowerCut, AtEveryTransferOfAWholeStart) {
  const std::string image = image_of(481);
  int tried = 0;
  for (bool reached = true; reached; ++tried) {
    const Remains remains;
    const std::string end = in_fresh_process([&] {
      Start rig;
      rig.upgrade_to(image);
      wrx_module::bus().faults().clear();
      wrx_module::bus().faults().add({tried + 1, FaultKind::power_cut});
      rig.start();
      remains.keep(rig, false);
      return std::to_string(wrx_module::bus().faults().struck().size());
    });
    reached = end == "1";
    EXPECT_EQ(in_fresh_process([&] { return next_start(image, remains); }).substr(0, 3), "new")
        << "cut " << tried + 1;
  }
  EXPECT_GT(tried, 2 * frames_of(481) + 30);
}

// The other side of the budget: at 0 no image is selected, so nothing is there to write.
TEST(PowerCut, WithoutBudgetAModuleStaysInItsBootloader) {
  for (const int budget : {0, 1}) {
    EXPECT_EQ(in_fresh_process([&] {
                Start rig;
                rig.upgrade_to(image_of(481));
                rig.extra_config("UpgradeFlag=" + std::to_string(budget) + "\n");
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
