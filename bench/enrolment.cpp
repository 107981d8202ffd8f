// SPDX-License-Identifier: LGPL-2.1-or-later
// What an enrolment of twelve presses costs, the database and the simulated module included, its
// log file off and on, and what the same transfers cost alone. The waits are virtual.
#include <benchmark/benchmark.h>
#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <vector>

#include "module/usb/bus.h"
#include "transport/usb_device.h"
#include "world.h"

namespace wrx_bench {
namespace {

using wrx_module::TraceKind;
using wrx_module::TraceRecord;

void enrolment(benchmark::State& state, bool log_file) {
  World world(log_file);
  for ([[maybe_unused]] auto iteration : state) {
    if (!world.enrol()) return state.SkipWithError("the enrolment failed");
    state.PauseTiming();
    world.clean();
    state.ResumeTiming();
  }
  if ((World::logged() > 0) != log_file) state.SkipWithError("the log file's switch failed");
}
BENCHMARK_CAPTURE(enrolment, log_off, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(enrolment, log_on, true)->Unit(benchmark::kMicrosecond);

// The bulk transfers of one enrolment, in order.
std::vector<TraceRecord> transfers_of_enrolment(World& world) {
  std::vector<TraceRecord> transfers;
  wrx_module::bus().set_trace([&](const TraceRecord& record) {
    if (record.kind == TraceKind::out || record.kind == TraceKind::in) transfers.push_back(record);
  });
  const bool good = world.enrol();
  wrx_module::bus().set_trace({});
  if (!good) transfers.clear();
  return transfers;
}

// Makes the transfers again. False when one of them ends otherwise than it did.
bool repeat(const std::vector<TraceRecord>& transfers, std::vector<uint8_t>& buffer) {
  libusb_device_handle* handle = usb_get_dev_handle();
  for (const TraceRecord& transfer : transfers) {
    if (transfer.kind == TraceKind::out)
      std::copy(transfer.bytes.begin(), transfer.bytes.end(), buffer.begin());
    int moved = 0;
    const int rc =
        libusb_bulk_transfer(handle, transfer.endpoint, buffer.data(),
                             static_cast<int>(transfer.length), &moved, transfer.timeout_ms);
    if (rc != transfer.rc || static_cast<size_t>(moved) != transfer.moved) return false;
  }
  return true;
}

void enrolment_bare(benchmark::State& state) {
  World world(false);
  const std::vector<TraceRecord> transfers = transfers_of_enrolment(world);
  if (transfers.empty()) return state.SkipWithError("the enrolment failed");
  std::vector<uint8_t> buffer(0x20000);
  for ([[maybe_unused]] auto iteration : state) {
    state.PauseTiming();
    world.module().memory().templates.clear();
    for (int press = 0; press < World::kPresses; ++press)
      world.module().queue_press({});
    state.ResumeTiming();
    if (!repeat(transfers, buffer)) return state.SkipWithError("a transfer went another way");
  }
  state.counters["transfers"] = static_cast<double>(transfers.size());
}
BENCHMARK(enrolment_bare)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace wrx_bench
