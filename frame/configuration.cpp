// SPDX-License-Identifier: LGPL-2.1-or-later
// The two key files: the framework's, of which a group is the driver's, and the driver's own.
#include <libintl.h>

#include <cstring>

#include "base/key_file.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/units.h"
#include "frame/driver.h"
#include "records/configuration_keys.h"
#include "transport/usb_device.h"

using wrx::CallSite;
using wrx::Error;
using wrx::integer_or_0;
using wrx::KeyFile;
using wrx::log_error;
using wrx::frame::here;
using namespace wrx::keys;

namespace {

struct ModeName {
  const char* name;
  UPGRADE_MODE_TYPE mode;
};
constexpr ModeName kModeNames[] = {
    {"FORCE_UPGRADE", FORCE_UPGRADE},
    {"DONT_UPGRADE", DONT_UPGRADE},
    {"AUTO_UPGRADE", AUTO_UPGRADE},
    {"SMART_UPGRADE", SMART_UPGRADE},
};

UPGRADE_MODE_TYPE read_upgrade_mode(GKeyFile* file, UPGRADE_MODE_TYPE unchanged, CallSite site) {
  Error error;
  const wrx::Text name(g_key_file_get_string(file, kGroup, kUpgradeMode, error.out()));
  if (error) {
    log_error(error, site);
    return AUTO_UPGRADE;
  }
  for (const ModeName& row : kModeNames) {
    if (std::strcmp(name.get(), row.name) == 0) {
      WRX_LOG(site, "set upgrade mode: %s\n", row.name);
      return row.mode;
    }
  }
  return unchanged;
}

void print_error(const Error& error, CallSite site) {
  wrx::print_text(site, gettext("Error[%d]: %s\n"), error.code(), error.message());
}

// Clears the one-shot keys that were set, and saves the whole file.
void clear_one_shot_keys(bio_dev* dev, GKeyFile* conf, CallSite site) {
  const driver_info& info = wrx::info_of(dev);
  if (info.mode_flag == 0 && info.reboot_flag == 0) return;
  Error error;
  if (wrx::can_be_written(conf, error)) {
    if (info.mode_flag != 0) g_key_file_set_integer(conf, dev->device_name, kModeFlag, 0);
    if (info.reboot_flag != 0) g_key_file_set_integer(conf, dev->device_name, kRebootFlag, 0);
    g_key_file_save_to_file(conf, wrx::paths::kHostConfig, error.out());
  }
  if (error) print_error(error, site);
}

}  // namespace

int32_t driver_config_init(DRIVER_CONFIG_STRUCT* config) {
  WRX_LOG(here(), "start.\n");
  const KeyFile file = wrx::load_key_file(wrx::paths::kExtraConfig, here());
  if (file == nullptr || config == nullptr) return -1;
  const int32_t log_switch = integer_or_0(file.get(), kGroup, kPrintfLogFlag, here());
  if (log_switch != 0) {
    enable_printf_log(log_switch);
    WRX_LOG(here(), "================enable printf log================\n");
    WRX_LOG(here(), "%s = %d.\n", kPrintfLogFlag, log_switch);
  }
  const int32_t autosuspend = integer_or_0(file.get(), kGroup, kAutoSuspend, here());
  WRX_LOG(here(), "set auto_suspend: %d\n", autosuspend);
  config->autosuspend_flag = static_cast<uint8_t>(autosuspend);
  usb_set_autosuspend_flag(config->autosuspend_flag);
  const int32_t budget = integer_or_0(file.get(), kGroup, kUpgradeFlag, here());
  WRX_LOG(here(), "set upgrade_flag: %d\n", budget);
  config->upgrade_flag = budget;
  config->upgrade_mode = read_upgrade_mode(file.get(), config->upgrade_mode, here());
  WRX_LOG(here(), "end.\n");
  return 0;
}

int32_t wrx7700_para_config(bio_dev* dev, GKeyFile* conf) {
  WRX_PRINT(here(), "start.");
  if (conf != nullptr) {
    driver_info& info = wrx::info_of(dev);
    const char* group = dev->device_name;
    const int32_t log_switch = integer_or_0(conf, group, kPrintfLogFlag, here());
    if (log_switch != 0) {
      enable_printf_log(log_switch);
      WRX_LOG(here(), "%s = %d.\n", kPrintfLogFlag, log_switch);
    }
    info.mode_flag = integer_or_0(conf, group, kModeFlag, here());
    info.reboot_flag = integer_or_0(conf, group, kRebootFlag, here());
    clear_one_shot_keys(dev, conf, here());
  }
  WRX_PRINT(here(), "end.");
  return 0;
}
