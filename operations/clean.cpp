// SPDX-License-Identifier: LGPL-2.1-or-later
// Deleting and listing stored features.
#include "base/log.h"
#include "base/units.h"
#include "operations/features.h"
#include "operations/host_words.h"
#include "operations/module_procedures.h"
#include "operations/operations.h"
#include "records/driver_info.h"

using wrx::operations::Database;
using wrx::operations::FeatureList;
using wrx::operations::here;
using wrx::operations::Selection;

namespace {

// Deletes the templates of a feature. 0, or the first result that is not.
int32_t delete_templates(const feature_info& feature, wrx::CallSite site) {
  for (const feature_sample* sample = feature.sample; sample != nullptr; sample = sample->next) {
    WRX_LOG(site, "uid = %d, sample->no = %d\r\n", feature.uid, sample->no);
    const int32_t result = fp_delete_template(static_cast<uint16_t>(sample->no), 1);
    if (result != 0) return result;
  }
  return 0;
}

// Deletes features one by one, a record only after all of its templates.
int32_t delete_features(const bio_dev* dev, const Selection& selection, wrx::CallSite site) {
  const Database db;
  const FeatureList list(wrx::operations::read_features(db, dev, selection));
  print_feature_info(list.head());
  for (const feature_info* feature = list.head(); feature != nullptr; feature = feature->next) {
    const int32_t result = delete_templates(*feature, site);
    if (result != 0) return result;
    bio_sto_clean_feature_info(db.get(), selection.uid, dev->bioinfo.biotype, dev->device_name,
                               feature->index, feature->index);
  }
  return 0;
}

}  // namespace

int32_t wrx7700_ops_clean(bio_dev* dev, [[maybe_unused]] OpsActions action, int32_t uid,
                          int32_t idx_start, int32_t idx_end) {
  bio_print_debug("bio_drv_demo_ops_clean start\n");
  if (wrx::operations::disabled(dev)) {
    bio_set_dev_status(dev, DEVS_COMM_DISABLE);
    return 0;
  }
  bio_set_dev_status(dev, DEVS_CLEAN_DOING);
  WRX_LOG(here(), "idx_start = %d, idx_end = %d\r\n", idx_start, idx_end);
  const int32_t result = delete_features(dev, {uid, idx_start, idx_end}, here());
  if (result == 0) {
    wrx::operations::report(dev, OPS_CLEAN_SUCCESS);
  } else {
    bio_set_ops_result(dev, OPS_CLEAN_FAIL);
    bio_set_notify_abs_mid(dev, NOTIFY_CLEAN_FAIL);
  }
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  return result;
}

feature_info* wrx7700_ops_get_feature_list(bio_dev* dev, [[maybe_unused]] OpsActions action,
                                           int32_t uid, int32_t idx_start, int32_t idx_end) {
  bio_print_debug("bio_drv_demo_ops_get_feature_list start\n");
  if (wrx::operations::disabled(dev)) {
    bio_set_dev_status(dev, DEVS_COMM_DISABLE);
    return nullptr;
  }
  // The kind of operation, not a device status: hosts have long been told so.
  bio_set_dev_status(dev, OPS_TYPE_GET_FLIST);
  FeatureList list = wrx::operations::read_and_print_features(dev, {uid, idx_start, idx_end});
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  bio_set_ops_abs_result(dev, OPS_GET_FLIST_SUCCESS);
  bio_print_info("%s\n", wrx::operations::notification_text(dev));
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  return list.release();
}
