// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's template slots against the stored records. The driver links the two by the slot
// number in a record's sample alone, so either side can be left without the other: a crash between
// the two steps of an enrolment, a database put back from a copy, a module that was exchanged.
#pragma once

#include <bitset>
#include <string>
#include <vector>

#include "client.h"

namespace wrx::client {

/// The slots the driver uses; it never touches the others.
inline constexpr int kFirstSlot = 20;
inline constexpr int kLastSlot = 39;
/// Slots of the index table's first page, the only one that is read.
inline constexpr std::size_t kPageSlots = 256;

/// A bit a slot: set when it holds a template.
using SlotMap = std::bitset<kPageSlots>;

/// Asks an open module. On the worker thread. Throws host::Failure when it does not tell.
SlotMap read_slots(const host::PluginHost& plugin);

struct Differences {
  std::vector<int> orphans;     ///< the driver's slots whose template no record names
  std::vector<Finger> lost;     ///< records with a slot that holds nothing, or with no slot
  std::vector<Finger> shared;   ///< records of which another names the same slot
  std::vector<Finger> outside;  ///< records with a slot that is not the driver's, and is taken

  /// All of them; a record counts once.
  std::size_t count() const {
    return orphans.size() + lost.size() + shared.size() + outside.size();
  }
};

/// Every record goes into at most one list, in the order above.
Differences compare(const SlotMap& occupied, const std::vector<Finger>& records);

/// A line a difference, for people.
std::string lines(const Differences& differences);
nlohmann::json object(const Differences& differences);

/// The first page as a map, a row for each twenty slots, with what its signs mean.
std::string drawing(const SlotMap& occupied, const std::vector<Finger>& records);

}  // namespace wrx::client
