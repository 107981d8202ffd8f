// SPDX-License-Identifier: LGPL-2.1-or-later
// Verify, identify and search: the module matches the finger against its whole library, and the
// slots it names are looked up in the framework's records. The three differ by a row of words and
// by what they make of the matching records.
#include "base/log.h"
#include "base/pause.h"
#include "base/units.h"
#include "operations/features.h"
#include "operations/host_words.h"
#include "operations/module_procedures.h"
#include "operations/operations.h"
#include "protocol/packet.h"
#include "protocol/procedures.h"
#include "records/driver_info.h"
#include "transport/usb_device.h"

#include <algorithm>

using wrx::operations::any_sample;
using wrx::operations::FeatureList;
using wrx::operations::here;
using wrx::operations::Matches;
using wrx::operations::report;

namespace {

constexpr int32_t kStalePackets = 5;
constexpr int32_t kPowerupPollMs = 20;
constexpr int64_t kPowerupLifeUs = 15'000'000;  // a held result serves below this age
constexpr uint32_t kPowerupPauseMs = 50;
constexpr int32_t kNoTimeout = 0;
constexpr int32_t kNoUser = -1;

/// The words of one operation. The busy words of identify and search are the kinds of operation,
/// not device statuses: hosts have long been told so.
struct MatchOperation {
  const char* started;
  const char* ended;
  int busy;
  int match;
  int noMatch;
  wrx::operations::FailedWait failed;
};
constexpr MatchOperation kVerify = {"bio_drv_demo_ops_verify start\n",
                                    "bio_drv_demo_ops_verify end\n",
                                    DEVS_VERIFY_DOING,
                                    OPS_VERIFY_MATCH,
                                    OPS_VERIFY_NO_MATCH,
                                    {OPS_VERIFY_TIMEOUT, OPS_VERIFY_ERROR}};
constexpr MatchOperation kIdentify = {"bio_drv_demo_ops_identify start\n",
                                      "bio_drv_demo_ops_identify end\n",
                                      OPS_TYPE_IDENTIFY,
                                      OPS_IDENTIFY_MATCH,
                                      OPS_IDENTIFY_NO_MATCH,
                                      {OPS_IDENTIFY_TIMEOUT, OPS_IDENTIFY_ERROR}};
constexpr MatchOperation kSearch = {"bio_drv_demo_ops_search start\n",
                                    "bio_drv_demo_ops_search end\n",
                                    OPS_TYPE_SEARCH,
                                    OPS_SEARCH_MATCH,
                                    OPS_SEARCH_NO_MATCH,
                                    {OPS_SEARCH_TIMEOUT, OPS_SEARCH_ERROR}};

// Announces the operation. False when the device is switched off.
bool begin(bio_dev* dev, const MatchOperation& operation) {
  bio_print_debug("%s", operation.started);
  if (!wrx::operations::disabled(dev)) return true;
  bio_set_dev_status(dev, DEVS_COMM_DISABLE);
  return false;
}

void end(bio_dev* dev, const MatchOperation& operation) {
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  bio_print_debug("%s", operation.ended);
}

// Has the module search its library. A failure is reported and ends the operation.
bool identify(bio_dev* dev, const MatchOperation& operation, Matches& matches, int32_t timeout_ms) {
  namespace ops = wrx::operations;
  if (fp_auto_identify(ops::kSecurityLevel, ops::kWholeLibrary, ops::kIdentifyOption,
                       matches.data(), timeout_ms) == 0) {
    return true;
  }
  ops::report_failed_wait(dev, operation.failed);
  fp_set_ctrlFlag(FP_CONTROL_FLAG_IDLE);
  ops::acknowledge_stop(dev);
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  return false;
}

// The module matched nothing at all.
void end_without_match(bio_dev* dev, const MatchOperation& operation) {
  report(dev, operation.noMatch);
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  fp_cancel();
}

// Takes the held result of the power-up press, if it is young enough, in place of a press. It is
// used up or dropped in any case.
bool take_powerup_result(Matches& matches) {
  const int64_t age_us = wrx::operations::elapsed_us(*get_onekey_powerup_tv_time());
  // One from the future was taken before the clock was set back: nobody knows how long ago.
  const bool young = get_onekey_powerup_flag() == 1 && age_us >= 0 && age_us < kPowerupLifeUs;
  if (young) {
    std::copy_n(get_onekey_powerup_search_id(),
                std::clamp(get_onekey_powerup_search_num(), 0, wrx::kMaxMatches), matches.data());
  }
  set_onekey_powerup_flag(0);
  if (young) wrx::pause_ms(kPowerupPauseMs);
  return young;
}

// Whether the sample is one of the matches, saying each that is looked at.
bool matches_saying(const Matches& matches, const feature_sample& sample, wrx::CallSite site) {
  int i = 0;
  for (const uint16_t match : matches) {
    wrx::print_text(site, "identify_result_id[%d] = 0x%04x\n", i++, match);
    if (match == sample.no) return true;
  }
  return false;
}

/// A list of features that grows at its tail.
class ResultList {
 public:
  void append(feature_info* features) {
    *tail_ = features;
    while (*tail_ != nullptr)
      tail_ = &(*tail_)->next;
  }
  feature_info* head() const { return head_; }

 private:
  feature_info* head_ = nullptr;
  feature_info** tail_ = &head_;
};

}  // namespace

int32_t wrx7700_ops_verify(bio_dev* dev, [[maybe_unused]] OpsActions action, int32_t uid,
                           int32_t idx) {
  if (!begin(dev, kVerify)) return -1;
  const int32_t timeout_ms = wrx::operations::operation_timeout(dev);
  bio_set_dev_status(dev, kVerify.busy);
  fp_read_invalid_pkg(kStalePackets);
  Matches matches;
  WRX_LOG(here(), "idx = %d\n", idx);
  if (!identify(dev, kVerify, matches, timeout_ms)) {
    WRX_LOG(here(), "verify failed!!!\r\n");
    return -1;
  }
  fp_cancel();
  uint16_t final_slot = wrx::kNoSlot;
  {
    const FeatureList list = wrx::operations::read_features(dev, {uid, idx, idx});
    any_sample(list, [&](const feature_info&, const feature_sample& sample) {
      if (!matches.contain(sample.no)) return false;
      final_slot = static_cast<uint16_t>(sample.no);
      return true;
    });
  }
  WRX_LOG(here(), "identify_result_id_final = %d\r\n", final_slot);
  report(dev, final_slot != wrx::kNoSlot ? kVerify.match : kVerify.noMatch);
  end(dev, kVerify);
  return 0;
}

int32_t wrx7700_ops_identify(bio_dev* dev, [[maybe_unused]] OpsActions action, int32_t uid,
                             int32_t idx_start, int32_t idx_end) {
  if (!begin(dev, kIdentify)) return -1;
  bio_set_dev_status(dev, kIdentify.busy);
  Matches matches;
  if (!take_powerup_result(matches) && !identify(dev, kIdentify, matches, kNoTimeout)) return -1;
  if (matches.none()) {
    end_without_match(dev, kIdentify);
    return -1;
  }
  fp_cancel();
  int32_t user = kNoUser;
  {
    const wrx::CallSite site = here();
    const FeatureList list =
        wrx::operations::read_and_print_features(dev, {uid, idx_start, idx_end});
    any_sample(list, [&](const feature_info& feature, const feature_sample& sample) {
      if (!matches_saying(matches, sample, site)) return false;
      user = feature.uid;
      return true;
    });
  }
  // A match of the module counts even if no record of this selection holds its slot.
  report(dev, kIdentify.match);
  bio_print_info("%s\n", wrx::operations::notification_text(dev));
  end(dev, kIdentify);
  return user;
}

feature_info* wrx7700_ops_search(bio_dev* dev, [[maybe_unused]] OpsActions action, int32_t uid,
                                 int32_t idx_start, int32_t idx_end) {
  if (!begin(dev, kSearch)) return nullptr;
  const int32_t timeout_ms = wrx::operations::operation_timeout(dev);
  bio_set_dev_status(dev, kSearch.busy);
  fp_read_invalid_pkg(kStalePackets);
  Matches matches;
  if (!identify(dev, kSearch, matches, timeout_ms)) return nullptr;
  if (matches.none()) {
    end_without_match(dev, kSearch);
    return nullptr;
  }
  fp_cancel();
  ResultList found;
  {
    const wrx::CallSite site = here();
    const FeatureList list =
        wrx::operations::read_and_print_features(dev, {uid, idx_start, idx_end});
    any_sample(list, [&](const feature_info& feature, const feature_sample& sample) {
      wrx::print_line(site, "uid = %d, sample->no = %d\r\n", feature.uid, sample.no);
      if (matches.contain(sample.no)) {
        WRX_LOG(site, "sample->no = %d\n", sample.no);
        found.append(
            wrx::operations::read_features(dev, {uid, feature.index, feature.index}).release());
      }
      return false;
    });
  }
  report(dev, found.head() != nullptr ? kSearch.match : kSearch.noMatch);
  end(dev, kSearch);
  return found.head();
}

int32_t wrx7700_onekey_powerup_identify(bio_dev* dev) {
  namespace ops = wrx::operations;
  WRX_LOG(here(), "start.\n");
  if (usb_get_dev_handle() == nullptr && usb_dev_open(dev) != 0) {
    WRX_LOG(here(), "can't open device!!!\n");
    return -1;
  }
  init_onekey_powerup_search_id();
  fp_read_invalid_pkg(kStalePackets);
  fp_onekey_powerup_identify(ops::kSecurityLevel, ops::kWholeLibrary, ops::kIdentifyOption,
                             get_onekey_powerup_search_id(), kPowerupPollMs);
  fp_cancel();
  if (get_onekey_powerup_flag() != 1) set_onekey_powerup_flag(0);
  usb_dev_close();
  return 0;
}
