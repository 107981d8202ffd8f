// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The results of one try at a bulk transfer, and the record of a command: what the rooms of the
// module exchange with each other and with the front ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace wrx_module {

enum class OutStatus { accepted, nak, stall, gone };
struct OutResult {
  OutStatus status = OutStatus::accepted;
};

enum class InStatus {
  data,      ///< the transfer is complete, perhaps with zero bytes
  nak,       ///< nothing to say yet: ask again
  stall,     ///< no such endpoint here
  overflow,  ///< the host's buffer ends inside a packet; the packet is lost
  gone,      ///< not on the bus
};
struct InResult {
  InStatus status = InStatus::nak;
  std::vector<uint8_t> data;
};

/// A command the module took, for tests and reports.
struct CommandRecord {
  int64_t at_us = 0;
  uint8_t code = 0;
  std::vector<uint8_t> params;
  uint8_t answer = 0;  ///< confirm code or status byte of the first answer
};

}  // namespace wrx_module
