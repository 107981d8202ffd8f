// SPDX-License-Identifier: LGPL-2.1-or-later
// bench             runs all benchmarks, then checks the bounds
// bench --check     checks the bounds only; the exit code is 1 when one is not held
// bench OPTION...   runs the benchmarks as Google Benchmark's options say
#include <benchmark/benchmark.h>

#include <string_view>

#include "bounds.h"

int main(int argc, char** argv) {
  const bool only_check = argc == 2 && std::string_view(argv[1]) == "--check";
  if (only_check) return wrx_bench::check_bounds() ? 0 : 1;
  const bool all = argc == 1;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return !all || wrx_bench::check_bounds() ? 0 : 1;
}
