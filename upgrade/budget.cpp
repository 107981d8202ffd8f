// SPDX-License-Identifier: LGPL-2.1-or-later
// The upgrade budget: a number in the driver's own configuration file, lowered by each upgrade. Its
// lines in the log carry the name of the frame, which reads the rest of that file.
#include "base/key_file.h"
#include "base/paths.h"
#include "base/units.h"
#include "records/configuration_keys.h"
#include "upgrade/upgrade.h"

using wrx::CallSite;
using wrx::Error;
using wrx::KeyFile;
using wrx::frame::here;
using wrx::keys::kGroup;
using wrx::keys::kUpgradeFlag;

namespace {

// Lowers the budget in the file to `value`.
bool save_budget(GKeyFile* file, int32_t value, CallSite site) {
  Error error;
  if (wrx::can_be_written(file, error)) {
    g_key_file_set_integer(file, kGroup, kUpgradeFlag, value);
    g_key_file_save_to_file(file, wrx::paths::kExtraConfig, error.out());
  }
  if (!error) return true;
  wrx::log_error(error, site);
  return false;
}

// Spends one unit of the budget, if there is one. 0 or -1; `spent` tells whether the file changed.
int32_t spend_budget(GKeyFile* file, bool& spent, CallSite site) {
  int32_t value = 0;
  if (!wrx::read_integer(file, kGroup, kUpgradeFlag, value, site)) return -1;
  WRX_LOG(site, "upgrade_flag = %d\n", value);
  if (value <= 0) return 0;
  --value;
  if (!save_budget(file, value, site)) return -1;
  spent = true;
  WRX_LOG(site, "change upgrade_flag = %d\n", value);
  return 0;
}

}  // namespace

int32_t read_fw_upgrade_flag(void) {
  WRX_LOG(here(), "start.\n");
  const KeyFile file = wrx::load_key_file(wrx::paths::kExtraConfig, here());
  if (file == nullptr) return -1;
  const int32_t budget = wrx::integer_or_0(file.get(), kGroup, kUpgradeFlag, here());
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
  const KeyFile file = wrx::load_key_file(wrx::paths::kExtraConfig, here());
  if (file == nullptr) return -1;
  bool spent = false;
  const int32_t result = spend_budget(file.get(), spent, here());
  if (spent) ++upgrade_times;
  WRX_LOG(here(), "end.\n");
  return result;
}
