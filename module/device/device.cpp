// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Power, presence and time of the module; everything said to it goes on to the application or the
// bootloader.
#include "module/device/device.h"

#include <algorithm>
#include <utility>

#include "module/device/packet.h"

namespace wrx_module {
namespace {

constexpr uint16_t kBootVendor = 0x1234, kBootProduct = 0xabce;
constexpr uint8_t kOut = 0x01, kIn = 0x81, kBootOut = 0x04, kBootIn = 0x84;

}  // namespace

Device::Device(Clock& clock, const Settings& settings)
    : Device(clock, settings, factory_memory(settings.identity.version)) {}

Device::Device(Clock& clock, Settings settings, Memory memory)
    : clock_(clock),
      settings_(std::move(settings)),
      memory_(std::move(memory)),
      last_us_(clock.now_us()) {
  plug(last_us_);
  advance_to(last_us_);
}

int64_t Device::moment(std::optional<int64_t> at_us) {
  advance_to(at_us.value_or(clock_.now_us()));
  return last_us_;
}

void Device::advance() {
  advance_to(clock_.now_us());
}

void Device::advance_to(int64_t now_us) {
  last_us_ = std::max(last_us_, now_us);
  for (;;) {
    const int64_t until = std::min(last_us_, move_at_us_);
    if (application_) application_->advance(until);
    take_requests();
    if (move_ == Move::none || move_at_us_ > last_us_) return;
    const int64_t at = move_at_us_;
    if (std::exchange(move_, Move::none) == Move::leave) {
      leave(at);
    } else {
      appear(at);
    }
  }
}

// A reboot or a start of the application was asked for: the module leaves the bus a little later.
void Device::take_requests() {
  if (move_ != Move::none || !on_bus_) return;
  const RebootSettings& times = settings_.reboot;
  if (application_ && application_->reboot_asked_us()) {
    schedule(Move::leave, *application_->reboot_asked_us() + times.leave_us, Mode::bootloader);
  } else if (bootloader_ && bootloader_->run_asked_us()) {
    schedule(Move::leave, *bootloader_->run_asked_us() + times.run_leave_us, Mode::application);
  }
}

void Device::schedule(Move move, int64_t at_us, Mode mode) {
  move_ = move;
  move_at_us_ = at_us;
  next_mode_ = mode;
}

void Device::leave(int64_t at_us) {
  on_bus_ = false;
  move_at_us_ = kNever;
  application_.reset();
  bootloader_.reset();
  if (told_) told_({at_us, mode_, false});
  const bool to_boot = next_mode_ == Mode::bootloader;
  const int64_t delay =
      to_boot ? settings_.reboot.bootloader_appears_us : settings_.reboot.application_appears_us;
  if (delay >= 0) schedule(Move::appear, at_us + delay, next_mode_);
}

void Device::appear(int64_t at_us) {
  on_bus_ = true;
  move_at_us_ = kNever;
  mode_ = next_mode_;
  ++enumeration_;
  if (mode_ == Mode::application) {
    start_application();
  } else {
    bootloader_ = std::make_unique<Bootloader>(settings_, memory_, boot_commands_);
  }
  if (told_) told_({at_us, mode_, true});
}

void Device::start_application() {
  if (std::exchange(memory_.new_image, false)) {
    const BootloaderSettings& boot = settings_.bootloader;
    if (boot.version_of_image) {
      memory_.version = boot.version_of_image(memory_.flash);
    } else if (const auto version = version_in_image(memory_.flash)) {
      memory_.version = *version;
    } else {
      memory_.version = boot.next_version.value_or(memory_.version);
    }
  }
  application_ = std::make_unique<Application>(settings_, memory_, sensor_, commands_);
}

void Device::lose_power(int64_t at_us) {
  powered_ = false;
  move_ = Move::none;
  move_at_us_ = kNever;
  application_.reset();
  bootloader_.reset();
  if (std::exchange(on_bus_, false) && told_) told_({at_us, mode_, false});
}

void Device::plug(std::optional<int64_t> at_us) {
  const int64_t at = moment(at_us);
  if (powered_) return;
  powered_ = true;
  const Mode mode = bootable(memory_) ? Mode::application : Mode::bootloader;
  if (settings_.reboot.power_up_us >= 0) {
    schedule(Move::appear, at + settings_.reboot.power_up_us, mode);
  }
  advance_to(last_us_);
}

void Device::unplug(std::optional<int64_t> at_us) {
  lose_power(moment(at_us));
}

void Device::cut_power(std::optional<int64_t> at_us) {
  lose_power(moment(at_us));
}

void Device::power_cycle(std::optional<int64_t> at_us) {
  cut_power(at_us);
  plug(at_us);
}

void Device::bus_reset() {
  const int64_t at = moment({});
  if (!on_bus_) return;
  if (told_) told_({at, mode_, false});
  ++enumeration_;
  if (told_) told_({at, mode_, true});
}

void Device::press(Press press, std::optional<int64_t> at_us) {
  const int64_t at = moment(at_us);
  sensor_.press(std::move(press), at);
  advance_to(at);
}

void Device::lift(std::optional<int64_t> at_us) {
  moment(at_us);
  sensor_.lift();
}

void Device::queue_press(Press press) {
  moment({});
  sensor_.queue(std::move(press));
}

std::optional<Presence> Device::present() {
  advance();
  if (!on_bus_) return std::nullopt;
  Presence presence = {settings_.usb.vendor,     settings_.usb.product, mode_,
                       settings_.usb.bus_number, settings_.usb.address, enumeration_};
  if (mode_ == Mode::bootloader) {
    presence.vendor = kBootVendor;
    presence.product = kBootProduct;
  }
  return presence;
}

OutResult Device::out(uint8_t endpoint, std::span<const uint8_t> data) {
  advance();
  if (!on_bus_) return {OutStatus::gone};
  OutResult result{OutStatus::stall};
  if (application_ && endpoint == kOut) result = application_->out(last_us_, data);
  if (bootloader_ && endpoint == kBootOut) result = bootloader_->out(last_us_, data);
  advance_to(last_us_);
  return result;
}

InResult Device::in(uint8_t endpoint, size_t max) {
  advance();
  if (!on_bus_) return {InStatus::gone, {}};
  if (application_ && endpoint == kIn) return application_->in(last_us_, max);
  if (bootloader_ && endpoint == kBootIn) return bootloader_->in(last_us_, max);
  return {InStatus::stall, {}};
}

int64_t Device::next_event_us() {
  advance();
  int64_t next = move_ == Move::none ? kNever : move_at_us_;
  if (application_) next = std::min(next, application_->next_event_us(last_us_));
  if (bootloader_) next = std::min(next, bootloader_->next_event_us(last_us_));
  return next;
}

void Device::say(std::span<const uint8_t> payload, uint8_t type) {
  say_raw(packet(type, payload));
}

void Device::say_raw(std::vector<uint8_t> bytes) {
  advance();
  if (!application_) return;
  Answers& answers = application_->answers();
  answers.push(last_us_, answers.next_step(), std::move(bytes));
}

bool Device::enrolling() {
  advance();
  return application_ && application_->procedure().enrolling();
}

bool Device::identifying() {
  advance();
  return application_ && !application_->procedure().idle() && !enrolling();
}

void Device::on_bus_event(std::function<void(const BusEvent&)> told) {
  told_ = std::move(told);
}

}  // namespace wrx_module
