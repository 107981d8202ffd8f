// SPDX-License-Identifier: LGPL-2.1-or-later
// What outlives a process of the host: the module's memory and the folder with the database and the
// configuration, as files.
#pragma once

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
  void clear() const {
    std::filesystem::remove_all(folder + "/host");
    std::filesystem::remove(folder + "/module");
  }

 private:
  static constexpr auto kOver =
      std::filesystem::copy_options::overwrite_existing | std::filesystem::copy_options::recursive;
};

}  // namespace wrx_test
