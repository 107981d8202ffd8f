// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The preset for people.
#include "module/device/settings.h"

namespace wrx_module {

Settings Settings::lifelike() {
  Settings s;
  s.link.response_delay_us = 2'000;
  s.procedure.press_gap_us = 250'000;
  s.procedure.capture_us = 60'000;
  s.procedure.feature_us = 80'000;
  s.procedure.step_us = 30'000;
  s.procedure.merge_us = 60'000;
  s.procedure.search_us = 90'000;
  s.link.empty_read = EmptyRead::answers_empty;
  s.bootloader.erase_us = 200'000;
  s.bootloader.write_us = 1'500;
  s.bootloader.crc_us = 20'000;
  s.usb.out_cost_us = 125;
  s.usb.in_cost_us = 250;
  return s;
}

}  // namespace wrx_module
