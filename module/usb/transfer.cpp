// SPDX-License-Identifier: LGPL-2.1-or-later
//
// One bulk transfer and what a fault makes of it.
#include "module/usb/transfer.h"

#include <algorithm>
#include <array>
#include <utility>

namespace wrx_module {
namespace {

constexpr uint8_t kApplicationIn = 0x81;
constexpr size_t kAcknowledgementBytes = 4;
// A capture report left over from a procedure long gone, well-formed.
constexpr std::array<uint8_t, 13> kStaleReport = {0xEF, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0x07,
                                                  0x00, 0x04, 0x00, 0x01, 0x00, 0x0C};
// A head that is none, half a head, and noise.
constexpr std::array<uint8_t, 6> kGarbage = {0x00, 0xEF, 0x02, 0x13, 0x01, 0xEF};
// A good answer to a request for the system parameters; a good answer to the bootloader's readout
// of its flash.
constexpr std::array<uint8_t, 22> kForeignAnswer = {0xEF, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0x07, 0x00,
                                                    0x0D, 0x00, 0x00, 0x02, 0x01, 0x00, 0x00, 0x03,
                                                    0xFF, 0xFF, 0xFF, 0xFF, 0x04, 0x16};
constexpr std::array<uint8_t, 7> kForeignFrame = {0xAA, 0xD0, 0x01, 0x00, 0x00, 0x2E, 0x55};
constexpr uint8_t kFlippedBits = 0x5A;

}  // namespace

BulkTransfer::BulkTransfer(Device& device, uint32_t enumeration, FaultPlan& plan, uint8_t endpoint,
                           std::span<uint8_t> data, int64_t now_us)
    : device_(device),
      enumeration_(enumeration),
      endpoint_(endpoint),
      data_(data),
      not_before_us_(now_us) {
  const bool acknowledgement = endpoint == kApplicationIn && data.size() == kAcknowledgementBytes;
  fault_ = plan.next({in(), acknowledgement});
  if (struck_by(FaultKind::delay)) not_before_us_ += fault_->value;
  status_ = strike();
}

// What a fault does at once, before a byte moves.
TransferStatus BulkTransfer::strike() {
  if (!fault_) return TransferStatus::pending;
  switch (fault_->kind) {
    case FaultKind::stall:
      return TransferStatus::stalled;
    case FaultKind::io_error:
      return TransferStatus::io_error;
    case FaultKind::death:
      death_due_ = true;
      return TransferStatus::gone;
    case FaultKind::no_device:
      return TransferStatus::gone;
    case FaultKind::unplug:
      device_.unplug();
      return TransferStatus::gone;
    case FaultKind::reset:
      device_.bus_reset();
      return TransferStatus::gone;
    case FaultKind::power_cut:
      device_.power_cycle();
      return TransferStatus::gone;
    default:
      return TransferStatus::pending;
  }
}

TransferStatus BulkTransfer::poll(int64_t now_us) {
  if (status_ != TransferStatus::pending) return status_;
  polled_us_ = now_us;
  const auto presence = device_.present();
  if (!presence || presence->enumeration != enumeration_) return status_ = TransferStatus::gone;
  if (never_completes() || now_us < not_before_us_) return TransferStatus::pending;
  return status_ = in() ? receive() : send();
}

TransferStatus BulkTransfer::send() {
  std::vector<uint8_t> bytes(data_.begin(), data_.end());
  change(bytes);
  switch (device_.out(endpoint_, bytes).status) {
    case OutStatus::accepted:
      moved_ = bytes.size();
      return TransferStatus::done;
    case OutStatus::nak:
      return TransferStatus::pending;
    case OutStatus::stall:
      return TransferStatus::stalled;
    case OutStatus::gone:
      return TransferStatus::gone;
  }
  return TransferStatus::gone;
}

TransferStatus BulkTransfer::receive() {
  InResult result = device_.in(endpoint_, data_.size());
  switch (result.status) {
    case InStatus::data:
      break;
    case InStatus::nak:
      return TransferStatus::pending;
    case InStatus::stall:
      return TransferStatus::stalled;
    case InStatus::overflow:
      return TransferStatus::overflowed;
    case InStatus::gone:
      return TransferStatus::gone;
  }
  if (struck_by(FaultKind::overflow)) return TransferStatus::overflowed;
  change(result.data);
  moved_ = std::min(result.data.size(), data_.size());
  std::copy_n(result.data.begin(), moved_, data_.begin());
  return TransferStatus::done;
}

// What a fault does to the bytes on their way.
void BulkTransfer::change(std::vector<uint8_t>& data) const {
  if (!fault_) return;
  switch (fault_->kind) {
    case FaultKind::short_read:
      data.resize(std::min(data.size(), static_cast<size_t>(fault_->value)));
      break;
    case FaultKind::corrupt:
      if (!data.empty()) data[static_cast<size_t>(fault_->value) % data.size()] ^= kFlippedBits;
      break;
    case FaultKind::stale:
      data.insert(data.begin(), kStaleReport.begin(), kStaleReport.end());
      break;
    case FaultKind::garbage:
      data.insert(data.begin(), kGarbage.begin(), kGarbage.end());
      break;
    case FaultKind::twice: {
      const std::vector<uint8_t> again = data;
      data.insert(data.end(), again.begin(), again.end());
      break;
    }
    case FaultKind::foreign:
      if (endpoint_ == kApplicationIn) {
        data.assign(kForeignAnswer.begin(), kForeignAnswer.end());
      } else {
        data.assign(kForeignFrame.begin(), kForeignFrame.end());
      }
      break;
    case FaultKind::wrong_ack:
      data.assign(kAcknowledgementBytes, 0);
      break;
    case FaultKind::empty_ack:
      data.clear();
      break;
    default:
      break;
  }
}

int64_t BulkTransfer::next_event_us() {
  const int64_t next = device_.next_event_us();
  if (never_completes() || not_before_us_ <= polled_us_) return next;
  return std::min(next, not_before_us_);
}

bool BulkTransfer::take_death() {
  return std::exchange(death_due_, false);
}

}  // namespace wrx_module
