// SPDX-License-Identifier: LGPL-2.1-or-later
// What can go wrong with a transfer, and with the calls of the USB library around it.
#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "module/play/faults.h"
#include "module/usb/bus.h"
#include "module/usb/trace.h"

namespace sweep {

/// What a transfer is for.
enum class Role { call, block, command, answer, acknowledgement, boot_out, boot_in };

/// A kind of fault. Rows with a `call` strike before the first transfer, at the first such call of
/// the USB library; all others at one transfer.
struct FaultRow {
  std::string_view name;
  wrx_module::FaultKind kind;
  int64_t value = 0;
  std::optional<wrx_module::Call> call = {};
  int rc = 0;  ///< what the refused call returns
  /// Whether another row stands for it in pairs: the driver asks only whether a transfer failed,
  /// and the module notices neither.
  bool stood_for = false;
};

std::span<const FaultRow> faults();

Role role_of(const wrx_module::TraceRecord& transfer);
std::string_view role_name(Role role);
/// Whether the host sets no limit to such a transfer.
bool unlimited(Role role);
/// Whether the fault can strike a transfer of the role.
bool fits(const FaultRow& fault, Role role);

}  // namespace sweep
