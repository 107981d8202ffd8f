// SPDX-License-Identifier: LGPL-2.1-or-later
// The log: forms of a line, the file's switch, its time, its failures, two threads.
#include "log.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <thread>

#include "lower_rooms.h"

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
  std::vector<std::string> file() { return lines_of(rig.read_file(kLogFile)); }
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
  EXPECT_EQ(file(), std::vector<std::string>{"02:00:00 [unit:7:fn] a 1\r"});
}

TEST_F(Log, PrefixAndMessageTogetherEndAt499Characters) {
  for (const size_t size : {486U, 487U, 488U, 5000U}) {  // behind 12 characters of prefix
    rig.trace.clear();
    WRX_LOG(kSite, "%s", std::string(size, 'x').c_str());
    EXPECT_EQ(rig.trace.driver_lines()[0].size(), std::min<size_t>(12 + size, 499) + 1);
  }
  rig.trace.clear();
  WRX_LOG({"unit", 7, std::string(700, 'f').c_str()}, "lost");
  EXPECT_EQ(rig.trace.driver_lines()[0].size(), 499U + 1);
}

TEST_F(Log, TheTimeIsLocalEightCharactersAndABlankAlsoAfterTheZoneChanged) {
  rig.clock.sleep_us((7 * 3600 + 5 * 60 + 9) * 1'000'000LL);
  EXPECT_EQ(wrx_print_log_time(bytes("x\n"), 2), 0);
  EXPECT_EQ(wrx_print_log(bytes("y\n"), 2), 0);
  setenv("TZ", "TST-3", 1);
  EXPECT_EQ(wrx_print_log_time(bytes("z\n"), 2), 0);
  EXPECT_EQ(rig.read_file(kLogFile), "09:05:09 x\ny\n10:05:09 z\n");
}

TEST_F(Log, SwitchedOffItWritesNothingAndSucceeds) {
  enable_printf_log(0);
  EXPECT_EQ(wrx_print_log_time(bytes("x"), 1), 0);
  EXPECT_EQ(wrx_print_log(nullptr, 0), 0);
  EXPECT_EQ(wrx_open_log_file(), 0);
  WRX_LOG(kSite, "a\n");
  wrx::dump(bytes("x"), 1, kDump);
  EXPECT_FALSE(rig.file_exists(kLogFile));
}

TEST_F(Log, NothingToWriteIsAnErrorOfThePrimitive) {
  EXPECT_EQ(wrx_print_log(nullptr, 3), -1);
  EXPECT_EQ(wrx_print_log_time(bytes("x"), 0), -1);
  EXPECT_EQ(said(rig),
            "[wrx_print_log] the param is ERROR !!!\n[wrx_print_log_time] the param is ERROR "
            "!!!\n");
}

TEST_F(Log, WithoutItsFolderEveryLineStillReachesTheConsole) {
  std::filesystem::remove_all("etc/wrx6600");
  WRX_LOG(kSite, "a\n");
  EXPECT_EQ(wrx_print_log(bytes("x"), 1), -1);
  EXPECT_EQ(said(rig),
            "/etc/wrx6600/extra/log_wrx.txt open fail \n[fn] a\n"
            "/etc/wrx6600/extra/log_wrx.txt open fail \n");
  EXPECT_FALSE(rig.file_exists("etc/wrx6600"));
}

TEST_F(Log, ADescriptorNumbered0CountsAsNotOpen) {
  const int input = dup(0);
  close(0);
  EXPECT_EQ(wrx_print_log_time(bytes("x"), 1), -1);
  dup2(input, 0);
  close(input);
  EXPECT_EQ(said(rig), "[wrx_print_log_time] the logfileFD not open, ERROR !!!\n");
  EXPECT_EQ(rig.read_file(kLogFile), "");
  EXPECT_EQ(wrx_print_log_time(bytes("x"), 1), 0);
}

TEST_F(Log, ALineOrADumpOpensTheFileOnceAndLeavesItClosed) {
  const int watch = inotify_init1(IN_NONBLOCK);
  inotify_add_watch(watch, "etc/wrx6600/extra", IN_OPEN | IN_CLOSE_WRITE);
  const auto events = [&](uint32_t kind) {
    alignas(inotify_event) char buffer[4096];
    int count = 0;
    const ssize_t size = ::read(watch, buffer, sizeof buffer);
    for (ssize_t at = 0; at < size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      count += (event->mask & kind) != 0 ? 1 : 0;
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    return count;
  };
  WRX_LOG(kSite, "a\n");
  EXPECT_EQ(events(IN_OPEN), 1);
  const std::string much(64, 'x');
  wrx::dump(bytes(much.c_str()), much.size(), kDump);
  EXPECT_EQ(events(IN_OPEN), 1);
  wrx_print_log(bytes("x"), 0);
  EXPECT_EQ(events(IN_CLOSE_WRITE), 1);
  close(watch);
}

TEST_F(Log, TwoThreadsWriteWholeLinesAndWholeDumps) {
  const std::string much(64, '\x11');
  const auto work = [&](const char* name) {
    for (int i = 0; i < 300; ++i) {
      WRX_LOG({"unit", i, name}, "a line of %s\n", name);
      wrx::dump(bytes(much.c_str()), much.size(), kDump);
    }
  };
  std::thread other(work, "other");
  work("main");
  other.join();
  std::string row;
  for (int i = 0; i < 32; ++i)
    row += "11 ";
  std::map<std::string, int> counts;
  const std::vector<std::string> lines = file();
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i] == row) {
      ASSERT_EQ(lines.at(i + 1), row);
      ASSERT_EQ(lines.at(i + 2), "");
      i += 2;
      ++counts["dump"];
    } else {
      ++counts[Taken(lines[i].substr(9)).function];
      EXPECT_EQ(Taken(lines[i].substr(9)).rest,
                "] a line of " + Taken(lines[i].substr(9)).function);
    }
  }
  EXPECT_EQ(counts, (std::map<std::string, int>{{"main", 300}, {"other", 300}, {"dump", 600}}));
}

}  // namespace
}  // namespace wrx_test
