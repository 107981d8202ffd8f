// SPDX-License-Identifier: LGPL-2.1-or-later
// What goes on for years: plugging and unplugging, enrolling and cleaning, and modules that take
// their own time to become their bootloader. WRX_FULL in the environment asks for the full counts.
#include <dirent.h>
#include <malloc.h>

#include <cinttypes>
#include <fstream>

#include "upgrade/upgrade_support.h"

namespace wrx_test {
namespace {

int rounds(int few, int many) {
  return std::getenv("WRX_FULL") != nullptr ? many : few;
}

// What a process holds. Descriptors and threads are exact; memory is what the heap has given out.
struct Held {
  int descriptors = 0, threads = 0;
  size_t bytes = 0;
};

Held held() {
  Held now;
  DIR* folder = opendir("/proc/self/fd");
  while (readdir(folder) != nullptr)
    ++now.descriptors;
  closedir(folder);
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "Threads:") status >> now.threads;
  }
  now.bytes = mallinfo2().uordblks;
  return now;
}

// Runs `round`; nothing grows in the second half of the rounds.
template <typename Round>
void expect_flat(Rig& rig, int count, Round round) {
  constexpr size_t kSlack = size_t{64} * 1024;
  Held before;
  for (int i = 0; i < count; ++i) {
    if (i == count / 2) before = held();
    ASSERT_TRUE(round()) << "round " << i;
    rig.trace.clear();
    rig.device.commands().clear();
  }
  const Held after = held();
  EXPECT_EQ(after.descriptors, before.descriptors);
  EXPECT_EQ(after.threads, before.threads);
  EXPECT_LE(after.bytes, before.bytes + kSlack);
  std::fprintf(stderr, "%d rounds: %d descriptors, %d threads, %+" PRId64 " bytes\n", count,
               after.descriptors, after.threads,
               static_cast<int64_t>(after.bytes) - static_cast<int64_t>(before.bytes));
}

TEST(Endurance, PluggingAndUnpluggingLeavesNothingBehind) {
  Rig rig;
  rig.start();
  expect_flat(rig, rounds(2000, 100000), [&] {
    rig.device.unplug();
    rig.dev.ops_detach(&rig.dev);
    const bool gone = rig.discover() == 0 && rig.open() == -1;
    rig.device.plug();
    rig.dev.ops_attach(&rig.dev);
    const bool back = rig.discover() == 1 && rig.open() == 0;
    rig.close();
    return gone && back;
  });
  EXPECT_EQ(wrx_module::bus().live().handles, 0);
  EXPECT_EQ(wrx_module::bus().live().device_references, 0);
}

// The cable is pulled while the device is open, and in every place of a verify.
TEST(Endurance, UnpluggingWhileInUseLeavesNothingBehind) {
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
    rig.device.sensor().clear_queue();
    rig.device.plug();
    return rig.status() == DEVS_COMM_IDLE;
  });
  EXPECT_EQ(wrx_module::bus().live().handles, 0);
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
struct Passage {
  const char* what;
  int64_t old_gone_ms, new_here_ms;
  bool upgraded;
};

constexpr Passage kPassages[] = {
    {"at once", 0, 0, true},
    {"both in time", 40, 500, true},
    {"gone late", 1500, 100, true},
    {"here late", 40, 3500, true},
    {"both late", 2500, 2500, true},
    {"both at the edge of the wait", 500, 500, true},
    {"never gone", 1'000'000, 0, false},
    {"never here", 40, -1, false},
};

TEST(Reenumeration, InEveryOrderEndsWithTheNewFirmwareOrAWorkingModule) {
  for (const Passage& passage : kPassages) {
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
      const bool upgraded = rig.device.memory().version == 101;
      if (!upgraded) rig.device.power_cycle();
      if (rig.open() != 0) return "cannot be opened";
      return upgraded ? "new" : "old";
    });
    EXPECT_EQ(end, passage.upgraded ? "new" : "old") << passage.what;
  }
}

// The bootloader is on the bus before the old identity has left it, or beside it for good.
TEST(Reenumeration, WithTheNewHereBeforeTheOldIsGone) {
  constexpr struct {
    const char* what;
    int64_t old_gone_ms, new_here_ms;
  } kRows[] = {{"both in time", 950, 500},
               {"gone late", 1300, 900},
               {"both late", 6500, 4500},
               {"never gone", 1'000'000, 900}};
  for (const auto& row : kRows) {
    const std::string end = in_fresh_process([&row]() -> std::string {
      wrx_module::Settings settings = Rig::instant();
      settings.reboot.leave_us = row.old_gone_ms * 1000;
      settings.reboot.bootloader_appears_us = -1;
      Rig rig(settings);
      wrx_module::Memory torn = wrx_module::factory_memory(100);
      torn.stored_crc.reset();
      settings.bootloader.version_of_image = [](auto) { return 101U; };
      wrx_module::Device boot(rig.clock, settings, torn);
      boot.unplug();
      wrx_module::bus().attach(boot);
      rig.clock.at(row.new_here_ms * 1000, [&] { wrx_module::bus().locked([&] { boot.plug(); }); });
      rig.extra_config("UpgradeMode=AUTO_UPGRADE\nUpgradeFlag=3\n");
      rig.install_firmware("ACM32FP_V101", image_of(481));
      rig.start();
      rig.clock.join();
      std::string version = std::to_string(boot.memory().version);
      wrx_module::bus().detach(boot);
      return version;
    });
    EXPECT_EQ(end, "101") << row.what;
  }
}

}  // namespace
}  // namespace wrx_test
