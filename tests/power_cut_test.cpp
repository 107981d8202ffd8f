// SPDX-License-Identifier: LGPL-2.1-or-later
// Whatever moment a rewrite is torn off at, the next start brings the module back. Two sweeps cut
// at every transfer of a rewrite in turn: the module loses its power, or the host's process dies.
// Each start is a process of its own; what the module and the disk keep goes from one to the next
// through shared memory.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>

#include <cstring>
#include <filesystem>
#include <new>
#include <vector>

#include "upgrade_support.h"

namespace wrx_test {
namespace {

using wrx_module::FaultKind;
using wrx_module::Memory;
using wrx_module::Mode;

constexpr uint32_t kOld = 100, kNew = 101;
constexpr int kBudget = 3;

// What outlives a process: the module's memory and mode, and the budget on the disk.
struct Kept {
  uint8_t flash[0x200000];
  size_t flash_size;
  bool crc_is_stored;
  wrx_module::StoredCrc stored_crc;
  uint32_t version;
  bool new_image;
  bool in_bootloader;
  int budget;
  char scratch[256];  // folder of a process that could not tidy up
};

Kept& kept() {
  static Kept* const shared =
      new (mmap(nullptr, sizeof(Kept), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
          Kept;
  return *shared;
}

void keep(const Memory& memory, bool in_bootloader, int budget) {
  Kept& to = kept();
  std::memcpy(to.flash, memory.flash.data(), memory.flash.size());
  to.flash_size = memory.flash.size();
  to.crc_is_stored = memory.stored_crc.has_value();
  to.stored_crc = memory.stored_crc.value_or(wrx_module::StoredCrc{});
  to.version = memory.version;
  to.new_image = memory.new_image;
  to.in_bootloader = in_bootloader;
  to.budget = budget;
}

Memory recalled() {
  const Kept& from = kept();
  Memory memory;
  memory.flash.assign(from.flash, from.flash + from.flash_size);
  if (from.crc_is_stored) memory.stored_crc = from.stored_crc;
  memory.version = from.version;
  memory.new_image = from.new_image;
  return memory;
}

// The module of before in a new process, with the upgrade to `image` configured.
class Start {
 public:
  explicit Start(const std::string& image) : rig(settings()) {
    wrx_module::bus().set_trace({});
    rig.clock.on_sleep = {};
    rig.extra_config("UpgradeMode=AUTO_UPGRADE\nUpgradeFlag=" + std::to_string(kept().budget) +
                     "\n");
    rig.install_firmware("ACM32FP_V101", image);
    rig.device.cut_power();
    rig.device.memory() = recalled();
    rig.device.plug();
    if (kept().in_bootloader && mode() == Mode::application) reboot();
  }

  Mode mode() { return rig.device.present()->mode; }
  void keep_all() { keep(rig.device.memory(), mode() == Mode::bootloader, budget_in_file(rig)); }

  Rig rig;

 private:
  // An image has no room for its version when it is one byte long.
  static wrx_module::Settings settings() {
    wrx_module::Settings settings = Rig::instant();
    settings.bootloader.version_of_image = [](auto) { return kNew; };
    return settings;
  }
  // Into the bootloader by the world's hand, not the driver's.
  void reboot() {
    libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, 0x4d2e, 0x5300);
    std::string block("USBC\x00\x14\x00\x00", 8);
    std::string packet("\xEF\x01\xFF\xFF\xFF\xFF\x01\x00\x0B\xFF\xC3\x3C\x96\x69KRTM\x04\x47", 20);
    for (std::string* bytes : {&block, &packet}) {
      int moved = 0;
      libusb_bulk_transfer(handle, 0x01, reinterpret_cast<uint8_t*>(bytes->data()),
                           static_cast<int>(bytes->size()), &moved, 0);
    }
    libusb_close(handle);
    rig.clock.sleep_us(1'000'000);
  }
};

enum class Cut { power, host };

// A rewrite torn off at a transfer. The host's death ends this process on the spot; the module,
// which has not noticed, does what it was last told to.
std::string torn_rewrite(const std::string& image, Cut cut, int transfer) {
  Start start(image);
  start.rig.configure();
  wrx_module::FaultPlan& faults = wrx_module::bus().faults();
  faults.clear();
  faults.add({transfer, cut == Cut::power ? FaultKind::power_cut : FaultKind::death});
  faults.on_death = [&start] {
    start.rig.clock.sleep_us(2'000'000);
    start.keep_all();
    std::snprintf(kept().scratch, sizeof kept().scratch, "%s",
                  std::filesystem::current_path().c_str());
    raise(SIGKILL);
  };
  upgrade_and_run();
  start.rig.clock.sleep_us(2'000'000);
  start.keep_all();
  return faults.struck().size() == 1 ? "cut" : "not cut";
}

// A whole start of the driver, by its callbacks; how the module ends.
std::string fresh_start(const std::string& image) {
  Start start(image);
  start.rig.start();
  start.rig.clock.sleep_us(2'000'000);
  start.keep_all();
  if (start.mode() == Mode::bootloader) return "dead";
  const Memory& memory = start.rig.device.memory();
  if (holds(memory, image)) return memory.version == kNew ? "new" : "new, wrong version";
  return wrx_module::bootable(memory) && memory.version == kOld ? "old" : "something else";
}

// What the module must be after a cut at `transfer` of a rewrite in `frames` frames (two transfers
// each): 'o' old, 'b' in its bootloader, 'n' new. Frame 1 erases, the checksum is stored by the
// last but two, the last starts the application.
char state_after(Cut cut, int transfer, int frames) {
  const int done = transfer / 2;  // frames that the module has executed
  if (cut == Cut::host) return done == frames ? 'n' : 'b';
  if (done == 0) return 'o';
  return done >= frames - 2 ? 'n' : 'b';
}

char state_kept() {
  if (kept().in_bootloader) return 'b';
  return kept().version == kNew ? 'n' : 'o';
}

struct Count {
  int tried = 0;
  int recovered = 0;
};

// One cut and the start after it. Everything that differs from what must be is an error.
void try_cut(const std::string& image, Cut cut, int transfer, int frames, Count& count) {
  keep(wrx_module::factory_memory(kOld), true, kBudget);
  kept().scratch[0] = '\0';
  const std::string end = in_fresh_process([&] { return torn_rewrite(image, cut, transfer); });
  const std::string where = std::to_string(image.size()) + " bytes, cut at transfer " +
                            std::to_string(transfer) + " of " + std::to_string(2 * frames);
  EXPECT_EQ(end, cut == Cut::power ? "cut" : "process ended with status 9") << where;
  EXPECT_EQ(state_kept(), state_after(cut, transfer, frames)) << where;
  // Only a start whose rewrite was verified to its end has spent a unit.
  const bool spent = cut == Cut::power && transfer > 2 * (frames - 1);
  EXPECT_EQ(kept().budget, kBudget - (spent ? 1 : 0)) << where;
  if (kept().scratch[0] != '\0') std::filesystem::remove_all(kept().scratch);
  const std::string result = in_fresh_process([&] { return fresh_start(image); });
  EXPECT_EQ(result, "new") << where;
  EXPECT_EQ(kept().budget, kBudget - (spent ? 2 : 1)) << where;
  ++count.tried;
  if (result == "new") ++count.recovered;
}

int frames_of(size_t size) {
  return static_cast<int>((size + 239) / 240) + 5;
}

void sweep(Cut cut, const char* what) {
  Count count;
  for (const size_t size : {1U, 239U, 240U, 241U, 480U, 481U, 65536U}) {
    const std::string image = image_of(size);
    const int transfers = 2 * frames_of(size);
    for (int at = 1; at <= transfers; ++at)
      try_cut(image, cut, at, transfers / 2, count);
  }
  EXPECT_EQ(count.tried, 3 * 12 + 2 * 14 + 16 + 558);
  EXPECT_EQ(count.recovered, count.tried);
  std::printf("%s at %d transfers: %d modules run the new firmware, %d are dead\n", what,
              count.tried, count.recovered, count.tried - count.recovered);
}

// 2 MiB: the edges of the rewrite, and points in between.
void sample(Cut cut, const char* what) {
  Count count;
  const std::string image = image_of(0x200000);
  const int frames = frames_of(image.size());
  std::vector<int> points = {1, 2, 3, 4, 5, 4999, 5000, 8744, 13001};
  for (int last = 12; last >= 0; --last)
    points.push_back(2 * frames - last);
  for (const int at : points)
    try_cut(image, cut, at, frames, count);
  EXPECT_EQ(count.tried, 22);
  EXPECT_EQ(count.recovered, count.tried);
  std::printf("%s at %d of %d transfers of 2 MiB: %d modules run the new firmware\n", what,
              count.tried, 2 * frames, count.recovered);
}

TEST(PowerCut, AtEveryTransfer) {
  sweep(Cut::power, "power cut");
}
TEST(PowerCut, AtTransfersOfTwoMebibytes) {
  sample(Cut::power, "power cut");
}
TEST(HostDeath, AtEveryTransfer) {
  sweep(Cut::host, "host died");
}
TEST(HostDeath, AtTransfersOfTwoMebibytes) {
  sample(Cut::host, "host died");
}

// A whole start with the cut anywhere in it, the talk with the old firmware included: the start
// itself may repair what was torn, and the one after it always does.
TEST(PowerCut, AtEveryTransferOfAWholeStart) {
  const std::string image = image_of(481);
  int tried = 0;
  for (bool reached = true; reached; ++tried) {
    keep(wrx_module::factory_memory(kOld), false, kBudget);
    const std::string end = in_fresh_process([&] {
      Start start(image);
      wrx_module::bus().faults().clear();
      wrx_module::bus().faults().add({tried + 1, FaultKind::power_cut});
      start.rig.start();
      start.keep_all();
      return std::to_string(wrx_module::bus().faults().struck().size());
    });
    reached = end == "1";
    EXPECT_EQ(in_fresh_process([&] { return fresh_start(image); }), "new") << "cut " << tried + 1;
  }
  EXPECT_GT(tried, 2 * frames_of(481) + 30);
  std::printf("power cut at %d transfers of a start: every module runs the new firmware\n",
              tried - 1);
}

// The other side of the budget: at 0 no image is selected, so nothing is there to write.
TEST(PowerCut, WithoutBudgetAModuleStaysInItsBootloader) {
  Memory torn = wrx_module::factory_memory(kOld);
  torn.stored_crc.reset();
  keep(torn, true, 0);
  EXPECT_EQ(in_fresh_process([] { return fresh_start(image_of(481)); }), "dead");
  EXPECT_EQ(kept().flash_size, torn.flash.size());
  kept().budget = 1;
  EXPECT_EQ(in_fresh_process([] { return fresh_start(image_of(481)); }), "new");
}

}  // namespace
}  // namespace wrx_test
