// SPDX-License-Identifier: LGPL-2.1-or-later
// What outlives a process of the host: the module's memory and the folder with the database and the
// configuration, as files.
#pragma once

#include <signal.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "module/device/storage.h"
#include "support/rig.h"

namespace wrx_test {

struct Remains {
  const std::string folder =
      (std::filesystem::temp_directory_path() / "wrx-remains").string() + std::to_string(getpid());
  Remains() { std::filesystem::create_directories(folder); }
  ~Remains() { std::filesystem::remove_all(folder); }
  Remains(const Remains&) = delete;
  Remains& operator=(const Remains&) = delete;

  /// From the dying process, whose working directory is the rig's folder. A module left in its
  /// bootloader stays there for as long as it `has_power`.
  void keep(Rig& rig, bool has_power) const {
    std::string error;
    wrx_module::Memory memory = rig.device.memory();
    const auto presence = rig.device.present();
    const bool boots = presence && presence->mode == wrx_module::Mode::bootloader;
    if (boots && has_power) memory.stored_crc.reset();
    const std::string flash(memory.flash.begin(), memory.flash.end());
    std::ofstream(folder + "/flash", std::ios::binary) << flash;  // quicker than as text
    memory.flash.clear();
    wrx_module::save_memory(folder + "/module", memory, error);
    std::filesystem::copy(".", folder + "/host", kOver);
    std::filesystem::remove_all(std::filesystem::current_path());
  }
  /// The module's memory.
  wrx_module::Memory memory() const {
    std::string error;
    wrx_module::Memory memory;
    EXPECT_EQ(wrx_module::load_memory(folder + "/module", memory, error),
              wrx_module::LoadResult::loaded)
        << error;
    std::ifstream flash(folder + "/flash", std::ios::binary);
    memory.flash.assign(std::istreambuf_iterator<char>(flash), {});
    return memory;
  }
  /// Into the next process.
  void give(Rig& rig) const {
    std::filesystem::copy(folder + "/host", ".", kOver);
    rig.device.cut_power();
    rig.device.memory() = memory();
    rig.device.plug();
  }
  /// The fault strikes from now on. The host's death ends this process on the spot; the module,
  /// which has not noticed, does what it was last told to.
  void strike_at(Rig& rig, int transfer, wrx_module::FaultKind fault, bool has_power) const {
    wrx_module::FaultPlan& faults = wrx_module::bus().faults();
    faults.clear();
    faults.add({transfer, fault});
    faults.on_death = [this, &rig, has_power] {
      rig.clock.sleep_us(2'000'000);
      keep(rig, has_power);
      raise(SIGKILL);
    };
  }

 private:
  static constexpr auto kOver =
      std::filesystem::copy_options::overwrite_existing | std::filesystem::copy_options::recursive;
};

/// How records and slots differ: each record without its slot, then each slot without record.
inline std::string differences(Rig& rig) {
  std::string text;
  std::vector<int> unclaimed = rig.slots();
  for (const Stored& record : rig.stored()) {
    if (std::erase(unclaimed, record.slots.at(0)) == 0)
      text += "record " + std::to_string(record.index) + " without slot; ";
  }
  for (const int slot : unclaimed)
    text += "slot " + std::to_string(slot) + " without record; ";
  return text;
}

}  // namespace wrx_test
