// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading, comparing and drawing template slots.

#include "slots.h"

#include <algorithm>
#include <map>

#include "fingers.h"
#include "protocol/procedures.h"
#include "records/fp_device_param.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Failure;
using host::Outcome;

constexpr uint8_t kPage = 0;
constexpr int kRow = 20;  // slots of a drawn row; the driver's are exactly one

bool is_drivers(int slot) {
  return slot >= kFirstSlot && slot <= kLastSlot;
}

bool holds(const SlotMap& occupied, int slot) {
  return slot >= 0 && slot < static_cast<int>(kPageSlots) &&
         occupied.test(static_cast<std::size_t>(slot));
}

/// How many records name each slot.
std::map<int, int> named_slots(const std::vector<Finger>& records) {
  std::map<int, int> named;
  for (const Finger& record : records)
    for (const int slot : record.slots)
      ++named[slot];
  return named;
}

char sign(int slot, bool taken, bool named) {
  if (taken) return named ? '#' : is_drivers(slot) ? '?' : 'o';
  return named ? '!' : '.';
}

}  // namespace

SlotMap read_slots(const host::PluginHost& plugin) {
  auto& state = *plugin.function<FP_DEVICE_PARAM_STRUCT>("fp_device_param");
  state.index_table_page = kPage;
  if (plugin.function<decltype(fp_read_index_table)>("fp_read_index_table")(kPage) != 0)
    throw Failure(Outcome::Failed, tr("the module does not tell which of its slots are taken"));
  SlotMap occupied;
  for (std::size_t slot = 0; slot < kPageSlots; ++slot)
    occupied[slot] = (state.index_table_info[kPage][slot / 8] >> (slot % 8) & 1) != 0;
  return occupied;
}

Differences compare(const SlotMap& occupied, const std::vector<Finger>& records) {
  Differences found;
  const auto named = named_slots(records);
  for (int slot = kFirstSlot; slot <= kLastSlot; ++slot)
    if (holds(occupied, slot) && !named.contains(slot)) found.orphans.push_back(slot);
  for (const Finger& record : records) {
    const auto& slots = record.slots;
    const auto any = [&slots](auto test) { return std::ranges::any_of(slots, test); };
    if (slots.empty() || any([&](int slot) { return !holds(occupied, slot); })) {
      found.lost.push_back(record);
    } else if (any([&](int slot) { return named.at(slot) > 1; })) {
      found.shared.push_back(record);
    } else if (!std::ranges::all_of(slots, is_drivers)) {
      found.outside.push_back(record);
    }
  }
  return found;
}

std::string lines(const Differences& differences) {
  std::string text;
  for (const int slot : differences.orphans)
    text += "  " + tr("slot {}: a template that no record names", slot) + "\n";
  for (const Finger& record : differences.lost)
    text += "  " + tr("{}: the module holds no template for it", words(record)) + "\n";
  for (const Finger& record : differences.shared)
    text += "  " + tr("{}: another record names the same slot; clean one", words(record)) + "\n";
  for (const Finger& record : differences.outside)
    text += "  " + tr("{}: not a slot of the driver's; clean it", words(record)) + "\n";
  return text;
}

nlohmann::json object(const Differences& differences) {
  return {{"orphan_slots", differences.orphans},
          {"lost_records", array(differences.lost)},
          {"shared_records", array(differences.shared)},
          {"outside_records", array(differences.outside)}};
}

std::string drawing(const SlotMap& occupied, const std::vector<Finger>& records) {
  const auto named = named_slots(records);
  std::string text = "        01234567890123456789\n";
  for (int first = 0; first < static_cast<int>(kPageSlots); first += kRow) {
    text += fmt::format("{} {:3}   ", is_drivers(first) ? '>' : ' ', first);
    for (int slot = first; slot < std::min<int>(first + kRow, kPageSlots); ++slot)
      text += sign(slot, holds(occupied, slot), named.contains(slot));
    text += "\n";
  }
  return text + tr("> the driver's slots   # template with a record   ? template without one\n"
                   ". free                 ! record without template  o not the driver's\n");
}

}  // namespace wrx::client
