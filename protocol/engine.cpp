// SPDX-License-Identifier: LGPL-2.1-or-later
// The engine behind the command procedures.
#include "protocol/engine.h"

namespace wrx::protocol {

void say(const Said& said, CallSite site) {
  switch (said.form) {
    case Form::silent:
      return;
    case Form::logged:
      WRX_LOG(site, "%s", said.text);
      return;
    case Form::printed:
      WRX_PRINT(site, said.text);
      return;
    case Form::lined:
      print_line(site, "%s", said.text);
      return;
  }
}

bool exchange(const Command& row, Parameters parameters, CallSite site) {
  say(row.announced, site);
  if (row.verdict != nullptr) fp_device_param.*row.verdict = kNoAnswer;
  RECV_DATA_STRUCT plan;
  fp_recv_param_init(&plan, row.plan.recv_len, row.plan.wait_ms, row.plan.cycle_times,
                     row.plan.cycle_ms);
  const int32_t sent =
      fp_send_cmd(row.code, parameters.data(), static_cast<int32_t>(parameters.size()), plan);
  if (sent == 0) return true;
  if (row.unanswered != nullptr) WRX_LOG(site, "%s", row.unanswered);
  return false;
}

Outcome judge(const Command& row, CallSite site) {
  const uint8_t code = row.verdict != nullptr ? fp_device_param.*row.verdict : fp_resp_type_get();
  if (code != PROT_RESP_OK) {
    WRX_LOG(site, row.refused, code);
    return Outcome::refused;
  }
  say(row.succeeded, site);
  return Outcome::done;
}

Outcome run(const Command& row, Parameters parameters, CallSite site) {
  if (!exchange(row, parameters, site)) return Outcome::unanswered;
  return judge(row, site);
}

int32_t result_of(const Command& row, Outcome outcome) {
  if (outcome == Outcome::unanswered) return row.unanswered == nullptr ? 0 : -1;
  return outcome == Outcome::done ? 0 : -1;
}

}  // namespace wrx::protocol
