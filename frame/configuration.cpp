// SPDX-License-Identifier: LGPL-2.1-or-later
// The two key files: the framework's, of which a group is the driver's, and the driver's own.
#include <libintl.h>

#include <cstring>

#include "frame/driver.h"
#include "frame/unit.h"
#include "log.h"
#include "owners.h"
#include "paths.h"
#include "transport/usb_device.h"
#include "upgrade_budget.h"

using wrx::CallSite;
using wrx::Error;
using wrx::KeyFile;
using wrx::frame::here;

namespace {

constexpr char kGroup[] = "BASIC_PARAM";
constexpr char kPrintfLogFlag[] = "PrintfLogFlag";
constexpr char kModeFlag[] = "ModeFlag";
constexpr char kRebootFlag[] = "RebootFlag";
constexpr char kAutoSuspend[] = "AutoSuspend";
constexpr char kUpgradeFlag[] = "UpgradeFlag";
constexpr char kUpgradeMode[] = "UpgradeMode";

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

void log_error(const Error& error, CallSite site) {
  WRX_LOG(site, gettext("Error[%d]: %s\n"), error.code(), error.message());
}

// A whole number of a group. False, with `value` 0 and the error logged, when there is none.
bool read_integer(GKeyFile* file, const char* group, const char* key, int32_t& value,
                  CallSite site) {
  Error error;
  value = g_key_file_get_integer(file, group, key, error.out());
  if (!error) return true;
  log_error(error, site);
  value = 0;
  return false;
}

int32_t integer_or_0(GKeyFile* file, const char* group, const char* key, CallSite site) {
  int32_t value = 0;
  read_integer(file, group, key, value, site);
  return value;
}

// The driver's own file; null, with the error logged, when it cannot be loaded.
KeyFile load_extra_config(CallSite site) {
  KeyFile file(g_key_file_new());
  Error error;
  constexpr auto kKeep =
      static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
  g_key_file_load_from_file(file.get(), wrx::paths::kExtraConfig, kKeep, error.out());
  if (!error) return file;
  log_error(error, site);
  return nullptr;
}

// Whether the file can be written out as text.
bool validate(GKeyFile* file, Error& error) {
  const wrx::Text text(g_key_file_to_data(file, nullptr, error.out()));
  return !error;
}

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
  if (validate(conf, error)) {
    if (info.mode_flag != 0) g_key_file_set_integer(conf, dev->device_name, kModeFlag, 0);
    if (info.reboot_flag != 0) g_key_file_set_integer(conf, dev->device_name, kRebootFlag, 0);
    g_key_file_save_to_file(conf, wrx::paths::kHostConfig, error.out());
  }
  if (error) print_error(error, site);
}

// Lowers the budget in the file to `value`.
bool save_budget(GKeyFile* file, int32_t value, CallSite site) {
  Error error;
  if (validate(file, error)) {
    g_key_file_set_integer(file, kGroup, kUpgradeFlag, value);
    g_key_file_save_to_file(file, wrx::paths::kExtraConfig, error.out());
  }
  if (!error) return true;
  log_error(error, site);
  return false;
}

// Spends one unit of the budget, if there is one. 0 or -1; `spent` tells whether the file changed.
int32_t spend_budget(GKeyFile* file, bool& spent, CallSite site) {
  int32_t value = 0;
  if (!read_integer(file, kGroup, kUpgradeFlag, value, site)) return -1;
  WRX_LOG(site, "upgrade_flag = %d\n", value);
  if (value <= 0) return 0;
  --value;
  if (!save_budget(file, value, site)) return -1;
  spent = true;
  WRX_LOG(site, "change upgrade_flag = %d\n", value);
  return 0;
}

}  // namespace

int32_t driver_config_init(DRIVER_CONFIG_STRUCT* config) {
  WRX_LOG(here(), "start.\n");
  const KeyFile file = load_extra_config(here());
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

int32_t read_fw_upgrade_flag(void) {
  WRX_LOG(here(), "start.\n");
  const KeyFile file = load_extra_config(here());
  if (file == nullptr) return -1;
  const int32_t budget = integer_or_0(file.get(), kGroup, kUpgradeFlag, here());
  WRX_LOG(here(), "upgrade_flag = %d\n", budget);
  WRX_LOG(here(), "end.\n");
  return budget >= 1 ? 0 : -1;
}

int32_t change_fw_upgrade_flag(void) {
  static uint8_t upgrade_times = 0;
  WRX_LOG(here(), "start.\n");
  if (upgrade_times != 0) {
    WRX_LOG(here(), "upgrade_flag has been changed.\n");
    return 0;
  }
  const KeyFile file = load_extra_config(here());
  if (file == nullptr) return -1;
  bool spent = false;
  const int32_t result = spend_budget(file.get(), spent, here());
  if (spent) ++upgrade_times;
  WRX_LOG(here(), "end.\n");
  return result;
}
