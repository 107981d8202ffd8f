// SPDX-License-Identifier: LGPL-2.1-or-later
// The framework's operation callbacks, and the routines of theirs that others call. Outcomes reach
// the framework as status, result and notification words; results of the module come from its state
// record. Operation thread only; a user's stop reaches them through the two stop flags.
#pragma once

#include <cstdint>

#include "records/framework.h"

#pragma GCC visibility push(default)
extern "C" {

/// Enrols a finger of `uid` under index `idx` (-1: the first free one) and stores it. 0, or -1.
int32_t wrx7700_ops_enroll(bio_dev* dev, OpsActions action, int32_t uid, int32_t idx,
                           char* bio_idx_name);
/// Whether the finger on the sensor is a stored one of `uid`: 0, or -1 for no or a failure, waiting
/// at most `timeout_ms` milliseconds.
int32_t check_finger_is_enrolled(bio_dev* dev, int32_t timeout_ms, int32_t uid, int32_t idx);
/// Number of features that `uid` has stored on this device.
int32_t wrx_get_current_user_fingerprint_num(bio_dev* dev, int32_t uid);
/// Erases the module's templates that no stored feature refers to. 0.
int32_t wrx7700_ops_delete_invalid_feature(bio_dev* dev);

/// Compares the finger on the sensor with feature `idx` of `uid`. 0 when the module finished, match
/// or not; -1 on failure.
int32_t wrx7700_ops_verify(bio_dev* dev, OpsActions action, int32_t uid, int32_t idx);
/// Whose finger is on the sensor, among the features `idx_start` to `idx_end` of `uid`: the user of
/// the matching feature, or -1. Waits without limit.
int32_t wrx7700_ops_identify(bio_dev* dev, OpsActions action, int32_t uid, int32_t idx_start,
                             int32_t idx_end);
/// The stored features, among `idx_start` to `idx_end` of `uid`, that the finger matches: a list
/// that the caller frees, or null.
feature_info* wrx7700_ops_search(bio_dev* dev, OpsActions action, int32_t uid, int32_t idx_start,
                                 int32_t idx_end);
/// At driver start: collects the identification of the press that powered the machine on. 0, or -1
/// when the module cannot be opened.
int32_t wrx7700_onekey_powerup_identify(bio_dev* dev);

/// Deletes the features `idx_start` to `idx_end` of `uid`, module first. 0, or the result of the
/// module deletion that failed; that feature and the later ones stay.
int32_t wrx7700_ops_clean(bio_dev* dev, OpsActions action, int32_t uid, int32_t idx_start,
                          int32_t idx_end);
/// The stored features `idx_start` to `idx_end` of `uid`: a list that the caller frees, or null.
feature_info* wrx7700_ops_get_feature_list(bio_dev* dev, OpsActions action, int32_t uid,
                                           int32_t idx_start, int32_t idx_end);

}  // extern "C"
#pragma GCC visibility pop
