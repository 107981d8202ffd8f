// SPDX-License-Identifier: LGPL-2.1-or-later
// `wrxctl firmware`, and the questions behind it.

#include "firmware.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <vector>

#include "commands.h"
#include "protocol/procedures.h"
#include "records/driver_info.h"
#include "upgrade/bootloader.h"
#include "upgrade/upgrade.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Outcome;

using wrx::upgrade::kMaxImage;

bool versions_differ(const FirmwareState& state) {
  return state.module->text != state.image->version.text;
}

bool image_is_newer(const FirmwareState& state) {
  return state.image->version.number > state.module->number;
}

/// An upgrade mode: its name in the configuration, when it upgrades, and the words for both ends.
struct Mode {
  uint32_t mode;
  const char* name;
  bool (*upgrades)(const FirmwareState& state);
  const char* because;
  const char* because_not;
};

constexpr Mode kModes[] = {
    {0, "unknown", [](const FirmwareState&) { return false; }, "",
     N_("the configuration is missing or names no known mode")},
    {FORCE_UPGRADE, "FORCE_UPGRADE", [](const FirmwareState&) { return true; },
     N_("the mode always upgrades"), ""},
    {DONT_UPGRADE, "DONT_UPGRADE", [](const FirmwareState&) { return false; }, "",
     N_("the mode never upgrades")},
    {AUTO_UPGRADE, "AUTO_UPGRADE", versions_differ, N_("the versions differ"),
     N_("the versions are the same")},
    {SMART_UPGRADE, "SMART_UPGRADE", image_is_newer, N_("the image is newer than the module"),
     N_("the image is not newer than the module")},
};

const Mode& mode_of(uint32_t mode) {
  const auto* row = std::ranges::find(kModes, mode, &Mode::mode);
  return row != std::end(kModes) ? *row : kModes[0];
}

std::string text_of(char* (*function)()) {
  const char* text = function();
  return text != nullptr ? text : "";
}

std::optional<uint16_t> crc_of(const host::PluginHost& plugin, const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  const auto crc = plugin.function<decltype(CRC16_X25)>("CRC16_X25");
  return crc(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

bool usable(const FirmwareImage& image) {
  return image.size >= 1 && image.size <= kMaxImage && image.crc.has_value();
}

std::string words(const FirmwareVersion& version) {
  return tr("{} (number {})", version.text, version.number);
}

std::string table(const FirmwareState& state) {
  std::string text =
      tr("Module:    {}\n", state.module ? words(*state.module) : tr("does not answer"));
  if (state.image) {
    text += tr("Image:     {}\n           {}\n", words(state.image->version), state.image->path);
    text += tr("           {} bytes", state.image->size);
    if (state.image->crc) text += fmt::format(", CRC-16/X-25 0x{:04x}", *state.image->crc);
    text += "\n";
  } else {
    text += tr("Image:     none is selected\n");
  }
  text += tr("Mode:      {}\n", mode_of(state.mode).name) +
          tr_n("Budget:    {} upgrade left\n", "Budget:    {} upgrades left\n",
               static_cast<std::size_t>(std::max(state.budget, 0)), std::max(state.budget, 0));
  return text;
}

nlohmann::json object(const FirmwareVersion& version) {
  return {{"text", version.text}, {"number", version.number}};
}

nlohmann::json object(const FirmwareState& state, const FirmwareDecision& decision) {
  nlohmann::json data = {{"module", nullptr},
                         {"image", nullptr},
                         {"mode", mode_of(state.mode).name},
                         {"budget", state.budget},
                         {"upgrade", decision.upgrade},
                         {"why", decision.why}};
  if (state.module) data["module"] = object(*state.module);
  if (!state.image) return data;
  const FirmwareImage& image = *state.image;
  data["image"] = object(image.version);
  data["image"]["path"] = image.path;
  data["image"]["size"] = image.size;
  data["image"]["crc"] = image.crc ? nlohmann::json(*image.crc) : nlohmann::json();
  return data;
}

}  // namespace

FirmwareDecision decide(const FirmwareState& state) {
  if (state.budget < 1) return {false, tr("the budget (UpgradeFlag) is used up")};
  if (!state.image) return {false, tr("no image is selected (trv_fw.conf is missing or unfit)")};
  const bool fit = usable(*state.image);
  if (!state.module) {
    if (!fit) return {false, tr("the module does not answer, and the image cannot be used")};
    return {true,
            tr("a module that does not answer is looked for in its bootloader and rewritten")};
  }
  const Mode& mode = mode_of(state.mode);
  if (!mode.upgrades(state)) return {false, tr(mode.because_not)};
  if (!fit) return {false, tr("{}, but the image cannot be used", tr(mode.because))};
  return {true, tr(mode.because)};
}

std::optional<FirmwareVersion> ask_module(const host::PluginHost& plugin) {
  if (plugin.function<decltype(fp_get_firmware_version)>("fp_get_firmware_version")() != 0)
    return std::nullopt;
  FirmwareVersion version = last_heard(plugin);
  if (version.text.empty()) return std::nullopt;
  return version;
}

FirmwareVersion last_heard(const host::PluginHost& plugin) {
  return {
      text_of(plugin.function<decltype(fp_return_firmware_version)>("fp_return_firmware_version")),
      plugin.function<decltype(fp_return_firmware_version_num)>(
          "fp_return_firmware_version_num")()};
}

std::optional<FirmwareImage> selected_image(const host::PluginHost& plugin) {
  FirmwareImage image;
  image.version = {text_of(plugin.function<decltype(upgrade_new_firmware_version)>(
                       "upgrade_new_firmware_version")),
                   plugin.function<decltype(upgrade_new_firmware_version_num)>(
                       "upgrade_new_firmware_version_num")()};
  if (image.version.text.empty()) return std::nullopt;
  image.path =
      text_of(plugin.function<decltype(upgrade_new_firmware_name)>("upgrade_new_firmware_name"));
  image.size = plugin.function<decltype(get_file_size)>("get_file_size")(image.path.c_str());
  if (image.size >= 1 && image.size <= kMaxImage) image.crc = crc_of(plugin, image.path);
  return image;
}

FirmwareState driver_side(const host::PluginHost& plugin) {
  const DRIVER_CONFIG_STRUCT& config = wrx::info_of(&plugin.device()).config;
  FirmwareState state;
  state.mode = config.upgrade_mode;
  state.budget = config.upgrade_flag;
  state.image = selected_image(plugin);
  return state;
}

Report show_firmware(Client& client) {
  host::PluginHost& plugin = client.plugin();
  FirmwareState state;
  std::string absent;
  client.run([&] {
    state = driver_side(plugin);
    try {
      const host::OpenDevice opened(plugin);
      state.module = ask_module(plugin);
    } catch (const host::Failure& failure) {
      if (failure.outcome() != Outcome::Absent) throw;
      absent = failure.what();
    }
  });
  const FirmwareDecision decision = decide(state);
  const std::string next =
      decision.upgrade
          ? tr("The next start upgrades the module's firmware, because {}.", decision.why)
          : tr("The next start does not upgrade the module's firmware, because {}.", decision.why);
  Report report{Outcome::Success, next, table(state), object(state, decision)};
  if (!state.module) {
    report.body += next + "\n";
    report.outcome = absent.empty() ? Outcome::Failed : Outcome::Absent;
    report.text = absent.empty() ? tr("the module does not tell its version") : absent;
  }
  return report;
}

}  // namespace wrx::client
