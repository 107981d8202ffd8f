// SPDX-License-Identifier: LGPL-2.1-or-later
// The table of bounds, one row a figure, and the engine that measures it against its bound.
#include "table.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace wrx_bench {
namespace {

/// How the driver's time is set against the other, and which way its bound lies.
enum class Measure {
  added,     ///< the difference in nanoseconds, at most
  times,     ///< multiples of the other's time, at most
  speed_up,  ///< multiples of the other's speed, at least
};

struct Row {
  const char* what;
  const char* driver;   ///< benchmark
  const char* against;  ///< benchmark
  const char* words;    ///< for the latter
  Measure measure;
  double bound;
};

// Ten times the features may take ten times as long; a fifth is left to the measuring.
constexpr double kLinear = 12;

constexpr Row kRows[] = {
    {"empty read of 64 bytes", "empty_read_driver", "empty_read_bare", "its three transfers bare",
     Measure::added, 50},
    {"image of 92180 bytes parsed", "image_parse/run", "image_copy", "memcpy", Measure::times, 5},
    {"the same", "image_parse/run", "image_parse/byte_by_byte", "byte by byte", Measure::speed_up,
     10},
    {"CRC-16/X-25 of 2 MiB", "checksum/driver", "checksum/boost", "Boost.CRC", Measure::speed_up,
     4},
    {"enrolment of 12 presses", "enrolment/log_off", "enrolment_bare", "its transfers bare",
     Measure::added, 5e6},
    {"the same, log file on", "enrolment/log_on", "enrolment_bare", "its transfers bare",
     Measure::added, 5e6},
    {"verify, 10 features", "match/verify/10", "match/verify/1", "with 1", Measure::times, kLinear},
    {"verify, 100 features", "match/verify/100", "match/verify/10", "with 10", Measure::times,
     kLinear},
    {"verify, 1000 features", "match/verify/1000", "match/verify/100", "with 100", Measure::times,
     kLinear},
    {"search, 10 features", "match/search/10", "match/search/1", "with 1", Measure::times, kLinear},
    {"search, 100 features", "match/search/100", "match/search/10", "with 10", Measure::times,
     kLinear},
    {"search, 1000 features", "match/search/1000", "match/search/100", "with 100", Measure::times,
     kLinear},
    {"clean of 10 features", "clean/10", "clean/1", "with 1", Measure::times, kLinear},
    {"clean of 100 features", "clean/100", "clean/10", "with 10", Measure::times, kLinear},
    {"clean of 1000 features", "clean/1000", "clean/100", "with 100", Measure::times, kLinear},
};

std::string time_text(double ns) {
  constexpr struct {
    double ns;
    const char* unit;
  } kUnits[] = {{1e6, "ms"}, {1e3, "us"}, {1, "ns"}};
  const auto unit = std::find_if(std::begin(kUnits), std::end(kUnits) - 1,
                                 [ns](const auto& candidate) { return ns >= candidate.ns; });
  char text[32];
  std::snprintf(text, sizeof text, "%.3g %s", ns / unit->ns, unit->unit);
  return text;
}

std::string multiple(double times) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3g x", times);
  return text;
}

struct Verdict {
  std::string value, bound;
  bool held;
};

Verdict judge(const Row& row, double driver_ns, double other_ns) {
  const double bound = row.bound;
  switch (row.measure) {
    case Measure::added: {
      const double more = driver_ns - other_ns;
      return {time_text(more) + " more", "at most " + time_text(bound), more <= bound};
    }
    case Measure::times: {
      const double times = driver_ns / other_ns;
      return {multiple(times), "at most " + multiple(bound), times <= bound};
    }
    case Measure::speed_up: {
      const double times = other_ns / driver_ns;
      return {multiple(times) + " as fast", "at least " + multiple(bound), times >= bound};
    }
  }
  return {};
}

bool print_row(const Row& row, const BestRuns& runs) {
  const double driver_ns = runs.cpu_ns(row.driver);
  const double other_ns = runs.cpu_ns(row.against);
  if (driver_ns <= 0 || other_ns <= 0) {
    std::printf("| %s | not measured | | | | **no** |\n", row.what);
    return false;
  }
  const Verdict verdict = judge(row, driver_ns, other_ns);
  std::printf("| %s | %s | %s: %s | %s | %s | %s |\n", row.what, time_text(driver_ns).c_str(),
              row.words, time_text(other_ns).c_str(), verdict.value.c_str(), verdict.bound.c_str(),
              verdict.held ? "yes" : "**no**");
  return verdict.held;
}

}  // namespace

bool BestRuns::ReportContext(const Context& context) {
  return !shown_ || ConsoleReporter::ReportContext(context);
}

void BestRuns::ReportRuns(const std::vector<Run>& runs) {
  const auto best = std::min_element(runs.begin(), runs.end(), [](const Run& a, const Run& b) {
    return a.GetAdjustedCPUTime() < b.GetAdjustedCPUTime();
  });
  if (best == runs.end() || best->run_type != Run::RT_Iteration) return;
  const auto failed =
      std::find_if(runs.begin(), runs.end(), [](const Run& run) { return run.error_occurred; });
  const Run& told = failed != runs.end() ? *failed : *best;
  if (shown_ || told.error_occurred) ConsoleReporter::ReportRuns({told});
  if (told.error_occurred) return;
  cpu_ns_[told.benchmark_name()] =
      told.cpu_accumulated_time / static_cast<double>(told.iterations) * 1e9;
}

double BestRuns::cpu_ns(const std::string& benchmark) const {
  const auto found = cpu_ns_.find(benchmark);
  return found != cpu_ns_.end() ? found->second : 0;
}

bool print_table(const BestRuns& runs) {
  std::puts("| what | driver | against | is | bound | held |\n|---|---|---|---|---|---|");
  bool all_held = true;
  for (const Row& row : kRows)
    all_held = print_row(row, runs) && all_held;
  return all_held;
}

}  // namespace wrx_bench
