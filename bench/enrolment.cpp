// SPDX-License-Identifier: LGPL-2.1-or-later
// What an enrolment of twelve presses costs the host, its log file off and on. The time shown is
// CPU time, the module's and the database's included; the waits are virtual.
#include <benchmark/benchmark.h>

#include "world.h"

namespace wrx_bench {
namespace {

void enrolment(benchmark::State& state, bool log_file) {
  World world(log_file);
  for ([[maybe_unused]] auto iteration : state) {
    const auto before = cpu_time();
    const bool good = world.enrol();
    state.SetIterationTime(std::chrono::duration<double>(cpu_time() - before).count());
    if (!good) return state.SkipWithError("the enrolment failed");
    world.clean();
  }
  if ((World::logged() > 0) != log_file) state.SkipWithError("the log file's switch failed");
}
BENCHMARK_CAPTURE(enrolment, log_off, false)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(enrolment, log_on, true)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace wrx_bench
