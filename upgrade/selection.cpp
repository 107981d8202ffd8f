// SPDX-License-Identifier: LGPL-2.1-or-later
// Which firmware image the driver carries: a one-line selection file names it.
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/log.h"
#include "base/owners.h"
#include "base/paths.h"
#include "base/units.h"
#include "upgrade/bootloader.h"
#include "upgrade/upgrade.h"

using wrx::upgrade::here;
using wrx::upgrade::kSelectionText;

char new_firmware_name[kSelectionText];
char new_firmware_version[kSelectionText];
uint32_t new_firmware_version_num;

namespace {

constexpr std::size_t kRemovedName = 100;  // characters of the image's path that are named
constexpr char kNamePrefix[] = "ACM32FP_V";

// The number behind the prefix of an image's name; 0 when there is none that fits.
int version_in(const char* text) {
  if (std::strncmp(text, kNamePrefix, std::strlen(kNamePrefix)) != 0) return 0;
  const long number = std::strtol(text + std::strlen(kNamePrefix), nullptr, 10);
  using Limits = std::numeric_limits<int>;
  return number < Limits::min() || number > Limits::max() ? 0 : static_cast<int>(number);
}

void select(const char* text, wrx::CallSite site) {
  // A name too long for the record is cut, and then names no image.
  g_strlcpy(new_firmware_name, wrx::paths::kExtraFolder, sizeof new_firmware_name);
  g_strlcat(new_firmware_name, text, sizeof new_firmware_name);
  g_strlcat(new_firmware_name, ".bin", sizeof new_firmware_name);
  WRX_LOG(site, "new_firmware_name = %s\n", new_firmware_name);
  const int version = version_in(text);
  WRX_LOG(site, "fw_version = %d\n", version);
  std::snprintf(new_firmware_version, sizeof new_firmware_version, "acm32_btl_zelta_pc_%06d",
                version);
  WRX_LOG(site, "new_firmware_version = %s\n", new_firmware_version);
  new_firmware_version_num = static_cast<uint32_t>(version);
  WRX_LOG(site, "new_firmware_version_num = %d\n", version);
}

void remove_file(const char* path, wrx::CallSite site) {
  wrx::print_text(site, "rm %s\n", path);
  unlink(path);
}

}  // namespace

int32_t read_fw_version(void) {
  // What an earlier start selected must not serve a start whose budget is used up.
  new_firmware_name[0] = '\0';
  new_firmware_version[0] = '\0';
  new_firmware_version_num = 0;
  if (read_fw_upgrade_flag() != 0) {
    WRX_PRINT(here(), "read_fw_upgrade_flag: FAIL!");
    return -1;
  }
  const wrx::File file(std::fopen(wrx::paths::kFirmwareSelection, "re"));
  if (file == nullptr) {
    wrx::print_text(here(), "%s open failed!\n", wrx::paths::kFirmwareSelection);
    return -1;
  }
  const uint32_t size = get_file_size(wrx::paths::kFirmwareSelection);
  if (size == 0 || size > kSelectionText) {
    WRX_LOG(here(), "%s file_size = %d, error!\n", wrx::paths::kFirmwareSelection,
            static_cast<int>(size));
    return -1;
  }
  std::array<char, kSelectionText> text{};
  const std::size_t count = std::fread(text.data(), 1, size, file.get());
  wrx::print_text(here(), "read_size = %d\n", static_cast<int>(count));
  if (count != size) {
    WRX_LOG(here(), "file_size = %d, read_size = %d, read file failed!\n", static_cast<int>(size),
            static_cast<int>(count));
    return -1;
  }
  // The last character is a line end, and goes whatever it is.
  text[count - 1] = '\0';
  select(text.data(), here());
  return 0;
}

char* upgrade_new_firmware_name(void) {
  return new_firmware_name;
}

char* upgrade_new_firmware_version(void) {
  return new_firmware_version;
}

uint32_t upgrade_new_firmware_version_num(void) {
  return new_firmware_version_num;
}

uint32_t get_file_size(const char* filename) {
  if (filename == nullptr || filename[0] == '\0') {
    WRX_LOG(here(), "the param is error!\n");
    return 0;
  }
  struct stat status {};
  if (stat(filename, &status) != 0) return 0;
  constexpr auto kLargest = std::numeric_limits<uint32_t>::max();
  return status.st_size > static_cast<off_t>(kLargest) ? kLargest
                                                       : static_cast<uint32_t>(status.st_size);
}

int32_t check_file_exit(void) {
  const uint32_t size = get_file_size(new_firmware_name);
  if (size >= 1 && size <= wrx::upgrade::kMaxImage) return 0;
  WRX_LOG(here(), "%s file_size = %d, error!\n", new_firmware_name, static_cast<int>(size));
  boot_close_dev();
  return -1;
}

int32_t rm_firmware_file(void) {
  char path[kRemovedName + 1];
  g_strlcpy(path, new_firmware_name, sizeof path);
  remove_file(path, here());
  remove_file(wrx::paths::kFirmwareSelection, here());
  return 0;
}
