// SPDX-License-Identifier: LGPL-2.1-or-later
// Events of udev, and looks at the simulated module.

#include "host/service/outside/hotplug.h"

#include <libudev.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

namespace wrx::service {
namespace {

struct Unref {
  void operator()(udev* context) const { udev_unref(context); }
  void operator()(udev_monitor* monitor) const { udev_monitor_unref(monitor); }
  void operator()(udev_device* device) const { udev_device_unref(device); }
};
template <class T>
using Owned = std::unique_ptr<T, Unref>;

/// Whether the table has the device: its PRODUCT says "4d2e/5300/100", without leading zeros.
bool known(const usb_id* ids, const char* product) {
  unsigned vendor = 0;
  unsigned model = 0;
  if (product == nullptr || std::sscanf(product, "%x/%x/", &vendor, &model) != 2) return false;
  for (const usb_id* row = ids; row->idVendor != 0; ++row)
    if (row->idVendor == vendor && row->idProduct == model) return true;
  return false;
}

class UdevHotPlug : public HotPlug {
 public:
  UdevHotPlug(EventLoop& loop, const usb_id* ids, Plugged plugged)
      : loop_(loop), ids_(ids), plugged_(std::move(plugged)), context_(udev_new()) {
    if (context_ == nullptr) return;
    monitor_.reset(udev_monitor_new_from_netlink(context_.get(), "udev"));
    if (monitor_ == nullptr) return;
    udev_monitor_filter_add_match_subsystem_devtype(monitor_.get(), "usb", "usb_device");
    if (udev_monitor_enable_receiving(monitor_.get()) == 0)
      loop_.watch(udev_monitor_get_fd(monitor_.get()), [this] { receive(); });
    else
      monitor_.reset();
  }
  ~UdevHotPlug() override {
    if (monitor_ != nullptr) loop_.unwatch(udev_monitor_get_fd(monitor_.get()));
  }
  bool works() const { return monitor_ != nullptr; }

 private:
  void receive() {
    const Owned<udev_device> device(udev_monitor_receive_device(monitor_.get()));
    if (device == nullptr) return;
    if (!known(ids_, udev_device_get_property_value(device.get(), "PRODUCT"))) return;
    const char* action = udev_device_get_action(device.get());
    const std::string_view word = action != nullptr ? action : "";
    if (word == "add" || word == "remove") plugged_(word == "add");
  }

  EventLoop& loop_;
  const usb_id* ids_;
  Plugged plugged_;
  Owned<udev> context_;
  Owned<udev_monitor> monitor_;
};

class SimulatedHotPlug : public HotPlug {
 public:
  SimulatedHotPlug(EventLoop& loop, const host::Simulation& simulation, Plugged plugged)
      : loop_(loop), simulation_(simulation), plugged_(std::move(plugged)), present_(look()) {
    again();
  }
  ~SimulatedHotPlug() override { loop_.cancel(timer_); }

 private:
  static constexpr std::chrono::milliseconds kPeriod{25};

  bool look() const {
    const auto state = nlohmann::json::parse(simulation_.report(), nullptr, false);
    return state.is_object() && state.value("mode", "") == "application";
  }

  void again() {
    timer_ = loop_.after(kPeriod, [this] {
      again();
      if (look() == present_) return;
      present_ = !present_;
      plugged_(present_);
    });
  }

  EventLoop& loop_;
  const host::Simulation& simulation_;
  Plugged plugged_;
  bool present_;
  EventLoop::Timer timer_ = 0;
};

}  // namespace

std::unique_ptr<HotPlug> watch_udev(EventLoop& loop, const usb_id* ids, Plugged plugged) {
  auto watch = std::make_unique<UdevHotPlug>(loop, ids, std::move(plugged));
  if (!watch->works()) return nullptr;
  return watch;
}

std::unique_ptr<HotPlug> watch_simulation(EventLoop& loop, const host::Simulation& simulation,
                                          Plugged plugged) {
  return std::make_unique<SimulatedHotPlug>(loop, simulation, std::move(plugged));
}

}  // namespace wrx::service
