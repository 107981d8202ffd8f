// SPDX-License-Identifier: LGPL-2.1-or-later
// The checks that ask the system: bus, rights, who holds the module, its power, configuration.

#include <glib.h>
#include <libusb-1.0/libusb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

#include "base/paths.h"
#include "doctor.h"
#include "records/configuration_keys.h"
#include "records/driver_info.h"
#include "transport/usb_device.h"
#include "words.h"

namespace wrx::client {
namespace {

namespace fs = std::filesystem;

struct KeyFileCloser {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileCloser>;

/// Null, with the reason, for a file that is no key file.
KeyFile load(const std::string& path, std::string& why) {
  KeyFile file(g_key_file_new());
  GError* error = nullptr;
  if (g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, &error)) return file;
  why = error->message;
  g_error_free(error);
  return nullptr;
}

/// A key of a configuration, and what it may be.
struct Key {
  const char* name;
  const char* words;  ///< the words it may be, each between spaces; null: a whole number
};

constexpr Key kFrameworkKeys[] = {{"Enable", " true false "},
                                  {keys::kPrintfLogFlag, nullptr},
                                  {keys::kModeFlag, nullptr},
                                  {keys::kRebootFlag, nullptr}};
constexpr Key kDriverKeys[] = {
    {keys::kPrintfLogFlag, nullptr},
    {keys::kAutoSuspend, nullptr},
    {keys::kUpgradeFlag, nullptr},
    {keys::kUpgradeMode, " FORCE_UPGRADE DONT_UPGRADE AUTO_UPGRADE SMART_UPGRADE "},
};

bool fits(const Key& key, const std::string& value) {
  if (key.words != nullptr)
    return std::string_view(key.words).find(" " + value + " ") != std::string_view::npos;
  const std::size_t digits = value.starts_with('-') ? 1 : 0;
  return value.size() > digits && value.find_first_not_of("0123456789", digits) == value.npos;
}

/// The first key of the group that the driver will not understand; empty when there is none. An
/// absent key has a default.
template <std::size_t N>
std::string misfit(GKeyFile* file, const char* group, const Key (&keys)[N]) {
  for (const Key& key : keys) {
    char* text = g_key_file_get_string(file, group, key.name, nullptr);
    if (text == nullptr) continue;
    const std::string value = text;
    g_free(text);
    if (!fits(key, value)) return std::string(key.name) + "=" + value;
  }
  return "";
}

/// Who may write the file may switch the driver off, or have it rewrite firmware.
bool others_may_write(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && (status.st_mode & 022) != 0;
}

template <std::size_t N>
Finding check_config(const std::string& path, const char* group, const Key (&keys)[N]) {
  std::string why;
  const KeyFile file = load(path, why);
  if (!file)
    return {Health::Bad, tr("{} cannot be used: {}", path, why),
            tr("mend it, or install it again; see man 5 {}", fs::path(path).filename().string())};
  if (!g_key_file_has_group(file.get(), group))
    return {Health::Note, tr("{} has no group [{}]: the defaults hold", path, group), ""};
  if (const std::string bad = misfit(file.get(), group, keys); !bad.empty())
    return {Health::Bad, tr("{}: the driver does not understand \"{}\"", path, bad),
            tr("see man 5 {}", fs::path(path).filename().string())};
  if (others_may_write(path))
    return {Health::Note, tr("others than its owner may write {}", path),
            tr("type: sudo chmod go-w {}", path)};
  return {Health::Ok, path, ""};
}

std::string attribute(const fs::path& folder, const char* name) {
  std::string value;
  std::getline(std::ifstream(folder / "power" / name), value);
  return value;
}

}  // namespace

bool readable_config(const std::string& path) {
  std::string ignored;
  return path.empty() || load(path, ignored) != nullptr;
}

Finding check_bus(Scene& scene) {
  scene.bus = look_at_bus(scene.client.plugin());
  const auto& modules = scene.bus.modules;
  if (scene.bus.devices < 0)
    return {Health::Bad, tr("the USB bus cannot be read"), tr("type: ls -l /dev/bus/usb")};
  const auto application = std::ranges::find(modules, false, &SeenModule::bootloader);
  if (application != modules.end()) {
    scene.module = &*application;
    return {Health::Ok,
            tr("{} {} on bus {}, device {}", application->id(), application->description,
               application->bus, application->address),
            ""};
  }
  if (!modules.empty())
    return {Health::Bad, tr("the module is in its bootloader ({})", modules.front().id()),
            tr("put an image into {}, set UpgradeFlag=1 in {}, and type: wrxctl init",
               wrx::paths::kExtraFolder, wrx::paths::kExtraConfig)};
  return {Health::Bad,
          tr_n("no module among {} USB device", "no module among {} USB devices",
               static_cast<std::size_t>(scene.bus.devices), scene.bus.devices),
          tr("plug the module in; what the machine sees is shown by: lsusb")};
}

Finding check_rights(Scene& scene) {
  const SeenModule& module = *scene.module;
  if (module.opened == 0) return {Health::Ok, tr("you may use {}", module.node()), ""};
  if (module.opened == LIBUSB_ERROR_ACCESS)
    return {Health::Bad, tr("you may not use {}", module.node()),
            tr("type: sudo usermod -aG wrx5300 $USER; then log in again and replug the module")};
  return {Health::Bad, tr("{} cannot be opened (error {})", module.node(), module.opened),
          tr("pull it out, plug it in again, and type: wrxctl doctor")};
}

Finding check_holder(Scene& scene) {
  const SeenModule& module = *scene.module;
  if (scene.client.options().simulate)
    return module.claimed == 0 ? Finding{Health::Ok, tr("nobody else holds the module"), ""}
                               : Finding{Health::Note, tr("a kernel driver holds it"), ""};
  const auto programs = holders(module.node());
  const std::string names = fmt::format("{}", fmt::join(programs, ", "));
  if (module.claimed == 0 && programs.empty())
    return {Health::Ok, tr("nobody else holds the module"), ""};
  if (module.claimed == 0)
    return {Health::Note, tr("{} has it open as well", names),
            tr("do not use both at once; type: systemctl status fprintd")};
  if (programs.empty())
    return {Health::Bad, tr("its interface is held by the kernel or another user's program"),
            tr("type: sudo wrxctl doctor")};
  return {Health::Bad, tr("its interface is held by {}", names),
          tr("end it, for the service: sudo systemctl stop fprintd")};
}

Finding check_power(Scene& scene) {
  const host::PluginHost& plugin = scene.client.plugin();
  plugin.function<decltype(usb_dev_get_port_path)>("usb_dev_get_port_path")();
  const fs::path folder = plugin.function<USB_DEV_STRUCT>("usb_dev_param")->dev_port_path;
  const bool wanted = wrx::info_of(&plugin.device()).config.autosuspend_flag == 1;
  std::error_code ignored;
  if (folder.empty() || !fs::is_directory(folder, ignored))
    return {Health::Skipped, tr("the module has no folder in sysfs"), ""};
  const std::string control = attribute(folder, "control");
  const std::string advice =
      tr("install the udev rule, and type: sudo udevadm trigger --subsystem-match=usb");
  if (wanted && control != "auto")
    return {Health::Note, tr("the kernel keeps the module awake (power/control is {})", control),
            advice};
  if (attribute(folder, "persist") == "1")
    return {Health::Note, tr("the kernel takes a module that slept for the same (power/persist)"),
            advice};
  return {Health::Ok,
          tr("{}: control {}, delay {} ms", folder.string(), control,
             attribute(folder, "autosuspend_delay_ms")),
          ""};
}

Finding check_framework_config(Scene& scene) {
  const std::string& path = scene.client.options().config;
  if (path.empty())
    return {Health::Note, tr("there is no {}: the defaults hold", wrx::paths::kHostConfig), ""};
  return check_config(path, scene.client.device().device_name, kFrameworkKeys);
}

Finding check_driver_config(Scene&) {
  const std::string path = wrx::paths::kExtraConfig;
  std::error_code ignored;
  if (!fs::exists(path, ignored))
    return {Health::Note, tr("there is no {}: no autosuspend, no upgrades", path),
            tr("install it again; see man 5 {}", fs::path(path).filename().string())};
  return check_config(path, keys::kGroup, kDriverKeys);
}

}  // namespace wrx::client
