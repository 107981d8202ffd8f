// SPDX-License-Identifier: LGPL-2.1-or-later
// One function for each command whose response carries more than a confirm code. They file the
// results in fp_device_param and say them under the name of the decoder that called them.
#pragma once

#include <cstdint>

#include "base/log.h"
#include "protocol/payload.h"

namespace wrx::protocol {

/// What came of the index table since it was last set to none: a late response to something else,
/// which was declined, or the page, which stands whatever else comes with it.
enum class IndexTable : uint8_t { none, declined, filed };
extern IndexTable index_table;

void decode_system_parameters(const Payload& payload, CallSite site);
void decode_valid_count(const Payload& payload, CallSite site);
void decode_index_table(const Payload& payload, CallSite site);
void decode_enroll_step(const Payload& payload, CallSite site);
void decode_identify_step(const Payload& payload, CallSite site);
void decode_serial_number(const Payload& payload, CallSite site);
void decode_handshake(const Payload& payload, CallSite site);
void decode_test_type(const Payload& payload, CallSite site);
void decode_capture_start(const Payload& payload, CallSite site);

}  // namespace wrx::protocol
