// SPDX-License-Identifier: LGPL-2.1-or-later
// The fault sweep: every operation, at every transfer that it makes, with every kind of fault, at
// every kind of module. Ends with "N passed, M failed"; a cell that fails is named, and can be run
// alone, with its trace, by that name.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <set>
#include <thread>

#include "sweep/expectations.h"
#include "sweep/space.h"

namespace sweep {
namespace {

using wrx_module::EmptyRead;

constexpr unsigned kCellSeconds = 60;
char blame[256];  // said when a cell crashes

void say_where(int signal) {
  if (write(STDERR_FILENO, blame, std::strlen(blame)) < 0) _exit(2);
  ::signal(signal, SIG_DFL);
  raise(signal);
}

// Added to by all workers.
struct Totals {
  static constexpr size_t kMostRows = 32;
  std::atomic<size_t> next = 0;  ///< cell
  std::atomic<size_t> tried = 0, passed = 0, failed = 0, expected = 0;
  std::atomic<size_t> rows[kMostRows] = {};  ///< cells that a row of the expectations excuses

  /// In memory that worker processes share.
  static Totals& shared() {
    void* memory =
        mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    return *new (memory) Totals;
  }
};

void judge(const Cell& cell, const Outcome& outcome, Totals& totals) {
  std::set<size_t> excuses;
  std::string lines;
  for (const Failure& failure : outcome.failures) {
    if (const Expectation* row = expected(cell, failure)) {
      excuses.insert(static_cast<size_t>(row - expectations().data()));
    } else {
      lines += fmt::format("FAIL {}  {}: {}\n", coordinates(cell), check_name(failure.check),
                           failure.what);
    }
  }
  std::cout << lines << std::flush;
  ++totals.tried;
  ++(lines.empty() ? totals.passed : totals.failed);
  for (const size_t row : excuses)
    ++totals.rows[row];
  if (lines.empty() && !excuses.empty()) ++totals.expected;
}

Outcome run_guarded(const Cell& cell, bool traced) {
  std::snprintf(blame, sizeof blame, "\nthe program ended in the cell %s\n",
                coordinates(cell).c_str());
  alarm(kCellSeconds);
  Outcome outcome = run(cell, traced);
  alarm(0);
  return outcome;
}

// Runs cells until none is left. False when a rig could not set its world up, which has been said.
bool work(const Cells& cells, Totals& totals) {
  for (size_t i; (i = totals.next++) < cells.size();)
    judge(cells[i], run_guarded(cells[i], false), totals);
  return !testing::UnitTest::GetInstance()->Failed();
}

// The same by so many processes; each has a driver of its own.
bool work_together(const Cells& cells, Totals& totals, unsigned jobs) {
  std::fflush(stdout);
  for (unsigned i = 0; i < jobs; ++i) {
    if (fork() == 0) std::exit(work(cells, totals) ? 0 : 1);
  }
  bool sound = true;
  for (int status = 0; wait(&status) > 0;)
    sound &= status == 0;
  return sound;
}

int sweep_cells(const Cells& cells, unsigned jobs) {
  Totals& totals = Totals::shared();
  fmt::print("{} cells\n", cells.size());
  const auto begun = std::chrono::steady_clock::now();
  const bool sound = work_together(cells, totals, jobs);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
  for (size_t i = 0; i < expectations().size(); ++i)
    fmt::print("expected {}  {}\n", totals.rows[i].load(), expectations()[i].reason);
  const size_t tried = totals.tried;
  fmt::print(
      "{} of {} cells tried, {:.0f} a second, {} ended as their exception says\n"
      "{} passed, {} failed\n",
      tried, cells.size(), static_cast<double>(tried) / took.count(), totals.expected.load(),
      totals.passed.load(), totals.failed.load());
  return sound && totals.failed == 0 && totals.tried == cells.size() ? 0 : 1;
}

int replay(const std::string& name) {
  const auto cell = cell_named(name);
  if (!cell) {
    std::cerr << "sweep: " << name << " names no fault that fits a transfer of an operation\n";
    return 2;
  }
  const Outcome outcome = run_guarded(*cell, true);
  fmt::print("{}\n{}: returned {} after {} ms, result {}, notification {}, {}\n",
             fmt::join(outcome.trace, "\n"), coordinates(*cell), outcome.returned, outcome.ms,
             outcome.words.first, outcome.words.second, outcome.state);
  std::fflush(stdout);
  Totals totals;
  judge(*cell, outcome, totals);
  fmt::print("{} passed, {} failed\n", totals.passed.load(), totals.failed.load());
  return totals.failed == 0 ? 0 : 1;
}

// Every pair of an enrolment, some of an upgrade.
Cells pairs() {
  Cells cells = pairs_of(*operation_named("enroll"), 1, 1);
  const Cells more = pairs_of(*operation_named("upgrade"), 17, 11);
  cells.insert(cells.end(), more.begin(), more.end());
  return cells;
}

// What the tests run: some of everything.
Cells sample() {
  Cells cells = sample_of(single_faults(), 2400);
  for (const char* name : {"enroll", "upgrade"}) {
    const Cells more = pairs_of(*operation_named(name), 41, 131);
    cells.insert(cells.end(), more.begin(), more.end());
  }
  return cells;
}

int run_program(int argc, char** argv) {
  CLI::App app("Every fault at every transfer of every operation.");
  std::string cell, only;
  unsigned jobs = std::max(1U, std::thread::hardware_concurrency());
  bool sampled = false, paired = false;
  app.add_option("--cell", cell,
                 "run OPERATION:TRANSFER:FAULT[:settings] and show its trace; two faults as "
                 "OPERATION:TRANSFER+TRANSFER:FAULT+FAULT");
  app.add_flag("--sample", sampled, "a fixed sample of single faults and of pairs");
  app.add_flag("--pairs", paired, "two faults: every pair in an enrolment, a sample in an upgrade");
  app.add_option("--only", only, "only the operation of this name")
      ->check([](const std::string& name) {
        return operation_named(name) != nullptr ? "" : "no operation is named " + name;
      });
  app.add_option("--jobs", jobs, "worker processes, one a core unless told")
      ->check(CLI::Range(1U, 256U));
  CLI11_PARSE(app, argc, argv);
  for (const int signal : {SIGSEGV, SIGABRT, SIGALRM, SIGFPE, SIGBUS})
    ::signal(signal, say_where);
  if (!cell.empty()) return replay(cell);
  Cells cells = paired ? pairs() : sampled ? sample() : single_faults();
  if (!only.empty()) std::erase_if(cells, [&](const Cell& c) { return c.operation->name != only; });
  return sweep_cells(cells, jobs);
}

}  // namespace
}  // namespace sweep

int main(int argc, char** argv) {
  try {
    return sweep::run_program(argc, argv);
  } catch (const std::exception& trouble) {
    std::fprintf(stderr, "sweep: %s\n", trouble.what());
    return 2;
  }
}
