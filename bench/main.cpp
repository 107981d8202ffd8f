// SPDX-License-Identifier: LGPL-2.1-or-later
// bench             runs all benchmarks and prints the table of bounds
// bench --check     prints the table only
// bench OPTION...   runs the benchmarks as Google Benchmark's options say, without the table
//
// For the table the benchmarks are run five times, in turns, and the best of each counts. The exit
// code is 1 when a bound is not held.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

#include "table.h"

namespace {

void initialize_for_table(char* program) {
  std::string repetitions = "--benchmark_repetitions=5";
  std::string turns = "--benchmark_enable_random_interleaving=true";
  std::string time = "--benchmark_min_time=0.1";
  std::array argv = {program, repetitions.data(), turns.data(), time.data()};
  int argc = argv.size();
  benchmark::Initialize(&argc, argv.data());
}

bool bounds_hold(char* program, bool table_only) {
  initialize_for_table(program);
  wrx_bench::BestRuns runs(!table_only);
  benchmark::RunSpecifiedBenchmarks(&runs);
  std::puts("");
  return wrx_bench::print_table(runs);
}

}  // namespace

int main(int argc, char** argv) {
  const bool table_only = argc == 2 && std::string_view(argv[1]) == "--check";
  if (argc == 1 || table_only) return bounds_hold(argv[0], table_only) ? 0 : 1;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
