// SPDX-License-Identifier: LGPL-2.1-or-later
// The log: forms of a line, the file's switch, its time, its failures, two threads.
#include "base/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <thread>

#include "support/lower_rooms.h"

namespace wrx_test {
namespace {

constexpr wrx::CallSite kSite = {"unit", 7, "fn"};
constexpr wrx::DumpStyle kDump = {true, true, true, "\n"};

const uint8_t* bytes(const char* text) {
  return reinterpret_cast<const uint8_t*>(text);
}

class Log : public testing::Test {
 protected:
  Log() {
    setenv("TZ", "TST-2", 1);  // two hours east
    tzset();
    enable_printf_log(1);
  }
  Rig rig;
};

TEST_F(Log, EachFormHasItsPrefixAndOnlyTheStandardOneReachesTheFile) {
  WRX_LOG(kSite, "a %d\r\n", 1);
  WRX_PRINT(kSite, "b\r");
  wrx::print_text(kSite, "c %s", "3");
  wrx::print_piece(" path: %d\n", 4);
  wrx::print_line(kSite, "e\r\n");
  wrx::print_function(kSite, "f\n");
  const std::vector<std::string> console = {"[unit:7:fn] a 1\\r", "[unit:7:fn] b\\r",
                                            "[unit:7:fn] c 3 path: 4", "unit:7:fn: e\\r", "fn: f"};
  EXPECT_EQ(rig.trace.driver_lines(), console);
  setenv("TZ", "TST-3", 1);  // the zone is looked at anew for each line
  rig.clock.sleep_us((7 * 3600 + 5 * 60 + 9) * 1'000'000LL);
  EXPECT_EQ(wrx_print_log_time(bytes("x\n"), 2), 0);
  EXPECT_EQ(wrx_print_log(bytes("y\n"), 2), 0);
  EXPECT_EQ(rig.read_file(kLogFile), "02:00:00 [unit:7:fn] a 1\r\n10:05:09 x\ny\n");
}

TEST_F(Log, PrefixAndMessageTogetherEndAt499Characters) {
  for (const size_t size : {487U, 488U, 5000U}) {  // behind 12 characters of prefix
    rig.trace.clear();
    WRX_LOG(kSite, "%s", std::string(size, 'x').c_str());
    EXPECT_EQ(rig.trace.driver_lines()[0].size(), std::min<size_t>(12 + size, 499) + 1);
  }
  WRX_LOG({"unit", 7, std::string(700, 'f').c_str()}, "lost");
  EXPECT_EQ(rig.trace.driver_lines()[1].size(), 499U + 1);
}

TEST_F(Log, AFailedWriteIsAnErrorUnlessItIsSwitchedOffAndTheConsoleHearsTheLine) {
  EXPECT_EQ(wrx_print_log(nullptr, 3), -1);
  EXPECT_EQ(wrx_print_log_time(bytes("x"), 0), -1);
  const int input = dup(0);
  close(0);  // a descriptor numbered 0 counts as not open
  EXPECT_EQ(wrx_print_log_time(bytes("x"), 1), -1);
  dup2(input, 0);
  close(input);
  // The number of the file's descriptor is free after a line, and another's from then on.
  wrx_open_log_file();
  WRX_LOG(kSite, "twice\n");
  const int others = dup(0);
  EXPECT_EQ(others, input);
  WRX_LOG(kSite, "twice\n");
  EXPECT_EQ(close(others), 0);
  std::filesystem::remove(kLogFile);
  EXPECT_EQ(rig.read_file(kLogFile), "");
  EXPECT_EQ(wrx_print_log_time(bytes("x"), 1), 0);
  std::filesystem::remove_all("etc/wrx6600");
  WRX_LOG(kSite, "a\n");
  EXPECT_EQ(wrx_print_log(bytes("x"), 1), -1);
  enable_printf_log(0);
  EXPECT_EQ(wrx_print_log_time(bytes("x"), 1), 0);
  EXPECT_EQ(wrx_print_log(nullptr, 0), 0);
  EXPECT_EQ(wrx_open_log_file(), 0);
  const std::vector<std::string> lines = {
      "[wrx7700:#:wrx_print_log] the param is ERROR !!!",
      "[wrx7700:#:wrx_print_log_time] the param is ERROR !!!",
      "[wrx7700:#:wrx_print_log_time] the logfileFD not open, ERROR !!!",
      "[unit:7:fn] twice",
      "[unit:7:fn] twice",
      "/etc/wrx6600/extra/log_wrx.txt open fail ",
      "[unit:7:fn] a",
      "/etc/wrx6600/extra/log_wrx.txt open fail "};
  EXPECT_EQ(rig.trace.driver_lines(), lines);
  EXPECT_FALSE(rig.file_exists("etc/wrx6600"));
}

TEST_F(Log, TwoThreadsWriteWholeLinesAndWholeDumps) {
  const auto work = [](const char* name) {
    for (int i = 0; i < 300; ++i) {
      WRX_LOG({"unit", 7, name}, "a line\n");
      wrx::dump(bytes(std::string(34, '1').c_str()), 34, kDump);
    }
  };
  std::thread other(work, "other");
  work("main");
  other.join();
  std::string row;
  for (int i = 0; i < 32; ++i)
    row += "31 ";
  std::map<std::string, int> counts;
  const std::vector<std::string> lines = lines_of(rig.read_file(kLogFile));
  for (size_t i = 0; i < lines.size(); ++i)
    ++counts[lines[i] == row && i + 1 < lines.size() ? row + lines[++i] : lines[i]];
  EXPECT_EQ(counts, (std::map<std::string, int>{{"02:00:00 [unit:7:main] a line", 300},
                                                {"02:00:00 [unit:7:other] a line", 300},
                                                {row + "31 31 ", 600}}));
}

}  // namespace
}  // namespace wrx_test
