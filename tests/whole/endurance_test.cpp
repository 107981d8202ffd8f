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
// new one comes (negative: never). Or it is beside the old one: a module of its own, that long
// after the start.
struct Passage {
  const char* what;
  int64_t old_gone_ms, new_here_ms;
  bool beside = false;
  const char* end = "new";
};

constexpr Passage kPassages[] = {
    {"at once", 0, 0},
    {"both in time", 40, 500},
    {"gone late", 1500, 100},
    {"here late", 40, 3500},
    {"both late", 2500, 2500},
    {"both at the edge of the wait", 500, 500},
    {"never gone", 1'000'000, 0, false, "old"},
    {"never here", 40, -1, false, "old"},
    {"beside, both in time", 950, 500, true},
    {"beside, gone late", 1300, 900, true},
    {"beside, both late", 6500, 4500, true},
    {"beside, never gone", 1'000'000, 900, true},
};

std::string upgraded(const Passage& passage) {
  wrx_module::Settings settings = Rig::instant();
  settings.bootloader.version_of_image = [](auto) { return 101U; };
  wrx_module::Memory torn = wrx_module::factory_memory(100);
  torn.stored_crc.reset();
  Rig rig(settings);
  rig.device.settings().reboot.leave_us = passage.old_gone_ms * 1000;
  const bool comes = !passage.beside && passage.new_here_ms >= 0;
  rig.device.settings().reboot.bootloader_appears_us = comes ? passage.new_here_ms * 1000 : -1;
  wrx_module::Device beside(rig.clock, settings, torn);
  beside.unplug();
  wrx_module::Device& boot = passage.beside ? beside : rig.device;
  if (passage.beside) {
    wrx_module::bus().attach(beside);
    rig.clock.at(passage.new_here_ms * 1000,
                 [&] { wrx_module::bus().locked([&] { beside.plug(); }); });
  }
  rig.extra_config("UpgradeMode=AUTO_UPGRADE\nUpgradeFlag=3\n");
  rig.install_firmware("ACM32FP_V101", image_of(481));
  const int64_t ms = rig.time_of([&] { rig.start(); });
  rig.clock.join();
  const bool is_new = boot.memory().version == 101;
  if (passage.beside) wrx_module::bus().detach(beside);
  if (ms > 30'000) return "took " + std::to_string(ms) + " ms";
  if (passage.beside) return is_new ? "new" : "old";
  rig.device.settings().reboot = {};
  rig.clock.sleep_us(2'000'000);
  if (!is_new) rig.device.power_cycle();
  if (rig.open() != 0) return "cannot be opened";
  return is_new ? "new" : "old";
}

TEST(Reenumeration, InEveryOrderEndsWithTheNewFirmwareOrAWorkingModule) {
  for (const Passage& passage : kPassages)
    EXPECT_EQ(in_fresh_process([&] { return upgraded(passage); }), passage.end) << passage.what;
}

}  // namespace
}  // namespace wrx_test
