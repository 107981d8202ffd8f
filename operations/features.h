// SPDX-License-Identifier: LGPL-2.1-or-later
// The framework's stored features: owners of its database connection and lists, reading, and the
// comparison with the slots that the module matched. Hidden; shared by the operations.
#pragma once

#include <array>
#include <cstdint>

#include "records/fp_device_param.h"
#include "records/framework.h"

namespace wrx::operations {

/// A connection to the feature database, closed by scope. A database that cannot be opened was
/// reported by the framework; reading from it then gives nothing.
class Database {
 public:
  using Handle = decltype(bio_sto_connect_db());

  Database() : handle_(bio_sto_connect_db()) {}
  ~Database() { bio_sto_disconnect_db(handle_); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  Handle get() const { return handle_; }
  bool open() const { return handle_ != nullptr; }

 private:
  Handle handle_;
};

/// A list of features, freed by scope.
class FeatureList {
 public:
  explicit FeatureList(feature_info* head) : head_(head) {}
  ~FeatureList() {
    if (owned_) bio_sto_free_feature_info_list(head_);
  }
  FeatureList(FeatureList&& other) noexcept : head_(other.release()) {}
  FeatureList(const FeatureList&) = delete;
  FeatureList& operator=(const FeatureList&) = delete;
  FeatureList& operator=(FeatureList&&) = delete;

  feature_info* head() const { return head_; }
  /// Hands the list over to the caller.
  feature_info* release() {
    owned_ = false;
    return head_;
  }

 private:
  feature_info* head_;
  bool owned_ = true;
};

/// Which features: of `uid` (-1 all), index `start` to `end` (-1 without upper end).
struct Selection {
  int32_t uid;
  int32_t start;
  int32_t end;
};
inline constexpr Selection kEveryFeature = {-1, 0, -1};

/// Reads features of this device through an open connection.
feature_info* read_features(const Database& db, const bio_dev* dev, const Selection& selection);

/// Connects, reads, disconnects. `readable` then tells whether there was a database to read.
FeatureList read_features(const bio_dev* dev, const Selection& selection, bool* readable = nullptr);
/// As above, and has the framework print the list while it is connected.
FeatureList read_and_print_features(const bio_dev* dev, const Selection& selection);

/// Slots that the module matched, up to the first 0xFFFF.
class Matches {
 public:
  Matches() { slots_.fill(kNoSlot); }

  uint16_t* data() { return slots_.data(); }
  bool none() const { return slots_[0] == kNoSlot; }
  const uint16_t* begin() const { return slots_.data(); }
  const uint16_t* end() const {
    const uint16_t* end = begin();
    while (end != slots_.data() + slots_.size() && *end != kNoSlot)
      ++end;
    return end;
  }
  /// Whether `slot` is one of them.
  bool contain(int slot) const {
    for (const uint16_t match : *this) {
      if (match == slot) return true;
    }
    return false;
  }

 private:
  std::array<uint16_t, kMaxMatches> slots_;
};

/// Calls `visit(feature, sample)` for every sample of the list in order until it returns true.
/// Returns whether it did.
template <typename Visit>
bool any_sample(const FeatureList& list, Visit visit) {
  for (const feature_info* feature = list.head(); feature != nullptr; feature = feature->next) {
    for (const feature_sample* sample = feature->sample; sample != nullptr; sample = sample->next) {
      if (visit(*feature, *sample)) return true;
    }
  }
  return false;
}

}  // namespace wrx::operations
