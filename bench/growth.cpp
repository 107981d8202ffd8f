// SPDX-License-Identifier: LGPL-2.1-or-later
// How the operations grow with the features that the user has stored.
#include <benchmark/benchmark.h>

#include "world.h"

namespace wrx_bench {
namespace {

void match(benchmark::State& state, bool (World::*operation)()) {
  World world(false);
  world.store(static_cast<int>(state.range(0)));
  for ([[maybe_unused]] auto iteration : state) {
    if (!(world.*operation)()) return state.SkipWithError("the operation failed");
  }
}
BENCHMARK_CAPTURE(match, verify, &World::verify)
    ->RangeMultiplier(10)
    ->Range(1, 1000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(match, search, &World::search)
    ->RangeMultiplier(10)
    ->Range(1, 1000)
    ->Unit(benchmark::kMicrosecond);

void clean(benchmark::State& state) {
  World world(false);
  for ([[maybe_unused]] auto iteration : state) {
    state.PauseTiming();
    world.store(static_cast<int>(state.range(0)));
    state.ResumeTiming();
    if (!world.clean()) return state.SkipWithError("the clean failed");
  }
}
BENCHMARK(clean)->RangeMultiplier(10)->Range(1, 1000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace wrx_bench
