// SPDX-License-Identifier: LGPL-2.1-or-later
// wrxctl as a user meets it: the program is run with the simulated module, and its exit code and
// standard output are looked at.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

enum Exit { kDone, kNoMatch, kUsage, kStopped, kTimedOut, kRefused, kAbsent, kFailed };

/// The build tree's program: in bin/ of a folder above this test's.
fs::path program() {
  for (fs::path at = fs::read_symlink("/proc/self/exe"); at.has_relative_path();
       at = at.parent_path())
    if (fs::exists(at / "bin" / "wrxctl")) return at / "bin" / "wrxctl";
  return "wrxctl";
}

struct Ended {
  int code;
  std::string out;
  /// Standard output as JSON, a value a line; a line that is none fails the test.
  std::vector<json> lines() const {
    std::vector<json> all;
    for (std::size_t from = 0; from < out.size();) {
      const std::size_t end = out.find('\n', from);
      all.push_back(json::parse(out.substr(from, end - from), nullptr, false));
      EXPECT_FALSE(all.back().is_discarded()) << out.substr(from, end - from);
      if (end == std::string::npos) break;
      from = end + 1;
    }
    return all;
  }
  json last() const { return lines().empty() ? json() : lines().back(); }
};

/// Runs with a home of its own.
class Client : public testing::Test {
 protected:
  Client() {
    char name[] = "/tmp/wrx-client-XXXXXX";
    home_ = mkdtemp(name);
  }
  ~Client() override { fs::remove_all(home_); }

  /// Runs the program to its end. Ctrl-C is sent to it once for each of `signals` when standard
  /// output shows that text.
  Ended run(const std::string& arguments, std::vector<std::string> signals = {}) const {
    int ends[2];
    if (pipe(ends) != 0) return {-1, "no pipe"};
    const pid_t child = fork();
    if (child == 0) {
      dup2(ends[1], STDOUT_FILENO);
      close(ends[0]);
      close(ends[1]);
      start(arguments);
    }
    close(ends[1]);
    Ended ended{};
    char piece[4096];
    std::size_t seen = 0;
    for (ssize_t got; (got = read(ends[0], piece, sizeof piece)) > 0;) {
      ended.out.append(piece, static_cast<std::size_t>(got));
      while (!signals.empty() && (seen = ended.out.find(signals.front(), seen)) != ended.out.npos) {
        kill(child, SIGINT);
        signals.erase(signals.begin());
      }
      if (seen == ended.out.npos) seen = 0;
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    ended.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return ended;
  }
  /// A run with a fast simulated module that plays `script`.
  Ended simulate(const std::string& command, const std::string& script,
                 std::vector<std::string> signals = {}) const {
    // Presses come after the driver's start has looked for one of the power button.
    std::string instant = "set press-gap 200ms;";
    for (const char* time : {"capture-time", "feature-time", "step-time", "merge-time"})
      instant += std::string("set ") + time + " 0ms;";
    return run(command + " --json --simulate '" + instant + script + "'", std::move(signals));
  }

  fs::path home_;

 private:
  /// Becomes the program.
  [[noreturn]] void start(const std::string& arguments) const {
    setenv("HOME", home_.c_str(), 1);
    setenv("XDG_CONFIG_HOME", (home_ / "config").c_str(), 1);
    setenv("XDG_DATA_HOME", (home_ / "data").c_str(), 1);
    setenv("XDG_STATE_HOME", (home_ / "state").c_str(), 1);
    setenv("LANGUAGE", "", 1);
    const std::string line = "exec " + program().string() + " " + arguments + " 2>/dev/null";
    execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
    _exit(127);
  }
};

TEST_F(Client, ABadCommandLineIsAUsageErrorInBothVoices) {
  for (const char* arguments :
       {"", "frob", "enroll --index -3", "enroll --index 1..2", "enroll --uid all",
        "enroll --uid nobody-of-this-name", "verify --timeout 0", "verify --timeout 2h",
        "search --range 5..2", "search --range x", "search --index 1 --range 1..2", "clean",
        "clean --all --index 1", "list --name x", "info --config /nonexistent",
        "info --trace /nonexistent/x/trace"}) {
    EXPECT_EQ(run(arguments).code, kUsage) << arguments;
    const Ended ended = run(std::string(arguments) + " --json");
    EXPECT_EQ(ended.code, kUsage) << arguments;
    EXPECT_EQ(ended.lines().size(), 1u) << ended.out;
    EXPECT_EQ(ended.last()["outcome"], "usage");
    EXPECT_NE(ended.last()["message"], "");
  }
  EXPECT_EQ(run("--help").code, kDone);
  EXPECT_NE(run("verify --help").out.find("no finger came in time"), std::string::npos);
}

TEST_F(Client, AFingerGoesAllTheWayThroughSeparateRuns) {
  Ended ended = simulate("enroll --uid 1000 --index 3 --name thumb",
                         "press thumb x5; press thumb smudged; press thumb x8");
  ASSERT_EQ(ended.code, kDone) << ended.out;
  EXPECT_EQ(ended.last()["slots"], json::array({20}));
  int progress = 0, notes = 0;
  for (const json& line : ended.lines()) {
    progress += line.value("event", "") == "progress";
    notes += line.value("event", "") == "notify";
  }
  EXPECT_EQ(progress, 12);
  EXPECT_EQ(notes, 1 + 12 + 1);  // begin, a line a press, the bad one

  const struct {
    const char *command, *script;
    int code;
  } rows[] = {
      {"verify --uid 1000", "press thumb", kDone},
      {"verify --uid 1000 --index 3", "press index", kNoMatch},
      {"verify --uid 1000 --index 4", "press thumb", kNoMatch},
      {"verify --uid 1001", "press thumb", kRefused},
      {"identify", "press thumb", kDone},
      {"identify --uid 1001", "press thumb", kNoMatch},
      {"search --range 0..2", "press thumb", kNoMatch},
      {"search --range 3..", "press thumb", kDone},
      {"enroll --uid 1000", "press thumb x20", kRefused},
      {"enroll --uid 1000 --index 3", "press other x20", kRefused},
      {"verify --uid 1000 --timeout 300ms", "", kTimedOut},
      {"identify --timeout 300ms", "", kTimedOut},
  };
  for (const auto& row : rows) {
    const std::string script = *row.script != '\0' ? row.script : "wait 1s";
    EXPECT_EQ(simulate(row.command, script).code, row.code) << row.command << ": " << row.script;
  }
  EXPECT_EQ(simulate("list --uid all", "lift").last()["fingers"].size(), 1u);
  EXPECT_EQ(simulate("clean --uid 1000 --all", "lift").last()["removed"].size(), 1u);
  EXPECT_EQ(simulate("list --uid all", "lift").last()["fingers"].size(), 0u);
  EXPECT_EQ(simulate("identify", "press thumb").code, kNoMatch);
}

TEST_F(Client, AnAbsentModuleAndADisabledDriverAreToldApart) {
  for (const char* command : {"discover", "init", "enroll", "identify", "firmware"})
    EXPECT_EQ(simulate(command, "unplug").code, kAbsent) << command;
  const Ended pulled = simulate("verify --index 0 --timeout 500ms", "wait 600ms; unplug");
  EXPECT_EQ(pulled.code, kAbsent) << pulled.out;
  std::ofstream(home_ / "off.conf") << "[wrx5300]\nEnable=false\n";
  const std::string off = " --config " + (home_ / "off.conf").string();
  for (const char* command : {"enroll", "search", "clean --all", "list"})
    EXPECT_EQ(simulate(command + off, "press x13").code, kRefused) << command;
  EXPECT_EQ(simulate("info" + off, "lift").last()["enabled"], false);
}

TEST_F(Client, ADamagedDatabaseStopsEveryCommandThatNeedsItAndIsLeftAlone) {
  const fs::path file = home_ / "damaged.db";
  std::ofstream(file) << std::string(9000, 'x');
  for (const char* command : {"enroll", "verify", "identify", "search", "list", "clean --all"}) {
    const Ended ended = simulate(std::string(command) + " --db " + file.string(), "press x13");
    EXPECT_EQ(ended.code, kFailed) << command;
    EXPECT_NE(ended.out.find("damaged.db"), std::string::npos) << ended.out;
  }
  EXPECT_EQ(fs::file_size(file), 9000u);
}

TEST_F(Client, CtrlCAsksTheDriverToStopAndASecondOneLeavesAtOnce) {
  for (const char* command : {"verify --uid 1000 --index 0", "identify", "search", "enroll"}) {
    const Ended ended = simulate(command, "lift", {"touch the sensor"});
    EXPECT_EQ(ended.code, kStopped) << command << ended.out;
    EXPECT_EQ(ended.last()["outcome"], "stopped") << command << ended.out;
    EXPECT_EQ(ended.out.find("at once\""), std::string::npos);
  }
  // The driver's start cannot be stopped, and a module that lets reads run out of time makes it
  // take seconds.
  const Ended ended = simulate("init", "set empty-read times-out", {"Starting", "Stopping"});
  EXPECT_EQ(ended.code, kStopped);
  // On a busy machine the first request may come before the start has begun.
  const std::string message = ended.last()["message"];
  EXPECT_TRUE(message == "left at once" || message == "stopped before the operation began")
      << ended.out;
}

TEST_F(Client, TheDecisionShownIsTheOneTheNextStartTakes) {
  const fs::path root = program().parent_path().parent_path() / "scratch" / "etc";
  const fs::path extra = root / "wrx6600" / "extra";
  fs::create_directories(extra);
  fs::create_directories(root / "biometric-auth" / "extra.conf.d");
  std::ofstream(extra / "trv_fw.conf") << "ACM32FP_V123\n";
  const std::string plugin =
      " --plugin " + (program().parent_path().parent_path() / "lib/wrx5300-scratch.so").string();
  const struct {
    const char* mode;
    int budget;
    std::size_t size;
    bool upgrade;
  } rows[] = {
      {"SMART_UPGRADE", 1, 481, true},      {"SMART_UPGRADE", 1, 481, false},  // it is new now
      {"AUTO_UPGRADE", 1, 481, false},      {"DONT_UPGRADE", 1, 481, false},
      {"FORCE_UPGRADE", 0, 481, false},     {"FORCE_UPGRADE", 1, 0, false},
      {"FORCE_UPGRADE", 1, 2097153, false}, {"force_upgrade", 1, 481, false},
  };
  for (const auto& row : rows) {
    std::ofstream(root / "biometric-auth" / "extra.conf.d" / "vestrel-m6600.conf")
        << "[BASIC_PARAM]\nUpgradeMode=" << row.mode << "\nUpgradeFlag=" << row.budget << "\n";
    std::string image = "acm32_btl_zelta_pc_000123";
    image.resize(row.size, 'x');
    std::ofstream(extra / "ACM32FP_V123.bin", std::ios::binary) << image;
    EXPECT_EQ(simulate("firmware" + plugin, "lift").last()["upgrade"], row.upgrade) << row.mode;
    EXPECT_EQ(simulate("init" + plugin, "lift").last()["upgraded"], row.upgrade) << row.mode;
  }
  fs::remove_all(root);
}

TEST_F(Client, StandardOutputHoldsTheProgramsOwnWordsAndTheTraceTheDrivers) {
  const fs::path trace = home_ / "trace.log";
  const Ended ended = simulate("discover --trace " + trace.string(), "lift");
  EXPECT_EQ(ended.code, kDone);
  EXPECT_EQ(ended.lines().size(), 1u);
  std::ifstream file(trace);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  EXPECT_NE(text.find("wrx7700_ops_discover"), std::string::npos);
  EXPECT_EQ(fs::status(trace).permissions(), fs::perms(0600));
}

}  // namespace
