// SPDX-License-Identifier: LGPL-2.1-or-later
// wrx-endure: hosts the plug-in as a service does, for as long as it takes to plug the module in
// and out so and so many times. In each cycle the module is noticed, opened, used, pulled out while
// it is open, and missed. After a warm-up the process must stop growing.
//
//   wrx-endure CONTROL DATABASE CYCLES
#include <fmt/core.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "host/common/folders.h"
#include "host/common/plugin_host.h"
#include "module/play/control_socket.h"

namespace wrx::system_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kUser = 1000;
constexpr int kTimeoutMs = 2000;  // of a verify; it ends by its match, or by the module's absence
constexpr milliseconds kLongestWait{5000}, kBetweenLooks{20};
constexpr int kMostTries = 5;
constexpr int kWarmUp = 30;                          // cycles
constexpr long kMostResident = 256, kMostHeap = 64;  // KiB that may come on top

/// What a process holds.
struct Held {
  long descriptors = 0, threads = 0;
  long resident_kib = 0, heap_kib = 0;
};

Held held() {
  Held now;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++now.descriptors;
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "Threads:") status >> now.threads;
    if (word == "VmRSS:") status >> now.resident_kib;
  }
  now.heap_kib = static_cast<long>(mallinfo2().uordblks / 1024);
  return now;
}

void show(std::FILE* out, const std::string& when, const Held& held) {
  fmt::print(out, "{}: {} descriptors, {} threads, {} KiB resident, {} KiB of heap\n", when,
             held.descriptors, held.threads, held.resident_kib, held.heap_kib);
}

void expect(bool holds, const std::string& what) {
  if (!holds) throw std::runtime_error(what);
}

class Endurance {
 public:
  Endurance(std::string control, host::PluginHost& host)
      : control_(std::move(control)), host_(host) {
    host_.initialise();
  }

  void cycle() {
    tell("plug");
    wait_for(1);
    host_.open();
    use();
    tell("unplug");
    expect(verify() != OPS_VERIFY_MATCH, "a finger is recognised without a module");
    host_.close();
    wait_for(0);
  }

  int repeated() const { return repeated_; }

 private:
  // On a busy machine the emulated module may answer later than the driver waits; then it is asked
  // again.
  void use() {
    for (int tries = 0; tries < kMostTries; ++tries) {
      tell("press thumb");
      if (verify() == OPS_VERIFY_MATCH) return;
      ++repeated_;
    }
    expect(false, "the finger is not recognised");
  }
  void tell(const std::string& statement) {
    const std::string answer = wrx_module::ask(control_, "play\n" + statement);
    expect(answer == "ok\n", statement + ": " + answer);
  }
  // Looks for modules until the driver sees so many.
  void wait_for(int modules) {
    const auto end = Clock::now() + kLongestWait;
    while (host_.discover() != modules) {
      expect(Clock::now() < end,
             fmt::format("the driver sees {} modules, not {}", host_.device().dev_num, modules));
      std::this_thread::sleep_for(kBetweenLooks);
    }
  }
  int verify() {
    bio_dev& device = host_.device();
    device.ops_verify(&device, ACTION_START, kUser, 0);
    expect(bio_get_dev_status(&device) == DEVS_COMM_IDLE, "the driver is not idle");
    return bio_get_ops_result(&device);
  }

  std::string control_;
  host::PluginHost& host_;
  int repeated_ = 0;
};

bool flat(const Held& before, const Held& after) {
  return after.descriptors == before.descriptors && after.threads == before.threads &&
         after.resident_kib <= before.resident_kib + kMostResident &&
         after.heap_kib <= before.heap_kib + kMostHeap;
}

int endure(Endurance& endurance, int cycles, std::FILE* out) {
  const int warm_up = std::min(kWarmUp, cycles / 2), shown_every = std::max(cycles / 10, 1);
  const auto begun = Clock::now();
  Held before;
  for (int done = 0; done < cycles; ++done) {
    if (done % shown_every == 0) show(out, fmt::format("after {} cycles", done), held());
    if (done == warm_up) before = held();
    try {
      endurance.cycle();
    } catch (const std::exception& error) {
      throw std::runtime_error(fmt::format("cycle {}: {}", done, error.what()));
    }
  }
  const Held after = held();
  const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - begun);
  show(out, fmt::format("after {} cycles of {} ms", cycles, took.count() / cycles), after);
  fmt::print(out, "{} verifies were repeated\n", endurance.repeated());
  return flat(before, after) ? 0 : 1;
}

int run(int argc, char** argv) {
  if (argc != 4) {
    fmt::print(stderr, "usage: wrx-endure CONTROL DATABASE CYCLES\n");
    return 2;
  }
  std::FILE* out = fdopen(dup(STDOUT_FILENO), "w");
  if (out == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) return 2;
  setvbuf(out, nullptr, _IOLBF, 0);
  bio_host_set_db_path(argv[2]);
  bio_host_set_ops_timeout_ms(kTimeoutMs);
  host::PluginHost host(host::default_plugin(), host::default_config());
  Endurance endurance(argv[1], host);
  return endure(endurance, std::stoi(argv[3]), out);
}

}  // namespace
}  // namespace wrx::system_test

int main(int argc, char** argv) {
  try {
    return wrx::system_test::run(argc, argv);
  } catch (const std::exception& error) {
    fmt::print(stderr, "wrx-endure: {}\n", error.what());
    return 1;
  }
}
