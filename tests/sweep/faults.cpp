// SPDX-License-Identifier: LGPL-2.1-or-later
// The table of faults.
#include "sweep/faults.h"

#include <libusb-1.0/libusb.h>

namespace sweep {
namespace {

using wrx_module::Call;
using wrx_module::FaultKind;

constexpr int64_t kMillisecond = 1000, kSecond = 1000 * kMillisecond;

// Bytes of a packet: 0 head, 7 and 8 length, 9 confirm code, 10 stage or data, 12 often the sum. Of
// a command block: 0 signature, 1 is 9 of 8, 7 length.
constexpr FaultRow kFaults[] = {
    {"timeout", FaultKind::timeout},
    {"stall", FaultKind::stall},
    {.name = "io", .kind = FaultKind::io_error, .stood_for = true},
    {.name = "nodev", .kind = FaultKind::no_device, .stood_for = true},
    {"short", FaultKind::short_read, 3},  // cuts an acknowledgement too
    {"overflow", FaultKind::overflow},
    {"wrong-head", FaultKind::corrupt, 0},
    {"wrong-length", FaultKind::corrupt, 7},
    {"wrong-length-low", FaultKind::corrupt, 8},
    {"wrong-code", FaultKind::corrupt, 9},
    {"wrong-data", FaultKind::corrupt, 10},
    {"wrong-sum", FaultKind::corrupt, 12},
    {"garbage", FaultKind::garbage},
    {"stale", FaultKind::stale},
    {"twice", FaultKind::twice},
    {"foreign", FaultKind::foreign},
    {"wrong-ack", FaultKind::wrong_ack},
    {"empty-ack", FaultKind::empty_ack},
    {"late-10ms", FaultKind::delay, 10 * kMillisecond},
    {"late-1s", FaultKind::delay, kSecond},
    {"never", FaultKind::delay, 100'000 * kSecond},
    {"reset", FaultKind::reset},
    {"unplug", FaultKind::unplug},
    {"powercut", FaultKind::power_cut},
    {"no-list", FaultKind::no_device, 0, Call::device_list, LIBUSB_ERROR_NO_MEM},
    {"no-descriptor", FaultKind::no_device, 0, Call::device_descriptor, LIBUSB_ERROR_IO},
    {"no-open", FaultKind::no_device, 0, Call::open, LIBUSB_ERROR_ACCESS},
    {"no-ports", FaultKind::no_device, 0, Call::port_numbers, LIBUSB_ERROR_OVERFLOW},
    {"no-claim", FaultKind::no_device, 0, Call::claim, LIBUSB_ERROR_BUSY},
};

}  // namespace

std::span<const FaultRow> faults() {
  return kFaults;
}

Role role_of(const wrx_module::TraceRecord& transfer) {
  switch (transfer.endpoint) {
    case 0x01:
      return transfer.length == 8 ? Role::block : Role::command;
    case 0x81:
      return transfer.length == 4 ? Role::acknowledgement : Role::answer;
    case 0x04:
      return Role::boot_out;
    default:
      return Role::boot_in;
  }
}

std::string_view role_name(Role role) {
  constexpr std::string_view kNames[] = {"call", "block",    "command", "answer",
                                         "ack",  "boot-out", "boot-in"};
  return kNames[static_cast<size_t>(role)];
}

bool unlimited(Role role) {
  return role == Role::command || role == Role::boot_out;
}

bool fits(const FaultRow& fault, Role role) {
  if (fault.call || role == Role::call) return fault.call.has_value() && role == Role::call;
  const bool in = role == Role::answer || role == Role::acknowledgement || role == Role::boot_in;
  return wrx_module::fault_fits(fault.kind, {in, role == Role::acknowledgement});
}

}  // namespace sweep
