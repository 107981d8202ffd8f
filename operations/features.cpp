// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading of stored features.
#include "operations/features.h"

namespace wrx::operations {

feature_info* read_features(const Database& db, const bio_dev* dev, const Selection& selection) {
  return bio_sto_get_feature_info(db.get(), selection.uid, dev->bioinfo.biotype, dev->device_name,
                                  selection.start, selection.end);
}

FeatureList read_features(const bio_dev* dev, const Selection& selection, bool* readable) {
  const Database db;
  if (readable != nullptr) *readable = db.open();
  return FeatureList(read_features(db, dev, selection));
}

FeatureList read_and_print_features(const bio_dev* dev, const Selection& selection) {
  const Database db;
  FeatureList list(read_features(db, dev, selection));
  print_feature_info(list.head());
  return list;
}

}  // namespace wrx::operations
