// SPDX-License-Identifier: LGPL-2.1-or-later
// Operations in all their outcomes, each in a line of a golden file: what it returned, how long it
// took, what the module was asked, what the user was told, and what both sides hold afterwards.
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "operations/module_procedures.h"
#include "protocol/packet.h"
#include "support/rig.h"

namespace wrx_test {
namespace {

using wrx_module::PowerUpOutcome;

constexpr int kOther = 2000;

std::string in_words(const std::vector<Stored>& features) {
  std::string text;
  for (const Stored& feature : features)
    text += fmt::format(" {}/{}:{}", feature.uid, feature.index, fmt::join(feature.slots, ","));
  return text;
}

// The driver's own words to the user, which are not in English, and how often they were said.
std::string told(Rig& rig) {
  const std::string begin = "bio_print_debug \"";
  std::map<std::string, int> counts;
  for (const std::string& line : rig.trace.lines()) {
    const size_t at = line.find(begin);
    if (at == std::string::npos || static_cast<uint8_t>(line[at + begin.size()]) < 0x80) continue;
    ++counts[line.substr(at + begin.size(), line.find("\\n", at) - at - begin.size())];
  }
  std::string text;
  for (const auto& [words, count] : counts)
    text += fmt::format("\n     {} x {}", count, words);
  return text;
}

// Goes to `age_ms` after the power-up result was taken.
void let_the_result_be_old(Rig& rig, int64_t age_ms) {
  const timeval* taken = get_onekey_powerup_tv_time();
  const int64_t taken_us = (taken->tv_sec - VirtualClock::kEpoch) * 1'000'000 + taken->tv_usec;
  rig.clock.sleep_us(taken_us + age_ms * 1000 - rig.clock.now_us());
}

// "verify UID INDEX", "enroll UID INDEX NAME", or an operation on "UID START END"; "age MS" of the
// power-up result; anything else happens at the module.
std::string step(Rig& rig, const std::string& text) {
  std::istringstream words(text);
  std::string verb, name;
  int uid = 0, start = 0, end = 0, result = 0;
  words >> verb >> uid >> start;
  if (verb == "enroll" ? !(words >> name) : !(words >> end)) end = -1;
  rig.trace.clear();
  rig.device.commands().clear();
  std::string found;
  const int64_t ms = rig.time_of([&] {
    if (verb == "verify") result = rig.verify(uid, start);
    if (verb == "identify") result = rig.identify(uid, start, end);
    if (verb == "clean") result = rig.clean(uid, start, end);
    if (verb == "enroll") result = rig.enroll(uid, start, name.c_str());
    if (verb == "search") found = in_words(rig.search(uid, start, end)) + ";";
    if (verb == "list") found = in_words(rig.list(uid, start, end)) + ";";
    if (verb == "age") let_the_result_be_old(rig, uid);
  });
  if (rig.trace.lines().empty()) {
    if (verb != "age") rig.play(text);
    return "   " + text;
  }
  return fmt::format(
      "{} ={}{} {} ms, result {}, notification {}, status {}{}\n     asked {}; slots {}; records{}",
      text, found, found.empty() ? fmt::format(" {};", result) : "", ms, rig.result(),
      rig.notification(), rig.status(), told(rig), fmt::join(rig.asked(), " "),
      fmt::join(rig.slots(), " "), in_words(rig.stored()));
}

// Two users; the thumb of the second lies in two slots, and one template has no feature.
void two_users(Rig& rig) {
  rig.device.memory().templates = {
      {20, "left"}, {21, "thumb"}, {22, "right"}, {23, "thumb"}, {24, "nobody"}};
  rig.store({kOther, 3, {23}});
  rig.store({kOther, 1, {21}});
  rig.store({Rig::kUser, 0, {20}});
  rig.store({Rig::kUser, 7, {39, 22}});
}
// The module finds the first and the last of their features, in one user's record each.
template <PowerUpOutcome outcome>
void powered_up(Rig& rig) {
  two_users(rig);
  rig.device.settings().power_up = {
      .outcome = outcome, .slots = {21, 22}, .form = wrx_module::ResultForm::list};
}
void stocked(Rig& rig) {
  rig.device.memory().templates = {{3, "a"}, {7, "b"}, {21, "c"}, {22, "d"}, {23, "e"}};
  rig.store({Rig::kUser, 0, {3, 7}});
  rig.store({Rig::kUser, 1, {21}});
  rig.store({Rig::kUser, 4, {22}});
  rig.store({kOther, 1, {23}});
  rig.store({3000, 0, {}});
}
void one_finger(Rig& rig) {
  rig.store({Rig::kUser, 0, {20}});
  rig.device.memory().templates[20] = "f0";
}
void occupy(Rig& rig, const std::vector<uint16_t>& slots) {
  for (const uint16_t slot : slots)
    rig.device.memory().templates[slot] = "f" + std::to_string(slot);
}
void one_slot_left(Rig& rig) {
  for (uint16_t slot = 20; slot < 39; ++slot) {
    rig.store({kOther + slot / 30, slot % 10, {slot}});
    occupy(rig, {slot});
  }
}
// Of one user a record with slots that are none of the page.
void abandoned(Rig& rig) {
  occupy(rig, {0, 5, 19, 20, 25, 39, 40, 45, 255});
  rig.store({kOther, 0, {25}});
  rig.store({kOther, 1, {-1, 256 + 39}});
}
void damaged_database(Rig& rig) {
  occupy(rig, {20, 21, 22});
  rig.write_file("feature.db", std::string(4096, 'x'));
}
// A limit that is smaller than the one the driver took at its start.
void small_limit(Rig& rig) {
  rig.ready();
  bio_host_set_ops_timeout_ms(300);
}

struct Scene {
  const char* headline;
  void (*arrange)(Rig&);
  std::vector<const char*> steps;
};

const Scene kScenes[] = {
    {"verify is about one feature of one user",
     two_users,
     {"press left", "verify 1000 0", "press right", "verify 1000 7", "press thumb", "verify 2000 3",
      "press left", "verify 1000 7", "press left", "verify 2000 1", "press left", "verify 1000 5",
      "press stranger", "verify 1000 0", "press nobody", "verify 1000 0"}},
    // The module's match stands although the selection holds no such feature.
    {"identify names the user of the first stored match",
     two_users,
     {"press left", "identify -1 0 -1", "press thumb", "identify -1 0 -1", "press thumb",
      "identify 2000 2 5", "press thumb", "identify 2000 4 9", "press left", "identify 2000 0 -1",
      "press nobody", "identify -1 0 -1", "press stranger", "identify -1 0 -1"}},
    {"identify waits longer than any limit",
     two_users,
     {"at 100s; press left", "identify -1 0 -1"}},
    // A verify neither uses the result nor drops it; the first identify does.
    {"power-up result, young",
     powered_up<PowerUpOutcome::match>,
     {"press left", "verify 1000 0", "age 14999", "press thumb x2", "identify -1 0 -1",
      "identify -1 0 -1"}},
    {"power-up result, old",
     powered_up<PowerUpOutcome::match>,
     {"press left", "verify 1000 0", "age 15000", "press thumb x2", "identify -1 0 -1",
      "identify -1 0 -1"}},
    {"power-up result without a match", powered_up<PowerUpOutcome::no_match>, {"identify -1 0 -1"}},
    {"search gives all matches in stored order",
     two_users,
     {"press thumb x3; press left; press stranger", "search -1 0 -1", "search 2000 2 -1",
      "search 1000 0 -1", "search 1000 0 0", "search -1 0 -1"}},
    {"clean", stocked, {"clean 1000 2 3", "clean 4000 0 -1", "clean 3000 0 -1", "clean 1000 0 1"}},
    // The second exchange of feature 0, then the first of feature 1.
    {"clean, refused",
     stocked,
     {"at 10ms; refuse 12 27 x1", "clean 1000 0 -1", "at 30ms; refuse 12 27 x1", "clean 1000 0 -1",
      "clean 1000 0 -1"}},
    // A record is removed for all users that are asked for, whoever's template was erased.
    {"clean of all users, refused", stocked, {"at 10ms; refuse 12 27 x1", "clean -1 1 1"}},
    {"list", stocked, {"list 1000 1 -1", "list -1 0 -1", "list 1000 2 3"}},
    {"enrolment of a known finger, until it is lifted",
     one_finger,
     {"press other x13; at 0ms; press f0; at 230ms; lift", "enroll 1000 1 finger"}},
    {"of a finger that only another user has", one_finger, {"press f0 x13", "enroll 2000 0 f"}},
    {"into the last slot", one_slot_left, {"press x13", "enroll 1000 0 finger"}},
    // The check times out after 5 s, then the wait for a second press.
    {"with a check for duplicates that fails",
     [](Rig&) {},
     {"refuse 50 27 x1; press x12", "enroll 1000 0 finger",
      "at 5500ms; press late; at 5600ms; lift", "enroll 1000 1 finger"}},
    {"with abandoned templates", abandoned, {"press x13", "enroll 1000 0 finger"}},
    {"with one that cannot be erased",
     [](Rig& rig) {
       occupy(rig, {21, 22, 23});
     },
     {"refuse 12 27 x1; press x13", "enroll 1000 0 finger"}},
    // Nothing is erased, and nobody presses a second time.
    {"with a database that cannot be opened", damaged_database, {"press", "enroll 1000 3 finger"}},
    // The handle is still held: an unanswered send, and a time-out.
    {"unplugged", small_limit, {"press; at 200ms; unplug", "enroll 1000 0 finger"}},
};

TEST(Operations, InAllTheirOutcomes) {
  std::vector<std::string> lines;
  for (const Scene& scene : kScenes) {
    Rig rig;
    scene.arrange(rig);
    if (rig.dev.device_name == nullptr) rig.ready();
    lines.push_back(std::string("== ") + scene.headline);
    for (const char* text : scene.steps) {
      std::istringstream outcome(step(rig, text));
      for (std::string line; std::getline(outcome, line);)
        lines.push_back(line);
    }
  }
  EXPECT_EQ(golden_difference("operations", without_repeats(lines)), "");
}

TEST(Enrolment, NeedsNoName) {
  Rig rig;
  rig.ready();
  rig.play("press x13");
  EXPECT_EQ(rig.dev.ops_enroll(&rig.dev, ACTION_START, Rig::kUser, -1, nullptr), 0);
  EXPECT_EQ(rig.stored(), std::vector{(Stored{Rig::kUser, 0, {20}})});
}

TEST(Procedures, RefuseNullRecordsAndPressesBeyondThem) {
  Recorder trace;
  EXPECT_EQ(fp_auto_enroll_param_init(nullptr, 21, 12), -1);
  EXPECT_EQ(fp_auto_identify_param_init(nullptr, 3, 0xFFFF, 1), -1);
  EXPECT_EQ(fp_get_increment_of_time_ms(nullptr), 0);
  EXPECT_EQ(fp_delete_invalid_template(nullptr), -1);
  EXPECT_EQ(fp_get_enroll_create_feature_result(15), 0);
  EXPECT_EQ(fp_get_enroll_create_feature_result(16), 0xFF);
  EXPECT_EQ(fp_get_enroll_result(255), 0xFF);
  EXPECT_EQ(trace.count("error!!!"), 6);
}

TEST(Procedures, ElapsedTimeIsCutTowardsZero) {
  VirtualClock clock;
  const struct {
    int64_t start_us, passed_us;
    int32_t ms;
  } rows[] = {{0, 999, 0}, {999'999, 1001, 1}, {1, 14'999'999, 14'999}, {2'000'000, -999, 0}};
  for (const auto& row : rows) {
    const int64_t start = clock.now_us() + row.start_us - std::min<int64_t>(row.passed_us, 0);
    struct timeval tv = {VirtualClock::kEpoch + start / 1'000'000, start % 1'000'000};
    clock.sleep_us(start + row.passed_us - clock.now_us());
    EXPECT_EQ(fp_get_increment_of_time_ms(&tv), row.ms);
  }
}

}  // namespace
}  // namespace wrx_test
