// SPDX-License-Identifier: LGPL-2.1-or-later
// The fault sweep: every operation, at every transfer that it makes, with every kind of fault, at
// every kind of module. Ends with "N passed, M failed"; a cell that fails is named, and can be run
// alone, with its trace, by that name.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstring>
#include <iostream>
#include <map>

#include "sweep/expectations.h"
#include "sweep/html.h"

namespace sweep {
namespace {

using Cells = std::vector<Cell>;
using wrx_module::EmptyRead;

constexpr unsigned kCellSeconds = 60;
char running[256];  // what a crash is blamed on

void say_where(int signal) {
  const char text[] = "\nthe program ended in the cell ";
  if (write(STDERR_FILENO, text, sizeof text - 1) < 0 ||
      write(STDERR_FILENO, running, std::strlen(running)) < 0 ||
      write(STDERR_FILENO, "\n", 1) < 0) {
    _exit(2);
  }
  ::signal(signal, SIG_DFL);
  raise(signal);
}

/// Every cell of an operation at one kind of module, with one fault each.
void add_cells(const Operation& operation, const Setting& setting, Cells& cells) {
  const std::vector<Role> roles = transfers_of(operation, setting);
  for (size_t i = 0; i <= roles.size(); ++i) {
    const Role role = i == 0 ? Role::call : roles[i - 1];
    for (const FaultRow& fault : faults()) {
      if (!fits(fault, role)) continue;
      const Strike strike = {static_cast<int>(i), role, &fault};
      cells.push_back({&operation, setting, {strike}});
      // A user can stop what is running; the stop comes with the fault.
      if (role == Role::call || operation.bound_ms(0) == 0 || operation.words.size() < 2) continue;
      cells.push_back({&operation, setting, {strike}});
      cells.back().setting.stop = true;
    }
  }
}

Cells all_cells() {
  Cells cells;
  for (const EmptyRead empty : {EmptyRead::answers_empty, EmptyRead::times_out}) {
    for (const uint16_t packet : {uint16_t{64}, uint16_t{512}}) {
      for (const Operation& operation : operations()) {
        add_cells(operation, {empty, packet, false}, cells);
      }
    }
  }
  return cells;
}

/// Two faults in one enrolment or upgrade: every kind with every kind, the second at the first
/// transfer after the first that it fits.
Cells all_pairs() {
  Cells cells;
  for (const char* name : {"enroll", "upgrade"}) {
    const Setting setting;
    const Operation& operation = *operation_named(name);
    const std::vector<Role> roles = transfers_of(operation, setting);
    for (size_t i = 0; i < roles.size(); ++i) {
      for (const FaultRow& first : faults()) {
        if (!fits(first, roles[i]) || first.name == "never") continue;
        for (const FaultRow& second : faults()) {
          if (second.call || second.name == "never") continue;
          const int at = static_cast<int>(i) + 1;
          cells.push_back(
              {&operation, setting, {{at, roles[i], &first}, {at + 1, roles[i], &second}}});
        }
      }
    }
  }
  return cells;
}

/// `count` cells, spread evenly, always the same.
Cells sample_of(const Cells& cells, size_t count) {
  if (count == 0 || count >= cells.size()) return cells;
  Cells sample;
  for (size_t i = 0; i < count; ++i)
    sample.push_back(cells[i * cells.size() / count]);
  return sample;
}

struct Totals {
  size_t tried = 0, passed = 0, failed = 0, expected = 0;
  std::map<std::string_view, size_t> reasons;  ///< of expected failures
};

void judge(const Cell& cell, const Outcome& outcome, Totals& totals) {
  bool failed = false, excused = false;
  for (const Failure& failure : outcome.failures) {
    if (const Expectation* row = expected(cell, failure)) {
      excused = true;
      ++totals.reasons[row->reason];
      continue;
    }
    failed = true;
    std::cout << "FAIL " << coordinates(cell) << "  " << check_name(failure.check) << ": "
              << failure.what << "\n";
  }
  ++totals.tried;
  ++(failed ? totals.failed : totals.passed);
  if (excused && !failed) ++totals.expected;
}

Outcome run_guarded(const Cell& cell, bool traced) {
  std::snprintf(running, sizeof running, "%s", coordinates(cell).c_str());
  alarm(kCellSeconds);
  Outcome outcome = run(cell, traced);
  alarm(0);
  return outcome;
}

int sweep_cells(const Cells& cells, Page* page) {
  Totals totals;
  for (const Expectation& row : expectations())
    totals.reasons[row.reason] = 0;
  const auto begun = std::chrono::steady_clock::now();
  for (const Cell& cell : cells) {
    const Outcome outcome = run_guarded(cell, page != nullptr);
    judge(cell, outcome, totals);
    if (page != nullptr) page->add(cell, outcome);
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
  for (const auto& [reason, count] : totals.reasons) {
    std::cout << "expected " << count << "  " << reason << "\n";
  }
  std::cout << totals.tried << " of " << cells.size() << " cells tried, "
            << static_cast<int64_t>(static_cast<double>(totals.tried) / took.count())
            << " a second, " << totals.expected << " ended as their exception says\n"
            << totals.passed << " passed, " << totals.failed << " failed\n";
  // A rig that could not set its world up has said so.
  const bool sound = !testing::UnitTest::GetInstance()->Failed();
  return sound && totals.failed == 0 && totals.tried == cells.size() ? 0 : 1;
}

int replay(const std::string& name) {
  std::string error;
  const auto cell = cell_named(name, error);
  if (!cell) {
    std::cerr << "sweep: " << error << "\n";
    return 2;
  }
  const Outcome outcome = run_guarded(*cell, true);
  for (const std::string& line : outcome.trace)
    std::cout << line << "\n";
  std::cout << coordinates(*cell) << ": returned " << outcome.returned << " after " << outcome.ms
            << " ms, result " << outcome.words.first << ", notification " << outcome.words.second
            << ", " << outcome.state << "\n";
  Totals totals;
  judge(*cell, outcome, totals);
  std::cout << totals.passed << " passed, " << totals.failed << " failed\n";
  return totals.failed == 0 ? 0 : 1;
}

int write_page(const Cells& cells, const std::string& path) {
  Cells shown;
  for (const Cell& cell : cells) {
    const Setting& setting = cell.setting;
    if (setting.empty == EmptyRead::answers_empty && setting.packet == 64 && !setting.stop) {
      shown.push_back(cell);
    }
  }
  Page page;
  const int result = sweep_cells(shown, &page);
  if (page.write(path)) return result;
  std::cerr << "sweep: cannot write " << path << "\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Every fault at every transfer of every operation.");
  std::string cell, page, only;
  size_t sample = 0;
  bool pairs = false;
  app.add_option("--cell", cell, "run OPERATION:TRANSFER:FAULT[:settings] and show its trace");
  app.add_option("--sample", sample, "run a fixed sample of N cells");
  app.add_option("--only", only, "only the operation of this name");
  app.add_flag("--pairs", pairs, "two faults at a time, in enrolments and upgrades");
  app.add_option("--html", page, "write a page on what the user meets to this file");
  CLI11_PARSE(app, argc, argv);
  for (const int signal : {SIGSEGV, SIGABRT, SIGALRM, SIGFPE, SIGBUS})
    ::signal(signal, say_where);
  if (!cell.empty()) return replay(cell);
  Cells cells = pairs ? all_pairs() : all_cells();
  if (!only.empty()) std::erase_if(cells, [&](const Cell& c) { return c.operation->name != only; });
  cells = sample_of(cells, sample);
  return page.empty() ? sweep_cells(cells, nullptr) : write_page(cells, page);
}

}  // namespace sweep

int main(int argc, char** argv) {
  return sweep::main(argc, argv);
}
