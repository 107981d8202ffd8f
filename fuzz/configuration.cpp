// SPDX-License-Identifier: LGPL-2.1-or-later
// The key files and the firmware's selection file, as a careless or hostile hand may leave them.
#include <glib.h>

#include "base/paths.h"
#include "frame/driver.h"
#include "fuzz/scratch.h"
#include "records/driver_info.h"
#include "upgrade/upgrade.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  wrx_fuzz::Input input(data, size);
  const std::string_view selection = input.bytes(input.byte() + std::size_t{2});
  const std::string_view host = input.bytes(input.byte() * std::size_t{4});
  wrx_fuzz::write_file("etc/wrx6600/extra/trv_fw.conf", selection);
  wrx_fuzz::write_file("etc/biometric-auth/extra.conf.d/vestrel-m6600.conf", input.rest());

  driver_info info{};
  bio_dev dev{};
  dev.dev_priv = &info;
  char name[] = "wrx5300";
  dev.device_name = name;
  driver_config_init(&info.config);
  GKeyFile* conf = g_key_file_new();
  g_key_file_load_from_data(conf, host.data(), host.size(), G_KEY_FILE_KEEP_COMMENTS, nullptr);
  wrx7700_para_config(&dev, conf);
  g_key_file_free(conf);
  if (read_fw_version() == 0 && upgrade_new_firmware_version()[0] == '\0') std::abort();
  change_fw_upgrade_flag();
  return 0;
}
