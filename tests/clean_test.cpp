// SPDX-License-Identifier: LGPL-2.1-or-later
// Cleaning, module first and record after it, and listing.
#include <gmock/gmock.h>

#include "support/rig.h"

namespace wrx_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kOther = 2000;

class Cleaning : public testing::Test {
 protected:
  Cleaning() {
    for (const Stored& feature : all) {
      rig.store(feature);
      for (const int slot : feature.slots) {
        rig.device.memory().templates[static_cast<uint16_t>(slot)] = "f" + std::to_string(slot);
      }
    }
    rig.ready();
  }
  void expect(int result) {
    EXPECT_EQ(rig.result(), result);
    EXPECT_EQ(rig.notification(), result);
    EXPECT_EQ(rig.status(), DEVS_COMM_IDLE);
  }
  // What the module and the database were told, in order: "del 3", "clean 1..1".
  std::vector<std::string> deletions() {
    std::vector<std::string> result;
    for (const std::string& line : rig.trace.lines()) {
      const size_t sent = line.find("ef01ffffffff0100070c");
      const size_t cleaned = line.find("bio_sto_clean_feature_info");
      if (sent != std::string::npos && line.find("usb-out") != std::string::npos) {
        result.push_back("del " +
                         std::to_string(std::stoi(line.substr(sent + 20, 4), nullptr, 16)));
      } else if (cleaned != std::string::npos) {
        result.push_back(line.substr(cleaned + 14));
      }
    }
    return result;
  }
  const std::vector<Stored> all = {
      {Rig::kUser, 0, {3, 7}}, {Rig::kUser, 1, {21}}, {Rig::kUser, 4, {22}}, {kOther, 1, {23}}};
  Rig rig;
};

TEST_F(Cleaning, DeletesEverySampleThenTheRecord) {
  EXPECT_EQ(rig.clean(Rig::kUser, 0, 1), 0);
  expect(OPS_CLEAN_SUCCESS);
  EXPECT_THAT(
      deletions(),
      ElementsAre("del 3", "del 7", "feature_info uid=1000 biotype=0 driver=\"wrx5300\" 0..0 = 0",
                  "del 21", "feature_info uid=1000 biotype=0 driver=\"wrx5300\" 1..1 = 0"));
  EXPECT_THAT(rig.stored(), ElementsAre(all[2], all[3]));
  EXPECT_EQ(rig.slots(), (std::vector{22, 23}));
  EXPECT_EQ(rig.trace.count("wrx7700_ops_clean] uid = 1000, sample->no = "), 3);
  EXPECT_TRUE(rig.trace.saw("wrx7700_ops_clean] idx_start = 0, idx_end = 1\\r"));
}

TEST_F(Cleaning, KeepsTheFailingFeatureAndAllBehindIt) {
  // The second exchange of feature 0, then the first of feature 1.
  const std::pair<const char*, std::vector<Stored>> rows[] = {
      {"at 10ms; refuse 12 27 x1", all}, {"at 30ms; refuse 12 27 x1", {all[1], all[2], all[3]}}};
  for (const auto& [script, left] : rows) {
    rig.play(script);
    EXPECT_EQ(rig.clean(), -1);
    expect(OPS_CLEAN_FAIL);
    EXPECT_EQ(rig.stored(), left);
  }
  EXPECT_EQ(rig.slots(), (std::vector{21, 22, 23}));
}

TEST_F(Cleaning, OfNothingSucceeds) {
  EXPECT_EQ(rig.clean(Rig::kUser, 2, 3), 0);
  expect(OPS_CLEAN_SUCCESS);
  EXPECT_EQ(rig.clean(3000), 0);
  EXPECT_THAT(rig.asked(), IsEmpty());
  rig.store({3000, 0, {}});
  EXPECT_EQ(rig.clean(3000), 0) << "a record without samples";
  EXPECT_EQ(rig.stored(), all);
}

TEST_F(Cleaning, AndListingOfADisabledDeviceSetTheStatusOnly) {
  rig.dev.enable = 0;
  EXPECT_EQ(rig.clean(), 0);
  EXPECT_THAT(rig.list(), IsEmpty());
  EXPECT_EQ(rig.trace.count("bio_set_dev_status 3"), 2);
  EXPECT_EQ(rig.trace.count("bio_set_"), 2);
  EXPECT_EQ(rig.stored(), all);
}

TEST_F(Cleaning, ListingReadsTheDatabaseOnly) {
  EXPECT_THAT(rig.list(Rig::kUser, 1), ElementsAre(all[1], all[2]));
  EXPECT_THAT(rig.list(-1), testing::ElementsAreArray(all));
  EXPECT_THAT(rig.list(Rig::kUser, 2, 3), IsEmpty());
  EXPECT_EQ(rig.result(), OPS_GET_FLIST_SUCCESS);
  EXPECT_EQ(rig.status(), DEVS_COMM_IDLE);
  EXPECT_THAT(rig.asked(), IsEmpty());
  EXPECT_EQ(rig.trace.count("bio_set_dev_status 8"), 3) << "the kind of operation";
  EXPECT_EQ(rig.trace.count("bio_set_notify"), 0);
  EXPECT_EQ(rig.trace.count("bio_print_info"), 3);
}

}  // namespace
}  // namespace wrx_test
