// SPDX-License-Identifier: LGPL-2.1-or-later
// Operations in all their outcomes, each in a line of a golden file: what it returned, how long it
// took, what the module was asked, what the user was told, and what both sides hold afterwards.
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "operations/module_procedures.h"
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

// Makes the power-up result `age_ms` old; below 0 the clock was set back after it.
void let_the_result_be_old(Rig& rig, int64_t age_ms) {
  const int64_t taken_us = VirtualClock::kEpoch * 1'000'000 + rig.clock.now_us() - age_ms * 1000;
  *get_onekey_powerup_tv_time() = {taken_us / 1'000'000, taken_us % 1'000'000};
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
    if (verb == "age") let_the_result_be_old(rig, std::stoll(text.substr(4)));
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

class Operations : public testing::Test {
 protected:
  /// A rig of its own, and the steps in it.
  void scene(const char* headline, void (*arrange)(Rig&), const std::vector<const char*>& steps) {
    Rig rig;
    arrange(rig);
    if (rig.dev.device_name == nullptr) rig.ready();
    lines_.push_back(std::string("== ") + headline);
    for (const char* text : steps) {
      std::istringstream outcome(step(rig, text));
      for (std::string line; std::getline(outcome, line);)
        lines_.push_back(line);
    }
  }
  void expect(const char* golden) { EXPECT_EQ(golden_difference(golden, lines_), ""); }

 private:
  std::vector<std::string> lines_;
};

// Two users; the thumb of the second lies in two slots, and one template has no feature.
void two_users(Rig& rig) {
  rig.device.memory().templates = {
      {20, "left"}, {21, "thumb"}, {22, "right"}, {23, "thumb"}, {24, "nobody"}};
  rig.store({kOther, 3, {23}});
  rig.store({kOther, 1, {21}});
  rig.store({Rig::kUser, 0, {20}});
  rig.store({Rig::kUser, 7, {39, 22}});
}
template <PowerUpOutcome outcome, uint16_t... slots>
void powered_up(Rig& rig) {
  two_users(rig);
  rig.device.settings().power_up.outcome = outcome;
  rig.device.settings().power_up.slots = {slots...};
}

TEST_F(Operations, VerifyIsAboutOneFeatureOfOneUser) {
  scene(
      "verify", two_users,
      {"press left", "verify 1000 0", "press right", "verify 1000 7", "press thumb",
       "verify 2000 3", "press left", "verify 1000 7", "press left", "verify 2000 1", "press left",
       "verify 1000 5", "press stranger", "verify 1000 0", "press nobody", "verify 1000 0"});
  expect("operations-verify");
}

TEST_F(Operations, IdentifyNamesTheUserOfTheFirstStoredMatch) {
  // The module's match stands although the selection holds no such feature.
  scene(
      "identify", two_users,
      {"press left", "identify -1 0 -1", "press thumb", "identify -1 0 -1", "press thumb",
       "identify 2000 2 5", "press thumb", "identify 2000 4 9", "press left", "identify 2000 0 -1",
       "press nobody", "identify -1 0 -1", "press stranger", "identify -1 0 -1"});
  scene("identify waits longer than any limit", two_users,
        {"at 100s; press left", "identify -1 0 -1"});
  // A verify neither uses the result nor drops it; the first identify does.
  scene("power-up result, young", powered_up<PowerUpOutcome::match, 22>,
        {"press left", "verify 1000 0", "age 14999", "press thumb x2", "identify -1 0 -1",
         "identify -1 0 -1"});
  scene("power-up result, old", powered_up<PowerUpOutcome::match, 22>,
        {"press left", "verify 1000 0", "age 15000", "press thumb x2", "identify -1 0 -1",
         "identify -1 0 -1"});
  // By 32 bits the third would be 5 s old; the second lies beyond their sign.
  for (const char* age : {"age -1", "age 2147488648", "age 4294972296"})
    scene("power-up result of another time", powered_up<PowerUpOutcome::match, 22>,
          {age, "press thumb", "identify -1 0 -1"});
  scene("power-up result without a match", powered_up<PowerUpOutcome::no_match>,
        {"identify -1 0 -1"});
  expect("operations-identify");
}

TEST_F(Operations, SearchGivesAllMatchesInStoredOrder) {
  scene("search", two_users,
        {"press thumb x3; press left; press stranger", "search -1 0 -1", "search 2000 2 -1",
         "search 1000 0 -1", "search 1000 0 0", "search -1 0 -1"});
  expect("operations-search");
}

TEST_F(Operations, CleanAndListAreAboutASelection) {
  const auto stocked = [](Rig& rig) {
    rig.device.memory().templates = {{3, "a"}, {7, "b"}, {21, "c"}, {22, "d"}, {23, "e"}};
    rig.store({Rig::kUser, 0, {3, 7}});
    rig.store({Rig::kUser, 1, {21}});
    rig.store({Rig::kUser, 4, {22}});
    rig.store({kOther, 1, {23}});
    rig.store({3000, 0, {}});
  };
  scene("clean", stocked,
        {"clean 1000 2 3", "clean 4000 0 -1", "clean 3000 0 -1", "clean 1000 0 1"});
  // The second exchange of feature 0, then the first of feature 1.
  scene("clean refused", stocked,
        {"at 10ms; refuse 12 27 x1", "clean 1000 0 -1", "at 30ms; refuse 12 27 x1",
         "clean 1000 0 -1", "clean 1000 0 -1"});
  scene("list", stocked, {"list 1000 1 -1", "list -1 0 -1", "list 1000 2 3"});
  expect("operations-clean");
}

void one_finger(Rig& rig) {
  rig.store({Rig::kUser, 0, {20}});
  rig.device.memory().templates[20] = "f0";
}

TEST_F(Operations, EnrolmentKnowsTheUsersFingersAndErasesWhatNobodyNames) {
  scene("a known finger, until it is lifted", one_finger,
        {"press other x13; at 0ms; press f0; at 230ms; lift", "enroll 1000 1 finger"});
  scene("a finger that only another user has", one_finger, {"press f0 x13", "enroll 2000 0 f"});
  scene("the first free index", one_finger, {"press second x13", "enroll 1000 -1 thumb"});
  // The check times out after 5 s, then the wait for a second press.
  scene("a check for duplicates that fails", [](Rig&) {},
        {"refuse 50 27 x1; press x12", "enroll 1000 0 finger",
         "at 5500ms; press late; at 5600ms; lift", "enroll 1000 1 finger"});
  scene("abandoned templates",
        [](Rig& rig) {
          for (const int slot : {0, 5, 19, 20, 25, 39, 40, 45, 255})
            rig.device.memory().templates[static_cast<uint16_t>(slot)] = "f" + std::to_string(slot);
          rig.store({kOther, 0, {25}});
          rig.store({kOther, 1, {-1, 256 + 39}});  // names no slot of the page
        },
        {"press x13", "enroll 1000 0 finger"});
  // Nothing is erased, and nobody presses a second time.
  scene("a database that cannot be opened",
        [](Rig& rig) {
          rig.device.memory().templates = {{20, "f0"}, {21, "f1"}, {22, "f2"}};
          rig.write_file("feature.db", std::string(4096, 'x'));
        },
        {"press", "enroll 1000 3 finger"});
  // The limit is smaller than the one that the driver took at its start. The handle is still held:
  // an unanswered send, and a time-out.
  scene("unplugged",
        [](Rig& rig) {
          rig.ready();
          bio_host_set_ops_timeout_ms(300);
        },
        {"press; at 200ms; unplug", "enroll 1000 0 finger"});
  expect("operations-enroll");
}

TEST(Enrolment, NeedsNoName) {
  Rig rig;
  rig.ready();
  rig.play("press x13");
  EXPECT_EQ(rig.dev.ops_enroll(&rig.dev, ACTION_START, Rig::kUser, -1, nullptr), 0);
  EXPECT_EQ(rig.stored(), std::vector{(Stored{Rig::kUser, 0, {20}})});
}

}  // namespace
}  // namespace wrx_test
