// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's template slots.
#include <array>

#include "base/log.h"
#include "base/units.h"
#include "operations/module_procedures.h"
#include "protocol/engine.h"
#include "protocol/procedures.h"

using wrx::kIndexPageSize;
using wrx::operations::here;
using wrx::protocol::command;
using wrx::protocol::result_of;
using wrx::protocol::run;

namespace {

constexpr uint8_t kPage = 0;  // the driver's slots all lie in it
constexpr uint16_t kFirstSlot = 20;
constexpr uint16_t kLastSlot = 39;

// A bitmap page: slot s is bit s % 8 of byte s / 8.
bool occupied(const uint8_t* page, uint16_t slot) {
  return (page[slot / 8] >> (slot % 8) & 1) != 0;
}
static_assert(kLastSlot / 8 < kIndexPageSize);

// Reads the driver's page of the index table; null when the module did not give it.
const uint8_t* read_page() {
  fp_device_param.index_table_page = kPage;
  return fp_read_index_table(kPage) == 0 ? fp_device_param.index_table_info[kPage] : nullptr;
}

}  // namespace

uint16_t fp_get_empty_enroll_id(void) {
  const uint8_t* page = read_page();
  if (page == nullptr) return wrx::kNoSlot;
  for (uint16_t slot = kFirstSlot; slot <= kLastSlot; ++slot) {
    if (!occupied(page, slot)) return slot;
  }
  return wrx::kNoSlot;
}

int32_t fp_delete_template(uint16_t enroll_id, uint16_t num) {
  static constexpr const auto& row = command(PROT_CMD_DELCHAR);
  WRX_LOG(here(), "send PROT_CMD_DELCHAR command.\n");
  WRX_LOG(here(), "enroll_id = %d, num = %d.\n", enroll_id, num);
  const std::array<uint8_t, 4> parameters = {
      static_cast<uint8_t>(enroll_id >> 8), static_cast<uint8_t>(enroll_id),
      static_cast<uint8_t>(num >> 8), static_cast<uint8_t>(num)};
  return result_of(row, run(row, parameters, here()));
}

int32_t fp_empty_template(void) {
  static constexpr const auto& row = command(PROT_CMD_EMPTY);
  return result_of(row, run(row, {}, here()));
}

int32_t fp_delete_invalid_template(const uint8_t* index_list) {
  if (index_list == nullptr) {
    WRX_LOG(here(), "index_list = NULL, error!!!\r\n");
    return -1;
  }
  const uint8_t* page = read_page();
  if (page == nullptr) return 0;
  for (uint16_t slot = kFirstSlot; slot <= kLastSlot; ++slot) {
    if (!occupied(page, slot) || occupied(index_list, slot)) continue;
    wrx::print_line(here(), "index = %d is invalid!!!\r\n", slot);
    fp_delete_template(slot, 1);
  }
  return 0;
}
