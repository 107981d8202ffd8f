// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The bench and its waiting.
#include "module/usb/bus.h"

#include <algorithm>
#include <utility>

namespace wrx_module {
namespace {

// How long a host without a limit of its own endures a transfer that never completes.
constexpr int64_t kPatienceUs = 1'000'000;

std::string event_text(const BusEvent& event) {
  const std::string who = event.mode == Mode::application ? "module" : "bootloader";
  return who + (event.appears ? " appears" : " leaves the bus");
}

BulkStatus outcome(TransferStatus status) {
  switch (status) {
    case TransferStatus::done:
      return BulkStatus::done;
    case TransferStatus::pending:
      return BulkStatus::timed_out;
    case TransferStatus::stalled:
      return BulkStatus::stalled;
    case TransferStatus::io_error:
      return BulkStatus::io_error;
    case TransferStatus::gone:
      return BulkStatus::gone;
    case TransferStatus::overflowed:
      return BulkStatus::overflowed;
  }
  return BulkStatus::gone;
}

}  // namespace

Bus& bus() {
  static Bus the_bus;
  return the_bus;
}

void Bus::reset() {
  const std::lock_guard lock(mutex_);
  for (Attached& attached : attached_)
    attached.device->on_bus_event({});
  attached_.clear();
  clock_ = &real_clock_;
  faults_.clear();
  faults_.on_death = {};
  sink_ = {};
  events_.clear();
  live_ = {};
  refused_ = {};
  handles_ = 0;
}

void Bus::set_clock(Clock& clock) {
  const std::lock_guard lock(mutex_);
  clock_ = &clock;
}

Clock& Bus::clock() {
  const std::lock_guard lock(mutex_);
  return *clock_;
}

void Bus::attach(Device& device) {
  const std::lock_guard lock(mutex_);
  device.on_bus_event([this](const BusEvent& event) {
    TraceRecord record;
    record.kind = TraceKind::bus_event;
    record.at_us = event.at_us;
    record.text = event_text(event);
    events_.push_back(std::move(record));
  });
  attached_.push_back({&device, {}});
}

void Bus::detach(Device& device) {
  const std::lock_guard lock(mutex_);
  device.on_bus_event({});
  attached_.remove_if([&](const Attached& attached) { return attached.device == &device; });
}

std::vector<Device*> Bus::devices() {
  const std::lock_guard lock(mutex_);
  std::vector<Device*> devices;
  for (const Attached& attached : attached_)
    devices.push_back(attached.device);
  return devices;
}

void Bus::play(Device& device, Script script) {
  locked([&] {
    for (Attached& attached : attached_) {
      if (attached.device != &device) continue;
      attached.players.emplace_back(device, faults_, std::move(script), clock_->now_us());
      return;
    }
  });
}

void Bus::set_trace(TraceSink sink) {
  const std::lock_guard lock(mutex_);
  sink_ = std::move(sink);
}

void Bus::refuse(Call call, int rc, int times) {
  const std::lock_guard lock(mutex_);
  refused_[static_cast<size_t>(call)] = {rc, times};
}

int Bus::refusal(Call call) {
  const std::lock_guard lock(mutex_);
  Refused& refused = refused_[static_cast<size_t>(call)];
  if (refused.times == 0) return 0;
  if (refused.times > 0) --refused.times;
  return refused.rc;
}

LiveCounts Bus::live() {
  const std::lock_guard lock(mutex_);
  return live_;
}

void Bus::count(const std::function<void(LiveCounts&)>& change) {
  const std::lock_guard lock(mutex_);
  change(live_);
}

int Bus::next_handle() {
  const std::lock_guard lock(mutex_);
  return ++handles_;
}

bool Bus::is_attached(const Device* device) const {
  return std::any_of(attached_.begin(), attached_.end(),
                     [device](const Attached& a) { return a.device == device; });
}

void Bus::advance_locked() {
  const int64_t now = clock_->now_us();
  for (Attached& attached : attached_) {
    for (Player& player : attached.players)
      player.advance(now);
    attached.players.remove_if([](const Player& p) { return p.next_event_us() == kNever; });
    attached.device->advance();
  }
}

int64_t Bus::next_event_locked() {
  int64_t next = kNever;
  for (Attached& attached : attached_) {
    for (const Player& player : attached.players)
      next = std::min(next, player.next_event_us());
    next = std::min(next, attached.device->next_event_us());
  }
  return next;
}

int64_t Bus::next_event_us() {
  const std::lock_guard lock(mutex_);
  return next_event_locked();
}

void Bus::advance() {
  std::unique_lock lock(mutex_);
  advance_locked();
  flush_events(lock);
}

// Hands what has happened on the bus to the trace, with the lock released meanwhile.
void Bus::flush_events(std::unique_lock<std::mutex>& lock) {
  if (events_.empty()) return;
  const std::vector<TraceRecord> events = std::exchange(events_, {});
  const TraceSink sink = sink_;
  lock.unlock();
  if (sink) std::for_each(events.begin(), events.end(), sink);
  lock.lock();
}

void Bus::look(const std::function<void()>& look) {
  std::unique_lock lock(mutex_);
  advance_locked();
  look();
  flush_events(lock);
}

void Bus::each(const std::function<void(Device&)>& show) {
  look([&] {
    for (const Attached& attached : attached_)
      show(*attached.device);
  });
}

void Bus::locked(const std::function<void()>& change) {
  look(change);
  clock().poke();
}

bool Bus::traced() {
  const std::lock_guard lock(mutex_);
  return static_cast<bool>(sink_);
}

void Bus::trace(TraceRecord record) {
  std::unique_lock lock(mutex_);
  if (!sink_) return events_.clear();
  advance_locked();
  flush_events(lock);
  record.at_us = clock_->now_us();
  const TraceSink sink = sink_;
  lock.unlock();
  sink(record);
}

BulkOutcome Bus::transfer(const BulkRequest& request) {
  const auto cost = [](Clock& clock, std::unique_lock<std::mutex>& lock, int64_t us) {
    if (us <= 0) return;
    lock.unlock();
    clock.sleep_us(us);
    lock.lock();
  };
  std::unique_lock lock(mutex_);
  if (!is_attached(request.device)) return {BulkStatus::gone, 0};
  const UsbSettings& usb = request.device->settings().usb;
  const bool in = (request.endpoint & 0x80) != 0;
  const int64_t in_cost_us = usb.in_cost_us;
  if (!in) {
    cost(*clock_, lock, usb.out_cost_us);
    if (!is_attached(request.device)) return {BulkStatus::gone, 0};
  }
  advance_locked();
  BulkTransfer transfer(*request.device, request.enumeration, faults_, request.endpoint,
                        request.data, clock_->now_us());
  if (transfer.take_death() && faults_.on_death) {
    lock.unlock();
    faults_.on_death();
    lock.lock();
  }
  const BulkOutcome result = wait_for(transfer, request, lock);
  if (in && result.status != BulkStatus::timed_out) cost(*clock_, lock, in_cost_us);
  flush_events(lock);
  return result;
}

BulkOutcome Bus::wait_for(BulkTransfer& transfer, const BulkRequest& request,
                          std::unique_lock<std::mutex>& lock) {
  Clock& clock = *clock_;
  int64_t limit_us = int64_t{request.timeout_ms} * 1000;
  if (limit_us == 0 && transfer.never_completes()) limit_us = kPatienceUs;
  const int64_t deadline = limit_us == 0 ? kNever : clock.now_us() + limit_us;
  for (;;) {
    const int64_t now = clock.now_us();
    advance_locked();
    const TransferStatus status = transfer.poll(now);
    if (status != TransferStatus::pending || now >= deadline) {
      return {outcome(status), transfer.moved()};
    }
    const int64_t until = std::min({deadline, next_event_locked(), transfer.next_event_us()});
    flush_events(lock);
    lock.unlock();
    clock.wait_until_or_poked(until);
    lock.lock();
    if (!is_attached(request.device)) return {BulkStatus::gone, 0};
  }
}

}  // namespace wrx_module
