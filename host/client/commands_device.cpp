// SPDX-License-Identifier: LGPL-2.1-or-later
// Commands about the driver and its module: info, discover, init.

#include <fmt/format.h>

#include "commands.h"
#include "firmware.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Outcome;

nlohmann::json usb_ids(const bio_dev& device) {
  nlohmann::json ids = nlohmann::json::array();
  for (const usb_id* row = device.usb_info.id_table; row != nullptr && row->idVendor != 0; ++row)
    ids.push_back({{"vendor", row->idVendor},
                   {"product", row->idProduct},
                   {"description", row->description}});
  return ids;
}

/// Follows a rewrite of the simulated module's flash, which is the one that can be watched.
class FlashWatch {
 public:
  explicit FlashWatch(Client& client) : client_(client) {
    if (const auto image = selected_image(client.plugin())) size_ = static_cast<int>(image->size);
  }
  /// Called again and again while the driver starts.
  void look() {
    const auto state = nlohmann::json::parse(client_.simulatedState(), nullptr, false);
    if (size_ == 0 || !state.is_object() || state.value("mode", "") != "bootloader") return;
    const int bytes = state.contains("flash") ? state["flash"].value("bytes", 0) : 0;
    // Before it is erased the flash still holds the old image.
    if (!erased_ && (erased_ = bytes == 0 || bytes < last_)) show(0);
    last_ = bytes;
    if (erased_ && bytes - shown_ >= size_ / kLines) show(bytes);
  }
  /// Called when the driver has started.
  void finish() {
    if (rewritten() && shown_ < size_) show(size_);
  }
  bool rewritten() const { return erased_; }

 private:
  static constexpr int kLines = 20;

  void show(int bytes) {
    shown_ = bytes;
    client_.output().progress(N_("firmware byte"), bytes, size_);
  }

  Client& client_;
  int size_ = 0;
  int last_ = 0;
  int shown_ = 0;
  bool erased_ = false;
};

/// What the driver heard at its start, and what the module answers after it.
struct Start {
  int found = 0;
  FirmwareVersion before;
  std::optional<FirmwareVersion> now;
};

Start start_driver(Client& client) {
  Start start;
  client.run([&] {
    host::PluginHost& plugin = client.plugin();
    plugin.initialise();
    start.found = plugin.discover();
    start.before = last_heard(plugin);
    if (start.found < 1 || plugin.device().enable == 0) return;
    const host::OpenDevice opened(plugin);
    start.now = ask_module(plugin);
  });
  return start;
}

std::string story(const Start& start, bool upgraded) {
  if (!start.now) return tr("The driver has started and found the module.");
  if (!upgraded) return tr("The driver has started; the module runs {}.", start.now->text);
  return tr("The driver has started and upgraded the module from {} to {}.",
            start.before.text.empty() ? tr("its bootloader") : start.before.text, start.now->text);
}

}  // namespace

Report show_info(Client& client) {
  const bio_dev& device = client.device();
  const Options& options = client.options();
  const bio_api_version& api = device.drv_api_version;
  const std::string version = fmt::format("{}.{}.{}", api.major, api.minor, api.function);
  const bool enabled = device.enable != 0;
  std::string body = tr("Driver:    {} ({}), interface {}, {}\n", device.device_name,
                        device.full_name, version, enabled ? tr("enabled") : tr("disabled"));
  for (const auto& id : usb_ids(device))
    body += tr("USB id:    {:04x}:{:04x} {}\n", id["vendor"].get<int>(), id["product"].get<int>(),
               id["description"].get<std::string>());
  body += tr("Plug-in:   {}\nConfig:    {}\nDatabase:  {}\nTrace:     {}\n", options.plugin,
             options.config.empty() ? tr("none") : options.config, options.database, options.trace);
  if (options.simulate) body += tr("Simulated: memory in {}\n", options.templates);
  return {Outcome::Success,
          tr("The driver is loaded and configured."),
          body,
          {{"device_name", device.device_name},
           {"full_name", device.full_name},
           {"interface", version},
           {"enabled", enabled},
           {"usb_ids", usb_ids(device)},
           {"plugin", options.plugin},
           {"config", options.config},
           {"database", options.database},
           {"trace", options.trace},
           {"simulated", options.simulate}}};
}

Report discover(Client& client) {
  int found = 0;
  client.run([&] {
    client.plugin().initialise();
    found = client.plugin().discover();
  });
  if (found < 1) return {Outcome::Absent, no_module(), "", {{"found", 0}}};
  return {Outcome::Success, tr("Found {}.", client.device().full_name), "", {{"found", found}}};
}

Report initialise(Client& client) {
  FlashWatch watch(client);
  client.onTick([&watch] { watch.look(); });
  client.output().note(tr("Starting the driver; leave the module plugged in."));
  const Start start = start_driver(client);
  client.onTick({});
  if (start.found < 1)
    return {Outcome::Absent, no_module(), "", {{"found", 0}, {"upgraded", false}}};
  watch.finish();
  const bool changed =
      start.now && !start.before.text.empty() && start.before.text != start.now->text;
  const bool upgraded = watch.rewritten() || changed;
  Report report{Outcome::Success,
                story(start, upgraded),
                "",
                {{"found", start.found}, {"upgraded", upgraded}}};
  if (start.now) report.data["version"] = start.now->text;
  return report;
}

Report run_command(Client& client) {
  using Function = Report (*)(Client&);
  // In the order of Command.
  static constexpr Function kFunctions[] = {show_info,        discover,      initialise,
                                            enroll,           verify,        identify,
                                            search,           list,          clean,
                                            show_firmware,    doctor,        fsck,
                                            module_handshake, module_serial, module_parameters,
                                            module_info_page, module_count,  module_slots,
                                            module_image};
  static_assert(std::size(kFunctions) == kCommandCount);
  return kFunctions[static_cast<int>(client.options().command)](client);
}

}  // namespace wrx::client
