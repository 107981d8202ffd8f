// SPDX-License-Identifier: LGPL-2.1-or-later
// What goes on for years: plugging and unplugging, enrolling and cleaning, and modules that take
// their own time to become their bootloader. WRX_FULL in the environment asks for the full counts.
#include <malloc.h>

#include <filesystem>
#include <iterator>

#include "upgrade/upgrade_support.h"

namespace wrx_test {
namespace {

int rounds(int few, int many) {
  return std::getenv("WRX_FULL") != nullptr ? many : few;
}

// What a process holds. Descriptors and threads are exact; memory is what the heap has given out.
struct Held {
  std::ptrdiff_t descriptors = entries("/proc/self/fd"), threads = entries("/proc/self/task");
  size_t bytes = mallinfo2().uordblks;

  static std::ptrdiff_t entries(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  }
};

// Runs `round`; nothing grows in the second half of the rounds.
template <typename Round>
void expect_flat(Rig& rig, int count, Round round) {
  constexpr size_t kSlack = size_t{64} * 1024;
  Held before;
  for (int i = 0; i < count; ++i) {
    if (i == count / 2) before = Held();
    ASSERT_TRUE(round()) << "round " << i;
    rig.trace.clear();
    rig.device.commands().clear();
  }
  const Held after;
  EXPECT_EQ(after.descriptors, before.descriptors);
  EXPECT_EQ(after.threads, before.threads);
  EXPECT_LE(after.bytes, before.bytes + kSlack);
  fmt::print(stderr, "{} rounds: {} descriptors, {} threads, {} bytes before and {} after\n", count,
             after.descriptors, after.threads, before.bytes, after.bytes);
}

// The cable is pulled in every place of a verify.
TEST(Endurance, UnpluggingLeavesNothingBehind) {
  Rig rig;
  rig.start();
  int transfer = 0;
  expect_flat(rig, rounds(500, 20000), [&] {
    rig.open();
    wrx_module::bus().faults().clear();
    wrx_module::bus().faults().add({1 + transfer++ % 40, wrx_module::FaultKind::unplug});
    rig.play("press");
    rig.verify();
    rig.close();
    rig.dev.ops_detach(&rig.dev);
    rig.device.unplug();
    const bool gone = rig.discover() == 0 && rig.open() == -1;
    rig.device.sensor().clear_queue();
    rig.device.plug();
    rig.dev.ops_attach(&rig.dev);
    return gone && rig.discover() == 1 && rig.status() == DEVS_COMM_IDLE;
  });
  EXPECT_EQ(wrx_module::bus().live().handles, 0);
  EXPECT_EQ(wrx_module::bus().live().device_references, 0);
}

TEST(Endurance, EnrollingVerifyingAndCleaningLeavesNothingBehind) {
  wrx_module::Settings settings = Rig::instant();
  settings.link.batch = wrx_module::Batch::one_step;
  Rig rig(settings);
  rig.ready();
  expect_flat(rig, rounds(100, 10000), [&] {
    rig.play("press x14");
    const bool done = rig.enroll() == 0 && rig.verify() == 0 && rig.result() == OPS_VERIFY_MATCH &&
                      rig.clean() == 0;
    return done && rig.slots().empty() && rig.stored().empty();
  });
}

// How a module goes over to its bootloader: when the old identity leaves, and when, after that, the
// new one comes. Negative: never.
constexpr struct {
  const char* what;
  int64_t old_gone_ms, new_here_ms;
  const char* end = "new";
} kPassages[] = {
    {"at once", 0, 0},
    {"both in time", 40, 500},
    {"gone late", 1500, 100},
    {"here late", 40, 3500},
    {"both late", 2500, 2500},
    {"both at the edge of the wait", 500, 500},
    {"never gone", 1'000'000, 0, "old"},
    {"never here", 40, -1, "old"},
};

TEST(Reenumeration, InEveryOrderEndsWithTheNewFirmwareOrAWorkingModule) {
  for (const auto& passage : kPassages) {
    const std::string end = in_fresh_process([&]() -> std::string {
      wrx_module::Settings settings = Rig::instant();
      settings.reboot.leave_us = passage.old_gone_ms * 1000;
      settings.reboot.bootloader_appears_us =
          passage.new_here_ms < 0 ? -1 : passage.new_here_ms * 1000;
      settings.bootloader.version_of_image = [](auto) { return 101U; };
      Rig rig(settings);
      rig.extra_config("UpgradeMode=AUTO_UPGRADE\nUpgradeFlag=3\n");
      rig.install_firmware("ACM32FP_V101", image_of(481));
      const int64_t ms = rig.time_of([&] { rig.start(); });
      if (ms > 30'000) return "took " + std::to_string(ms) + " ms";
      rig.device.settings().reboot = {};
      rig.clock.sleep_us(2'000'000);
      const bool is_new = rig.device.memory().version == 101;
      if (!is_new) rig.device.power_cycle();
      if (rig.open() != 0) return "cannot be opened";
      return is_new ? "new" : "old";
    });
    EXPECT_EQ(end, passage.end) << passage.what;
  }
}

}  // namespace
}  // namespace wrx_test
