// SPDX-License-Identifier: LGPL-2.1-or-later
// Putting the parts together, and what happens between them.

#include "host/service/service.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "host/common/folders.h"
#include "host/common/outcome.h"

namespace wrx::service {
namespace {

constexpr char kBusName[] = "net.reactivated.Fprint";
constexpr char kDevicePath[] = "/net/reactivated/Fprint/Device/0";

// A module that slept comes back as a new device, a moment after the machine.
constexpr std::chrono::seconds kReturnTime{5};

// Between the calls of one client, which must not find the service gone.
constexpr std::chrono::seconds kMakeWayTime{1};

/// The state folder, for the service's user alone, before anything is put there.
const Options& prepared(const Options& options) {
  if (!host::make_folder_of(options.trace()))
    throw host::Failure(host::Outcome::Usage, "the state folder " + options.state +
                                                  " cannot be made: " + std::strerror(errno));
  bio_host_set_db_path(options.database().c_str());
  bio_host_set_ops_timeout_ms(static_cast<int>(options.wait.count()));
  return options;
}

std::unique_ptr<host::Simulation> simulation_for(const Options& options) {
  if (!options.script) return nullptr;
  return std::make_unique<host::Simulation>(*options.script, options.module_memory());
}

}  // namespace

Service::Service(const Options& options)
    : options_(prepared(options)),
      trace_(options.trace()),
      simulation_(simulation_for(options)),
      host_(options.plugin, options.config),
      operations_(host_, events_),
      module_(loop_, host_),
      reader_(loop_, module_, operations_, host_.device()),
      bus_(sdbus::createSystemBusConnection()),
      clients_(*bus_, [this](const std::string& name) { reader_.leave(name); }),
      authority_(*bus_),
      manager_(*bus_, [this] { used(); }),
      sleep_(
          *bus_, [this](std::function<void()> quiet) { goToSleep(std::move(quiet)); },
          [this] { wakeUp(); }) {
  reader_.onClaimChanged([this] {
    used();
    sleep_.hold(reader_.claimed());
    if (module_.idle()) trace_.rotate();
  });
  // The name comes first: without it another service may have the module in its hands.
  takeName();
  startDriver();
}

Service::~Service() = default;

void Service::takeName() {
  try {
    bus_->requestName(kBusName);
  } catch (const sdbus::Error& error) {
    throw host::Failure(host::Outcome::Refused, std::string("the bus does not give the name ") +
                                                    kBusName +
                                                    "; is another fingerprint service running? (" +
                                                    error.getMessage() + ")");
  }
}

void Service::startDriver() {
  const auto on_change = [this](bool present) { plugged(present); };
  if (simulation_) {
    hot_plug_ = watch_simulation(loop_, *simulation_, on_change);
    if (!options_.control.empty())
      control_ = std::make_unique<Control>(loop_, *simulation_, options_.control);
  } else {
    hot_plug_ = watch_udev(loop_, host_.device().usb_info.id_table, on_change);
  }
  lookForModule([this](Job&) { host_.initialise(); });
}

/// Lets `first` happen on the module's thread, and then looks whether there is a module.
void Service::lookForModule(const Job::Work& first) {
  const auto present = std::make_shared<bool>(false);
  module_.begin(
      [this, first, present](Job& job) {
        first(job);
        *present = operations_.discover();
      },
      [this, present] { found(*present); });
}

void Service::found(bool present) {
  started_ = true;
  used();
  if (!present && object_ != nullptr) {
    if (asleep_ || operations_.returnExpected()) return;
    reader_.vanish();
    object_.reset();
  }
  if (present && object_ == nullptr)
    object_ = std::make_unique<DeviceObject>(*bus_, kDevicePath, reader_, clients_, authority_);
  manager_.setDevice(object_ != nullptr ? kDevicePath : "");
}

void Service::plugged(bool present) {
  if (present) return lookForModule([this](Job&) { operations_.attach(); });
  // The driver would wait for its time-out; a client shall not.
  if (object_ != nullptr && !asleep_ && !operations_.returnExpected()) {
    reader_.vanish();
    object_.reset();
    manager_.setDevice("");
  }
  lookForModule([this](Job&) { operations_.detach(); });
}

void Service::goToSleep(std::function<void()> quiet) {
  asleep_ = true;
  reader_.sleep(std::move(quiet));
}

void Service::wakeUp() {
  asleep_ = false;
  operations_.expectReturn(EventLoop::Clock::now() + kReturnTime);
  reader_.wake();
  // Whether it came back at all is seen when it should have.
  loop_.after(kReturnTime, [this] { lookForModule([](Job&) {}); });
}

// ---- the end ------------------------------------------------------------------------------------

bool Service::busy() const {
  return reader_.claimed() || clients_.busy() || !module_.idle() || !started_ || asleep_;
}

/// The time of having nothing to do begins anew.
void Service::used() {
  loop_.cancel(leaving_);
  leaving_ = EventLoop::Timer{};
}

/// Only who has nothing to do looks at the clock: a held reader wakes nobody.
void Service::watchIdleness() {
  if (busy()) return used();
  if (leaving_ == EventLoop::Timer{} && options_.idle_exit.count() > 0)
    leaving_ = loop_.after(options_.idle_exit, [this] { leave(); });
}

/// Gives the name back first: who asks from now on starts the service anew. Calls that came before
/// are still answered.
void Service::leave() {
  used();
  bus_->releaseName(kBusName);
  EventLoop::serve(*bus_);
  if (!busy()) return loop_.quit();
  bus_->requestName(kBusName);
}

/// An upgrade has replaced the program: it makes way as soon as nobody uses it.
void Service::signalled(int signals) {
  signalfd_siginfo signal{};
  if (read(signals, &signal, sizeof signal) != sizeof signal) return;
  if (signal.ssi_signo != SIGHUP) return loop_.quit();
  options_.idle_exit = kMakeWayTime;
  used();
}

void Service::run(int signals) {
  loop_.watch(signals, [this, signals] { signalled(signals); });
  loop_.beforeWaiting([this] { watchIdleness(); });
  loop_.run(*bus_);
  loop_.unwatch(signals);
  // Whoever still waits is told, and nothing is begun any more.
  reader_.sleep([] {});
  EventLoop::serve(*bus_);
}

}  // namespace wrx::service
