// SPDX-License-Identifier: LGPL-2.1-or-later
//
// One bulk transfer between a host and the device, advanced by polling, with the fault plan in
// between. A front end creates it when the host submits, polls it until it is done, and drops it
// when the host gives up; it decides itself how to wait.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "module/device/device.h"
#include "module/play/faults.h"

namespace wrx_module {

enum class TransferStatus { pending, done, stalled, io_error, gone, overflowed };

class BulkTransfer {
 public:
  /// Counts the transfer in `plan` and lets its fault strike. `data` is read for an OUT endpoint
  /// and filled for an IN endpoint (bit 0x80); it must outlive the transfer. `now_us` is the
  /// moment of submission. `enumeration` is the one the host opened.
  BulkTransfer(Device& device, uint32_t enumeration, FaultPlan& plan, uint8_t endpoint,
               std::span<uint8_t> data, int64_t now_us);

  /// Tries to complete. Once it is not pending the result stays.
  TransferStatus poll(int64_t now_us);
  /// Bytes moved by a finished transfer.
  size_t moved() const { return moved_; }
  /// When polling again may help; kNever if only the world can.
  int64_t next_event_us();
  /// A fault keeps the transfer from ever completing.
  bool never_completes() const { return fault_ && fault_->kind == FaultKind::timeout; }
  /// The plan's on_death is due (once, to be called without a lock).
  bool take_death();

 private:
  bool in() const { return (endpoint_ & 0x80) != 0; }
  bool struck_by(FaultKind kind) const { return fault_ && fault_->kind == kind; }
  TransferStatus strike();
  TransferStatus send();
  TransferStatus receive();
  void change(std::vector<uint8_t>& data) const;

  Device& device_;
  uint32_t enumeration_;
  uint8_t endpoint_;
  std::span<uint8_t> data_;
  std::optional<Fault> fault_;
  int64_t not_before_us_;
  int64_t polled_us_ = 0;
  bool death_due_ = false;
  TransferStatus status_ = TransferStatus::pending;
  size_t moved_ = 0;
};

}  // namespace wrx_module
