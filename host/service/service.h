// SPDX-License-Identifier: LGPL-2.1-or-later
// The whole service: plug-in, module thread, reader, and their places on the bus.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <memory>
#include <optional>
#include <string>

#include "host/common/plugin_host.h"
#include "host/common/simulation.h"
#include "host/service/bus/authority.h"
#include "host/service/bus/clients.h"
#include "host/service/bus/device_object.h"
#include "host/service/bus/manager_object.h"
#include "host/service/options.h"
#include "host/service/outside/control.h"
#include "host/service/outside/event_loop.h"
#include "host/service/outside/hotplug.h"
#include "host/service/outside/sleep_watch.h"
#include "host/service/outside/trace.h"
#include "host/service/reader/driver_events.h"
#include "host/service/reader/module_thread.h"
#include "host/service/reader/operations.h"
#include "host/service/reader/reader.h"

namespace wrx::service {

class Service {
 public:
  /// Loads everything and takes the name on the bus. Throws host::Failure and sdbus::Error.
  explicit Service(const Options& options);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service();

  /// Serves until it is told to end by a signal on `signals` (a signalfd), or has nothing to do.
  /// SIGHUP shortens the time of having nothing to do to a second.
  void run(int signals);

 private:
  void takeName();
  void startDriver();
  void lookForModule(const Job::Work& first);
  void found(bool present);
  void plugged(bool present);
  void goToSleep(std::function<void()> quiet);
  void wakeUp();
  bool busy() const;
  void used();
  void watchIdleness();
  void leave();
  void signalled(int signals);

  Options options_;
  Trace trace_;
  EventLoop loop_;
  DriverEvents events_;
  std::unique_ptr<host::Simulation> simulation_;
  host::PluginHost host_;
  Operations operations_;
  ModuleThread module_;
  Reader reader_;
  std::unique_ptr<sdbus::IConnection> bus_;
  Clients clients_;
  Authority authority_;
  ManagerObject manager_;
  SleepWatch sleep_;
  std::unique_ptr<HotPlug> hot_plug_;
  std::unique_ptr<Control> control_;
  std::unique_ptr<DeviceObject> object_;
  EventLoop::Timer leaving_{};  // none while somebody is served
  bool started_ = false;
  bool asleep_ = false;
};

}  // namespace wrx::service
