// SPDX-License-Identifier: LGPL-2.1-or-later
// Each figure is the best of several runs: what else the machine does only makes it worse.
#include "bounds.h"

#include <algorithm>
#include <cstdio>
#include <functional>

#include "checksum.h"
#include "world.h"

namespace wrx_bench {
namespace {

constexpr int kRuns = 15;
constexpr double kTimesBoost = 4.0;
constexpr double kEnrolmentMs = 5.0;

double best_ms(
    const std::function<void()>& run, const std::function<void()>& between = [] {}) {
  double best = 1e9;
  for (int i = 0; i < kRuns; ++i) {
    const auto before = cpu_time();
    run();
    best = std::min(best, std::chrono::duration<double, std::milli>(cpu_time() - before).count());
    between();
  }
  return best;
}

// The checksum's speed in multiples of Boost's; 0 when the two do not agree.
double times_boost() {
  const std::string& image = largest_image();
  volatile uint16_t ours = 0, theirs = 0;
  const double driver = best_ms([&] { ours = crc_of_driver(image); });
  const double boost = best_ms([&] { theirs = crc_of_boost(image); });
  return ours == theirs ? boost / driver : 0;
}

// CPU milliseconds of an enrolment with the log file on; a failed one, or one not logged,
// takes for ever.
double enrolment_ms() {
  World world(true);
  bool good = true;
  const double best = best_ms([&] { good = world.enrol() && good; }, [&] { world.clean(); });
  return good && World::logged() > 0 ? best : 1e9;
}

bool held(const char* what, double value, const char* relation, double bound, bool holds) {
  std::printf("%-4s %s: %.2f (%s %.0f)\n", holds ? "ok" : "BAD", what, value, relation, bound);
  return holds;
}

}  // namespace

bool check_bounds() {
  const double speed = times_boost();
  const double cost = enrolment_ms();
  const bool fast = held("image checksum, times as fast as Boost.CRC", speed, "at least",
                         kTimesBoost, speed >= kTimesBoost);
  const bool cheap = held("enrolment of 12 presses with the log file on, ms of CPU time", cost,
                          "at most", kEnrolmentMs, cost <= kEnrolmentMs);
  return fast && cheap;
}

}  // namespace wrx_bench
