// SPDX-License-Identifier: LGPL-2.1-or-later
// What links the framework's records and the module's slots before an enrolment: how many a user
// has, whether a finger is already among them, and which templates nobody refers to.
#include <array>

#include "base/log.h"
#include "base/units.h"
#include "operations/features.h"
#include "operations/host_words.h"
#include "operations/module_procedures.h"
#include "operations/operations.h"
#include "protocol/packet.h"
#include "protocol/procedures.h"

using wrx::operations::any_sample;
using wrx::operations::FeatureList;
using wrx::operations::here;
using wrx::operations::kEveryFeature;
using wrx::operations::Matches;

namespace {

constexpr int kSlotsOfAPage = 256;
constexpr wrx::DumpStyle kBitmapDump = {false, false, false, "\n"};

using Bitmap = std::array<uint8_t, wrx::kIndexPageSize>;

Bitmap slots_in_use(const FeatureList& list) {
  Bitmap bitmap = {};
  any_sample(list, [&bitmap](const feature_info&, const feature_sample& sample) {
    if (sample.no >= 0 && sample.no < kSlotsOfAPage) {
      uint8_t& byte = bitmap[static_cast<std::size_t>(sample.no / 8)];
      byte = static_cast<uint8_t>(byte | 1U << (sample.no % 8));
    }
    return false;
  });
  return bitmap;
}

}  // namespace

int32_t wrx_get_current_user_fingerprint_num(bio_dev* dev, int32_t uid) {
  int32_t count = 0;
  {
    const FeatureList list = wrx::operations::read_features(dev, {uid, 0, -1});
    for (const feature_info* feature = list.head(); feature != nullptr; feature = feature->next) {
      if (feature->uid == uid) ++count;
    }
  }
  WRX_LOG(here(), "current user uid %d, fingerprint_num = %d.\r\n", uid, count);
  return count;
}

int32_t check_finger_is_enrolled(bio_dev* dev, int32_t timeout_ms, int32_t uid,
                                 [[maybe_unused]] int32_t idx) {
  namespace ops = wrx::operations;
  Matches matches;
  if (fp_auto_identify(ops::kSecurityLevel, ops::kWholeLibrary, ops::kIdentifyOption,
                       matches.data(), timeout_ms) != 0) {
    WRX_LOG(here(), "identify flag = %d\n", fp_get_ctrlFlag());
    ops::report_failed_wait(dev, {.timeout = OPS_VERIFY_TIMEOUT, .other = 0});
    return -1;
  }
  fp_cancel();
  uint16_t final_slot = wrx::kNoSlot;
  {
    const FeatureList list = ops::read_features(dev, kEveryFeature);
    any_sample(list, [&](const feature_info& feature, const feature_sample& sample) {
      if (feature.uid != uid || !matches.contain(sample.no)) return false;
      final_slot = static_cast<uint16_t>(sample.no);
      return true;
    });
  }
  const int32_t result = final_slot != wrx::kNoSlot ? 0 : -1;
  WRX_LOG(here(), "identify_result_id_final = %d\r\n", final_slot);
  WRX_LOG(here(), "identify find nRet= %d\n", result);
  return result;
}

int32_t wrx7700_ops_delete_invalid_feature(bio_dev* dev) {
  bool readable = false;
  const Bitmap bitmap = slots_in_use(wrx::operations::read_features(dev, kEveryFeature, &readable));
  // Without its records every template would look abandoned, and none of them is.
  if (!readable) {
    WRX_LOG(here(), "feature database is not available, no template is erased.\r\n");
    return 0;
  }
  const wrx::CallSite site = here();
  wrx::print_piece("********========%s:%d:%s print index_table_info\r\n", site.unit, site.line,
                   site.function);
  wrx::dump(bitmap.data(), bitmap.size(), kBitmapDump);
  fp_delete_invalid_template(bitmap.data());
  return 0;
}
