// SPDX-License-Identifier: LGPL-2.1-or-later
// One complete rewrite of the module's firmware. Erasing makes the old firmware unrunnable; the
// new one becomes runnable only when its CRC is stored, after it was read back and compared.
// Whatever happens in between leaves the module in its bootloader, to be rewritten at the next
// start.
#include <cstdio>
#include <cstdlib>

#include "base/log.h"
#include "base/owners.h"
#include "base/units.h"
#include "upgrade/bootloader.h"
#include "upgrade/upgrade.h"

using wrx::upgrade::here;
using wrx::upgrade::kBlockSize;

namespace {

struct Image {
  wrx::Bytes bytes;
  uint32_t size;
};

// Reads the whole image into memory.
bool read_image(std::FILE* file, Image& image, wrx::CallSite site) {
  wrx::print_text(site, "file_size = %d\n", static_cast<int>(image.size));
  image.bytes.reset(static_cast<char*>(std::calloc(image.size, 1)));
  const std::size_t count =
      image.bytes != nullptr ? std::fread(image.bytes.get(), 1, image.size, file) : 0;
  wrx::print_text(site, "read_size = %d\n", static_cast<int>(count));
  if (count == image.size) return true;
  WRX_LOG(site, "file_size = %d, read_size = %d, read file failed!\n", static_cast<int>(image.size),
          static_cast<int>(count));
  return false;
}

bool download(const Image& image) {
  for (uint32_t offset = 0; offset < image.size; offset += kBlockSize) {
    const uint32_t left = image.size - offset;
    const int32_t length = left < kBlockSize ? static_cast<int32_t>(left) : kBlockSize;
    if (downloadCodeToEFlash(offset, image.bytes.get() + offset, length) != 0) return false;
  }
  return true;
}

bool fail(const char* message, wrx::CallSite site) {
  WRX_LOG(site, "%s", message);
  return false;
}

// From an image in memory to a verified one in flash.
bool rewrite(const Image& image, wrx::CallSite site) {
  set_upgrade_state(1);
  upgrade_param.crc_value_file = CRC16_X25(image.bytes.get(), image.size);
  upgrade_param.crc_value_dev = 0;
  wrx::print_text(site, "size = %d", static_cast<int>(image.size));
  wrx::print_text(site, "crc_value = 0x%04x", upgrade_param.crc_value_file);
  if (eraseEFlash() != 0) return fail("eraseEFlash failed!!!\n", site);
  if (!download(image)) return fail("downloadCodeToEFlash: failed!!!\n", site);
  if (readCRC(0, static_cast<int32_t>(image.size)) != 0) return fail("readCRC: failed!!!\n", site);
  if (upgrade_param.crc_value_dev != upgrade_param.crc_value_file) {
    return fail("check CRC: error!!!\n", site);
  }
  if (downloadCRCValue(image.size, upgrade_param.crc_value_file, 0) != 0) {
    return fail("downloadCRC: failed!!!\n", site);
  }
  if (securityCode() != 0) return fail("securityCode failed!!!\n", site);
  return true;
}

// Starts the new firmware. That it cannot be started now does not undo a verified rewrite.
void run_application(wrx::CallSite site) {
  WRX_LOG(site, "downloadCodeToEFlash: success.\n");
  if (runAPP() == 0) WRX_LOG(site, "runAPP: success.\n");
  change_fw_upgrade_flag();
  set_upgrade_state(0);
}

}  // namespace

int32_t upgrade_and_run(void) {
  if (boot_open_dev() != 0) {
    WRX_LOG(here(), "open_dev failed!!!\n");
    return -1;
  }
  const wrx::File file(std::fopen(new_firmware_name, "rbe"));
  if (file == nullptr) {
    WRX_LOG(here(), "%s open failed!\n", new_firmware_name);
    boot_close_dev();
    return -2;
  }
  Image image = {nullptr, get_file_size(new_firmware_name)};
  if (image.size == 0 || image.size > wrx::upgrade::kMaxImage) {
    WRX_LOG(here(), "%s file_size = %d, error!\n", new_firmware_name, static_cast<int>(image.size));
    boot_close_dev();
    return -1;
  }
  int32_t result = -1;
  if (read_image(file.get(), image, here()) && rewrite(image, here())) {
    result = 0;
    run_application(here());
  }
  WRX_PRINT(here(), "upgrade_and_run end.");
  boot_close_dev();
  return result;
}

int32_t set_upgrade_state(uint8_t state) {
  WRX_LOG(here(), "state %d\n", state);
  upgrade_param.upgrade_state = state;
  return 0;
}

uint8_t get_upgrade_state(void) {
  return upgrade_param.upgrade_state;
}
