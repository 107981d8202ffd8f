// SPDX-License-Identifier: LGPL-2.1-or-later
// Whether the module's firmware is to be replaced, and the ways into its bootloader.
#include <libusb-1.0/libusb.h>

#include <cstring>

#include "base/log.h"
#include "base/pause.h"
#include "base/units.h"
#include "protocol/procedures.h"
#include "records/driver_info.h"
#include "transport/usb_device.h"
#include "upgrade/bootloader.h"
#include "upgrade/upgrade.h"

using wrx::upgrade::here;

namespace {

constexpr int kAttempts = 10;
constexpr uint32_t kRestartMs = 1000;  // module to bootloader, between attempts, and back
constexpr int32_t kNoImage = -2;

bool upgrade_is_due(UPGRADE_MODE_TYPE mode) {
  switch (mode) {
    case FORCE_UPGRADE:
      return true;
    case AUTO_UPGRADE:
      return std::strcmp(new_firmware_version, fp_return_firmware_version()) != 0;
    case SMART_UPGRADE:
      return new_firmware_version_num > fp_return_firmware_version_num();
    case DONT_UPGRADE:
    default:
      return false;
  }
}

// Restarts the module, which then leaves the bus and comes back as its bootloader.
void reboot_into_bootloader(bio_dev* dev) {
  fp_reboot();
  usb_dev_close();
  dev->dev_num = 0;
  wrx::pause_ms(kRestartMs);
}

}  // namespace

int32_t wrx7700_check_firmware_version(bio_dev* dev) {
  WRX_LOG(here(), "start, check_firmware_version\n");
  if (usb_get_dev_handle() == nullptr && usb_dev_open(dev) != 0) {
    WRX_LOG(here(), "can't open device!!!\n");
    return -1;
  }
  if (fp_get_firmware_version() != 0 || new_firmware_version[0] == '\0') {
    usb_dev_close();
    return 0;
  }
  if (!upgrade_is_due(wrx::info_of(dev).config.upgrade_mode)) {
    WRX_LOG(here(), "firmware don't need upgrade.\n");
    change_fw_upgrade_flag();
    usb_dev_close();
    return 0;
  }
  WRX_LOG(here(), "current firmware version is %s, new firmware version is %s.\n",
          fp_return_firmware_version(), new_firmware_version);
  if (check_file_exit() == 0) {
    reboot_into_bootloader(dev);
    wrx7700_upgrade_pt(dev, 1);
  }
  usb_dev_close();
  return 0;
}

int32_t wrx7700_upgrade_pt(bio_dev* dev, int32_t dev_exit_flag) {
  WRX_LOG(here(), "start.\n");
  if (upgrade_module_init() != 0) {
    WRX_LOG(here(), "upgrade_module_init failed!!!\n");
    return -1;
  }
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (usb_dev_open(dev) == 0) reboot_into_bootloader(dev);
    if (dev->dev_num > 0) return -1;
    const int32_t result = upgrade_and_run();
    if (result == 0) {
      WRX_LOG(here(), "upgrade_and_run success.\n");
      wrx::pause_ms(kRestartMs);
      return 0;
    }
    if (result == kNoImage) return kNoImage;
    if (dev_exit_flag == 0) return -1;
    wrx::pause_ms(kRestartMs);
  }
  return -1;
}

int32_t wrx7700_upgrade_pt_notdelay([[maybe_unused]] bio_dev* dev,
                                    [[maybe_unused]] int32_t dev_exit_flag) {
  WRX_PRINT(here(), "start.");
  if (libusb_init(nullptr) != 0) {
    WRX_LOG(here(), "libusb_init failed.\n");
    return -1;
  }
  const int32_t result = upgrade_and_run();
  if (result == 0) {
    WRX_PRINT(here(), "upgrade_and_run success.");
    wrx::pause_ms(kRestartMs);
    return 0;
  }
  return result == kNoImage ? kNoImage : -1;
}
