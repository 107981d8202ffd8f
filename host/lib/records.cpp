// SPDX-License-Identifier: LGPL-2.1-or-later
// Feature records in memory. They are made, copied and freed here alone, with GLib's allocator.

#include "api.h"

namespace {

void free_samples(feature_sample* sample) {
  while (sample != nullptr) {
    feature_sample* next = sample->next;
    g_free(sample->data);
    g_free(sample);
    sample = next;
  }
}

}  // namespace

extern "C" {

feature_info* bio_sto_new_feature_info(int uid, int biotype, const char* driver, int index,
                                       const char* index_name) {
  feature_info* info = g_new0(feature_info, 1);
  info->uid = uid;
  info->biotype = biotype;
  info->driver = g_strdup(driver != nullptr ? driver : "");
  info->index = index;
  info->index_name = g_strdup(index_name != nullptr ? index_name : "");
  return info;
}

feature_sample* bio_sto_new_feature_sample(int dbid, const char* data) {
  feature_sample* sample = g_new0(feature_sample, 1);
  sample->dbid = dbid;
  // No text stays none: a driver may hang a buffer of its own here while it stores the sample.
  sample->data = g_strdup(data);
  return sample;
}

void bio_sto_free_feature_info_list(feature_info* info) {
  while (info != nullptr) {
    feature_info* next = info->next;
    free_samples(info->sample);
    g_free(info->driver);
    g_free(info->index_name);
    g_free(info);
    info = next;
  }
}

void print_feature_info(feature_info* info) {
  for (; info != nullptr; info = info->next) {
    bio_print_info("feature: uid %d, biotype %d, driver %s, index %d, name \"%s\"\n", info->uid,
                   info->biotype, info->driver, info->index, info->index_name);
    for (const feature_sample* sample = info->sample; sample != nullptr; sample = sample->next)
      bio_print_info("  sample: row %d, slot %d\n", sample->dbid, sample->no);
  }
}

}  // extern "C"
