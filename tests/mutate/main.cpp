// SPDX-License-Identifier: LGPL-2.1-or-later
// The main program of the tests under ./dev mutate: "PROGRAM [CASE SECONDS]...". Each case runs in
// a process forked from this one, in a folder of its own, and may take so many seconds of processor
// time: what it leaves behind reaches no other, at the price of a fork instead of a start. "sweep",
// which is no case, is the program of that name. A line each: the verdict and the seconds taken.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// Seconds by the clock that a case may take for each of processor time: it may have to wait.
constexpr double kPatience = 15;
// Bytes that a case may take: a loop without an end may eat memory.
constexpr rlim_t kMemory = rlim_t{4} << 30;

[[noreturn]] void run_case(const std::string& name, double limit) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  char folder[] = "case-XXXXXX";
  if (mkdtemp(folder) == nullptr || chdir(folder) != 0) std::abort();
  const auto us = static_cast<suseconds_t>(limit * 1e6);
  const itimerval timer = {{}, {us / 1'000'000, us % 1'000'000}};
  const rlimit memory = {kMemory, kMemory}, core = {0, 0};
  setrlimit(RLIMIT_AS, &memory);
  setrlimit(RLIMIT_CORE, &core);
  setitimer(ITIMER_PROF, &timer, nullptr);
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  if (name == "sweep") execlp("sweep", "sweep", "--sample", "--jobs", "1", nullptr);
  testing::GTEST_FLAG(filter) = name;
  std::exit(RUN_ALL_TESTS());
}

// Waits for a case, ends what it left running, and says how it went. Whether it passed.
bool report(pid_t child, double limit) {
  pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
  const bool in_time = poll(&ended, 1, static_cast<int>(1000 * kPatience * limit)) == 1;
  close(ended.fd);
  kill(-child, SIGKILL);
  int status = 0;
  rusage used = {};
  wait4(child, &status, 0, &used);
  const bool passed = in_time && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  const bool stuck = !in_time || (WIFSIGNALED(status) && WTERMSIG(status) == SIGPROF);
  const auto us = used.ru_utime.tv_usec + used.ru_stime.tv_usec;
  std::printf("%s %.3f\n",
              passed  ? "passed"
              : stuck ? "stuck"
                      : "failed",
              static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
                  static_cast<double>(us) * 1e-6);
  std::fflush(stdout);
  return passed;
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc == 1) return RUN_ALL_TESTS();
  bool good = true;
  for (int i = 1; i + 1 < argc && (good || !testing::GTEST_FLAG(fail_fast)); i += 2) {
    const double limit = std::atof(argv[i + 1]);
    const pid_t child = fork();
    if (child == 0) run_case(argv[i], limit);
    good = report(child, limit) && good;
  }
  return good ? 0 : 1;
}
