// SPDX-License-Identifier: LGPL-2.1-or-later
// The frame's device routines: the one-shot mode switch and reboot, the bench entry.
#include "base/log.h"
#include "base/pause.h"
#include "base/units.h"
#include "frame/driver.h"
#include "protocol/packet.h"
#include "protocol/procedures.h"
#include "records/driver_info.h"
#include "transport/usb_device.h"

using wrx::frame::here;

namespace {

constexpr uint32_t kBenchPauseMs = 3000;
constexpr int32_t kRebootNow = 5809;

/// A value of "ModeFlag" that switches the module, and to what.
struct ModeSwitch {
  int32_t flag;
  const char* logged;
  const char* mode;  ///< four letters
};
constexpr ModeSwitch kModeSwitches[] = {
    {7700, "set WRX7700_DEBUG_MODE.\n", "TEST"},
    {1, "set WRX7700_USER_MODE.\n", "USER"},
};

// Opens the module unless it is open.
bool open_device(bio_dev* dev, wrx::CallSite site) {
  if (usb_get_dev_handle() != nullptr || usb_dev_open(dev) == 0) return true;
  WRX_LOG(site, "can't open device!!!\n");
  return false;
}

}  // namespace

int32_t wrx7700_discover(bio_dev* dev) {
  if (usb_dev_open(dev) != 0) {
    usb_dev_set_port_path_valid_flag(0);
    return 0;
  }
  usb_dev_close();
  usb_dev_get_port_path();
  usb_dev_enable_autosuspend();
  return 1;
}

int32_t wrx7700_set_mode(bio_dev* dev) {
  if (!open_device(dev, here())) return -1;
  for (const ModeSwitch& row : kModeSwitches) {
    if (row.flag != wrx::info_of(dev).mode_flag) continue;
    WRX_LOG(here(), "%s", row.logged);
    fp_set_mode(row.mode, 4);
  }
  usb_dev_close();
  return 0;
}

int32_t wrx7700_set_reboot(bio_dev* dev) {
  WRX_LOG(here(), "start\n");
  WRX_LOG(here(), "start, reboot_flag = %d\n", wrx::info_of(dev).reboot_flag);
  if (wrx::info_of(dev).reboot_flag != kRebootNow) return 0;
  if (!open_device(dev, here())) return -1;
  fp_reboot();
  usb_dev_close();
  return 0;
}

int32_t main_test([[maybe_unused]] int32_t argc, [[maybe_unused]] char** argv) {
  if (fp_module_init() != 0) {
    WRX_LOG(here(), "fp_module_init failed.\n");
    return 0;
  }
  if (usb_dev_module_init() != 0) {
    WRX_LOG(here(), "usb_dev_module_init failed.\n");
    return 0;
  }
  for (;;) {
    wrx::pause_ms(kBenchPauseMs);
    fp_handshake();
    wrx::pause_ms(kBenchPauseMs);
  }
}
