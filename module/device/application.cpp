// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The application's side of the bulk channel: blocks, payloads, acknowledgements.
#include "module/device/application.h"

#include <algorithm>
#include <array>
#include <utility>

#include "module/device/clock.h"

namespace wrx_module {
namespace {

constexpr std::array<uint8_t, 4> kBlockHead = {'U', 'S', 'B', 'C'};
constexpr std::array<uint8_t, 4> kAcknowledgement = {'U', 'S', 'B', 'S'};
constexpr size_t kBlockBytes = 8;
constexpr uint8_t kHostReads = 0x80;

constexpr uint8_t kDataReceptionError = 1;

bool is_block(std::span<const uint8_t> data) {
  return data.size() == kBlockBytes &&
         std::equal(kBlockHead.begin(), kBlockHead.end(), data.begin());
}

}  // namespace

Application::Application(Settings& settings, Memory& memory, Sensor& sensor,
                         std::vector<CommandRecord>& commands)
    : settings_(settings),
      memory_(memory),
      sensor_(sensor),
      commands_(commands),
      procedure_(settings, memory, sensor, answers_) {}

OutResult Application::out(int64_t now_us, std::span<const uint8_t> data) {
  if (phase_ == Phase::payload_out && !(is_block(data) && expected_ != kBlockBytes)) {
    received_.insert(received_.end(), data.begin(), data.end());
    if (received_.size() >= expected_) take_payload(now_us);
  } else if (is_block(data)) {
    begin(data);
  }
  // Anything else is taken from the bus and dropped, as a module that lost its place does.
  return {OutStatus::accepted};
}

void Application::begin(std::span<const uint8_t> block) {
  expected_ = size_t{block[5]} | size_t{block[6]} << 8 | size_t{block[7]} << 16;
  received_.clear();
  sending_.clear();
  phase_ = block[4] == kHostReads ? Phase::payload_in : Phase::payload_out;
  if (expected_ == 0) phase_ = Phase::acknowledge;
}

void Application::take_payload(int64_t now_us) {
  phase_ = Phase::acknowledge;
  now_us_ = now_us;
  Packet command;
  switch (read_packet(received_, command)) {
    case PacketFault::none:
      if (command.type == kTypeCommand && !command.payload.empty()) execute(command);
      return;
    case PacketFault::no_head:
      return;
    case PacketFault::cut_short:
    case PacketFault::bad_sum:
      return reply(kDataReceptionError);
  }
}

InResult Application::in(int64_t now_us, size_t max) {
  switch (phase_) {
    case Phase::payload_in:
      return send_payload(now_us, max);
    case Phase::acknowledge:
      phase_ = Phase::idle;
      if (max < kAcknowledgement.size()) return {InStatus::overflow, {}};
      return {InStatus::data, {kAcknowledgement.begin(), kAcknowledgement.end()}};
    case Phase::idle:
    case Phase::payload_out:
      return {InStatus::nak, {}};
  }
  return {InStatus::nak, {}};
}

InResult Application::send_payload(int64_t now_us, size_t max) {
  if (sending_.empty()) {
    if (!answers_.ready(now_us)) {
      if (settings_.link.empty_read == EmptyRead::times_out) return {InStatus::nak, {}};
      phase_ = Phase::acknowledge;
      return {InStatus::data, {}};
    }
    sending_ = answers_.take(now_us, expected_, settings_.link.batch);
  }
  if (sending_.size() <= max) {
    phase_ = Phase::acknowledge;
    return {InStatus::data, std::exchange(sending_, {})};
  }
  if (max % settings_.usb.packet_size != 0) {
    phase_ = Phase::acknowledge;
    sending_.clear();
    return {InStatus::overflow, {}};
  }
  // The host asked for whole packets of the bus: it gets them now and the rest with its next read.
  const auto end = sending_.begin() + static_cast<std::ptrdiff_t>(max);
  std::vector<uint8_t> part(sending_.begin(), end);
  sending_.erase(sending_.begin(), end);
  return {InStatus::data, std::move(part)};
}

int64_t Application::next_event_us(int64_t now_us) const {
  return std::min(answers_.next_us(now_us), procedure_.next_event_us());
}

void Application::advance(int64_t now_us) {
  procedure_.advance(now_us);
}

void Application::reply(uint8_t code, std::span<const uint8_t> result) {
  std::vector<uint8_t> payload = {code};
  payload.insert(payload.end(), result.begin(), result.end());
  follow(packet(kTypeResponse, payload));
  if (!commands_.empty() && commands_.back().at_us == now_us_) commands_.back().answer = code;
}

void Application::follow(std::vector<uint8_t> packet) {
  answers_.push(now_us_ + settings_.link.response_delay_us, answers_.next_step(),
                std::move(packet));
}

}  // namespace wrx_module
