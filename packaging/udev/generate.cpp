// SPDX-License-Identifier: LGPL-2.1-or-later
// Writes what the system has to know of the module's identities from the driver's own tables, its
// USB ids and the identity it looks for a bootloader under: the udev rules, the hardware database,
// and what a software centre reads.
//
//   wrx-generate-udev rules|hwdb|metainfo

#include <dlfcn.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "frame/driver.h"
#include "host/common/folders.h"
#include "upgrade/bootloader.h"

namespace {

struct Identity {
  int vendor, product;
  std::string name;
};

void* loaded(const std::string& library, int flags) {
  void* handle = dlopen(library.c_str(), RTLD_NOW | flags);
  if (handle == nullptr) throw std::runtime_error(dlerror());
  return handle;
}

template <class Type>
Type* found(void* library, const char* name) {
  void* address = dlsym(library, name);
  if (address == nullptr) throw std::runtime_error(dlerror());
  return reinterpret_cast<Type*>(address);
}

/// The identities in the driver's order, the bootloader last. The simulated bus stands in for this
/// machine's, which a build may not be allowed to look at.
std::vector<Identity> identities() {
  loaded(wrx::host::module_library(), RTLD_GLOBAL);
  void* plugin = loaded(wrx::host::default_plugin(), RTLD_LOCAL);
  std::vector<Identity> all;
  for (const usb_id* row = *found<usb_id[4]>(plugin, "wrx7700_id_table"); row->idVendor != 0; ++row)
    all.push_back({row->idVendor, row->idProduct, row->description});
  if (found<decltype(upgrade_module_init)>(plugin, "upgrade_module_init")() != 0)
    throw std::runtime_error("the driver does not tell its bootloader's identity");
  const usb_dev& boot = found<UPGRADE_PARAM>(plugin, "upgrade_param")->udev;
  all.push_back({static_cast<int>(boot.vid), static_cast<int>(boot.pid), "TRV WRX bootloader"});
  return all;
}

constexpr char kMade[] = "Made from the driver's tables by wrx-generate-udev; do not edit.";

std::string rules() {
  std::string text = fmt::format("# {}\n", kMade);
  text +=
      "# The module obeys whoever may write to its device node: it can be told to forget a finger\n"
      "# or to learn one. So the node belongs to a group of its own, and to nobody else; a seat's\n"
      "# user gets no access of their own either. Without persist, a module that lost its power\n"
      "# while the machine slept comes back as a new device.\n"
      "ACTION==\"remove\", GOTO=\"wrx5300_end\"\n"
      "SUBSYSTEM!=\"usb\", GOTO=\"wrx5300_end\"\n"
      "ENV{DEVTYPE}!=\"usb_device\", GOTO=\"wrx5300_end\"\n";
  for (const Identity& id : identities())
    text += fmt::format(
        "\n# {}\n"
        "ATTR{{idVendor}}==\"{:04x}\", ATTR{{idProduct}}==\"{:04x}\", ENV{{WRX5300}}=\"1\"\n",
        id.name, id.vendor, id.product);
  return text +
         "\nENV{WRX5300}!=\"1\", GOTO=\"wrx5300_end\"\n"
         "GROUP=\"wrx5300\", MODE=\"0660\"\n"
         "TEST==\"power/control\", ATTR{power/control}=\"auto\"\n"
         "TEST==\"power/persist\", ATTR{power/persist}=\"0\"\n"
         "LABEL=\"wrx5300_end\"\n";
}

std::string hwdb() {
  std::string text = fmt::format("# {}\n", kMade);
  for (const Identity& id : identities())
    text += fmt::format(
        "\n# {}\n"
        "usb:v{:04X}p{:04X}*\n"
        " ID_MODEL_FROM_DATABASE={}\n"
        " ID_AUTOSUSPEND=1\n"
        " ID_PERSIST=0\n",
        id.name, id.vendor, id.product, id.name);
  return text;
}

/// With it a software centre offers the package that has the file when the module is plugged in.
std::string metainfo() {
  std::string text = fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!-- {} -->\n",
      kMade);
  text +=
      "<component type=\"driver\">\n"
      "  <id>net.wrx5300.wrxd</id>\n"
      "  <metadata_license>FSFAP</metadata_license>\n"
      "  <project_license>LGPL-2.1-or-later</project_license>\n"
      "  <name>WRX5300 fingerprint reader</name>\n"
      "  <summary>Log in with the WRX5300 fingerprint module</summary>\n"
      "  <description>\n"
      "    <p>Driver and service for the WRX5300 USB fingerprint module: log in, unlock the "
      "screen\n"
      "    and use sudo with a finger.</p>\n"
      "  </description>\n"
      "  <provides>\n";
  for (const Identity& id : identities())
    text += fmt::format("    <modalias>usb:v{:04X}p{:04X}d*</modalias>\n", id.vendor, id.product);
  return text + "  </provides>\n</component>\n";
}

struct Kind {
  std::string_view name;
  std::string (*text)();
};
constexpr Kind kKinds[] = {{"rules", rules}, {"hwdb", hwdb}, {"metainfo", metainfo}};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view wanted = argc == 2 ? argv[1] : "";
  const Kind* kind = std::ranges::find(kKinds, wanted, &Kind::name);
  if (kind == std::end(kKinds)) {
    fmt::print(stderr, "usage: wrx-generate-udev rules|hwdb|metainfo\n");
    return 2;
  }
  try {
    fmt::print("{}", kind->text());
    return 0;
  } catch (const std::exception& error) {
    fmt::print(stderr, "wrx-generate-udev: {}\n", error.what());
    return 1;
  }
}
