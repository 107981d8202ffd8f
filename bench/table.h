// SPDX-License-Identifier: LGPL-2.1-or-later
// The figures that the driver must hold, side by side with what they are compared with.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace wrx_bench {

/// Keeps the best run of every benchmark: whatever else the machine does only makes one worse.
class BestRuns : public benchmark::ConsoleReporter {
 public:
  /// Shows each best run in the library's own form, or nothing.
  explicit BestRuns(bool shown) : ConsoleReporter(OO_None), shown_(shown) {}

  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;

  /// CPU time in nanoseconds; 0 when there is no such run or it failed.
  double cpu_ns(const std::string& benchmark) const;

 private:
  bool shown_;
  std::map<std::string, double> cpu_ns_;
};

/// Prints the table. False when a bound is not held or a figure is missing.
bool print_table(const BestRuns& runs);

}  // namespace wrx_bench
