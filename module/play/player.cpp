// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Steps of a script, each at its moment.
#include "module/play/player.h"

#include <utility>

#include "module/device/clock.h"

namespace wrx_module {
namespace {

template <typename... Fs>
struct Overloaded : Fs... {
  using Fs::operator()...;
};
template <typename... Fs>
Overloaded(Fs...) -> Overloaded<Fs...>;

}  // namespace

Player::Player(Device& device, FaultPlan& faults, Script script, int64_t start_us)
    : device_(&device), faults_(&faults), script_(std::move(script)), start_us_(start_us) {
  advance(start_us);
}

int64_t Player::next_event_us() const {
  if (next_ == script_.steps.size()) return kNever;
  return start_us_ + script_.steps[next_].at_us.value_or(0);
}

void Player::advance(int64_t now_us) {
  while (next_event_us() <= now_us) {
    const Step& step = script_.steps[next_];
    const auto at = step.at_us ? std::optional(start_us_ + *step.at_us) : std::nullopt;
    ++next_;
    run(step, at);
  }
}

void Player::run(const Step& step, std::optional<int64_t> at_us) {
  const auto press = [&](const PressAction& action) {
    if (at_us) return device_->press(action.press, at_us);
    for (int i = 0; i < action.times; ++i)
      device_->queue_press(action.press);
  };
  const auto power = [&](PowerAction action) {
    switch (action) {
      case PowerAction::plug:
        return device_->plug(at_us);
      case PowerAction::unplug:
        return device_->unplug(at_us);
      case PowerAction::cut_power:
        return device_->cut_power(at_us);
      case PowerAction::power_cycle:
        return device_->power_cycle(at_us);
    }
  };
  const auto fault = [&](const FaultAction& action) {
    Fault due = action.fault;
    due.at += faults_->count();
    faults_->add(due);
  };
  std::visit(
      Overloaded{press, power, fault, [&](const LiftAction&) { device_->lift(at_us); },
                 [&](const PowerUpAction& a) { device_->settings().power_up = a.power_up; },
                 [&](const RefuseAction& a) { device_->settings().refuse[a.command] = a.refusal; },
                 [&](const SetAction& a) { apply_setting(*device_, a); }},
      step.action);
}

}  // namespace wrx_module
