// SPDX-License-Identifier: LGPL-2.1-or-later
// Looking at the bus.

#include "bus_view.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <libusb-1.0/libusb.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "host/common/outcome.h"
#include "upgrade/bootloader.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Failure;
using host::Outcome;
namespace fs = std::filesystem;

/// libusb's functions as the plug-in got them: a simulated module's library stands before all.
struct Library {
  explicit Library(void* handle) : plugin(handle) {}

  template <class Function>
  Function* find(const char* name) const {
    void* address = dlsym(RTLD_DEFAULT, name);
    if (address == nullptr) address = dlsym(plugin, name);
    if (address == nullptr) throw Failure(Outcome::Failed, tr("the driver has no {}", name));
    return reinterpret_cast<Function*>(address);
  }

  void* plugin;
  decltype(libusb_get_device_list)* get_device_list =
      find<decltype(libusb_get_device_list)>("libusb_get_device_list");
  decltype(libusb_free_device_list)* free_device_list =
      find<decltype(libusb_free_device_list)>("libusb_free_device_list");
  decltype(libusb_get_device_descriptor)* get_device_descriptor =
      find<decltype(libusb_get_device_descriptor)>("libusb_get_device_descriptor");
  decltype(libusb_get_bus_number)* get_bus_number =
      find<decltype(libusb_get_bus_number)>("libusb_get_bus_number");
  decltype(libusb_get_device_address)* get_device_address =
      find<decltype(libusb_get_device_address)>("libusb_get_device_address");
  decltype(libusb_open)* open = find<decltype(libusb_open)>("libusb_open");
  decltype(libusb_close)* close = find<decltype(libusb_close)>("libusb_close");
  decltype(libusb_claim_interface)* claim_interface =
      find<decltype(libusb_claim_interface)>("libusb_claim_interface");
  decltype(libusb_release_interface)* release_interface =
      find<decltype(libusb_release_interface)>("libusb_release_interface");
};

void try_door(const Library& usb, libusb_device* device, SeenModule& module) {
  libusb_device_handle* handle = nullptr;
  module.opened = usb.open(device, &handle);
  if (module.opened != 0) return;
  module.claimed = usb.claim_interface(handle, 0);
  if (module.claimed == 0) usb.release_interface(handle, 0);
  usb.close(handle);
}

/// The driver's tables as one list: its id table and the bootloader's identity.
std::vector<SeenModule> identities(const host::PluginHost& plugin) {
  std::vector<SeenModule> all;
  const usb_id* row = plugin.device().usb_info.id_table;
  for (; row != nullptr && row->idVendor != 0; ++row)
    all.push_back({row->idVendor, row->idProduct, 0, 0, row->description, false, 0, 0});
  plugin.function<decltype(upgrade_module_init)>("upgrade_module_init")();
  const usb_dev& boot = plugin.function<UPGRADE_PARAM>("upgrade_param")->udev;
  all.push_back({static_cast<int>(boot.vid), static_cast<int>(boot.pid), 0, 0,
                 tr("the module's bootloader"), true, 0, 0});
  return all;
}

/// Whether a process has `node` open: no, when it has ended meanwhile or is another user's.
bool has_open(const fs::path& process, const std::string& node) {
  std::error_code gone;
  fs::directory_iterator file(process / "fd", gone);
  for (; !gone && file != fs::directory_iterator(); file.increment(gone)) {
    std::error_code closed;
    if (fs::read_symlink(file->path(), closed) == node) return true;
  }
  return false;
}

}  // namespace

std::string SeenModule::id() const {
  return fmt::format("{:04x}:{:04x}", vendor, product);
}

std::string SeenModule::node() const {
  return fmt::format("/dev/bus/usb/{:03}/{:03}", bus, address);
}

SeenBus look_at_bus(const host::PluginHost& plugin) {
  const Library usb(plugin.device().plugin_handle);
  const auto known = identities(plugin);
  SeenBus seen;
  libusb_device** list = nullptr;
  seen.devices = static_cast<int>(usb.get_device_list(nullptr, &list));
  for (int i = 0; i < seen.devices; ++i) {
    libusb_device_descriptor descriptor{};
    if (usb.get_device_descriptor(list[i], &descriptor) != 0) continue;
    const auto row = std::ranges::find_if(known, [&](const SeenModule& each) {
      return each.vendor == descriptor.idVendor && each.product == descriptor.idProduct;
    });
    if (row == known.end()) continue;
    SeenModule& module = seen.modules.emplace_back(*row);
    module.bus = usb.get_bus_number(list[i]);
    module.address = usb.get_device_address(list[i]);
    try_door(usb, list[i], module);
  }
  if (seen.devices >= 0) usb.free_device_list(list, 1);
  return seen;
}

std::vector<std::string> holders(const std::string& node) {
  std::vector<std::string> found;
  std::error_code ignored;
  for (const fs::directory_entry& process : fs::directory_iterator("/proc", ignored)) {
    const std::string pid = process.path().filename();
    if (pid.find_first_not_of("0123456789") != pid.npos || pid == std::to_string(getpid()))
      continue;
    if (!has_open(process.path(), node)) continue;
    std::string program;
    std::getline(std::ifstream(process.path() / "comm"), program);
    found.push_back(fmt::format("{} (pid {})", program, pid));
  }
  return found;
}

}  // namespace wrx::client
