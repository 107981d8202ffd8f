// SPDX-License-Identifier: LGPL-2.1-or-later
// The plug-in's entry: identity, id table, callback table, and the start of the other rooms.
#include "base/log.h"
#include "base/units.h"
#include "frame/driver.h"
#include "operations/operations.h"
#include "protocol/packet.h"
#include "transport/usb_device.h"
#include "upgrade/upgrade.h"

using wrx::frame::here;

namespace {

// Frameworks differ in what their records hold as const; nobody writes to any of it.
template <class T>
constexpr T* shared(const T* value) {
  return const_cast<T*>(value);
}

// The same of what a callback returns.
template <class Callback>
void set_text_callback(Callback& callback, const char* (*function)(bio_dev*)) {
  callback = reinterpret_cast<Callback>(function);
}

constexpr char kVersion[] = "V1.0.31";
constexpr char kDeviceName[] = "wrx5300";
constexpr char kFullName[] = "TRV WRX5300";

void set_identity(bio_dev* dev) {
  dev->driver_id = bio_get_empty_driver_id();
  dev->device_name = shared(kDeviceName);
  dev->full_name = shared(kFullName);
  dev->bioinfo.biotype = BioT_FingerPrint;
  dev->bioinfo.stotype = StoT_Device;
  dev->bioinfo.eigtype = EigT_Eigenvalue;
  dev->bioinfo.vertype = VerT_Hardware;
  dev->bioinfo.idtype = IdT_Hardware;
  dev->bioinfo.bustype = BusT_USB;
  dev->usb_info.id_table = shared(wrx7700_id_table);
  dev->usb_info.driver_data = 0;
}

void set_callbacks(bio_dev* dev) {
  dev->ops_configure = ops_configure;
  dev->ops_driver_init = wrx7700_ops_driver_init;
  dev->ops_free = wrx7700_ops_free;
  dev->ops_discover = wrx7700_ops_discover;
  dev->ops_open = wrx7700_ops_open;
  dev->ops_close = wrx7700_ops_close;
  dev->ops_capture = wrx7700_ops_capture;
  dev->ops_enroll = wrx7700_ops_enroll;
  dev->ops_verify = wrx7700_ops_verify;
  dev->ops_identify = wrx7700_ops_identify;
  dev->ops_search = wrx7700_ops_search;
  dev->ops_clean = wrx7700_ops_clean;
  dev->ops_get_feature_list = wrx7700_ops_get_feature_list;
  dev->ops_feature_rename = nullptr;
  dev->ops_stop_by_user = wrx7700_ops_stop_by_user;
  set_text_callback(dev->ops_get_dev_status_mesg, wrx7700_ops_get_dev_status_mesg);
  set_text_callback(dev->ops_get_ops_result_mesg, wrx7700_ops_get_ops_result_mesg);
  set_text_callback(dev->ops_get_notify_mid_mesg, wrx7700_ops_get_notify_mid_mesg);
  dev->ops_attach = wrx7700_ops_attach;
  dev->ops_detach = wrx7700_ops_detach;
}

}  // namespace

const usb_id wrx7700_id_table[4] = {
    {0x1234, 0xabcd, shared("TRV WRX7700")},
    {0x4d2e, 0x5100, shared("TRV WRX5100")},
    {0x4d2e, 0x5300, shared("TRV WRX5300")},
    {0, 0, nullptr},
};

int32_t ops_configure(bio_dev* dev, GKeyFile* conf) {
  WRX_LOG(here(), "start ******************=========\r\n");
  set_identity(dev);
  set_callbacks(dev);
  dev->drv_api_version.major = 0;
  dev->drv_api_version.minor = 10;
  dev->drv_api_version.function = 2;
  bio_set_dev_status(dev, 0);
  bio_set_ops_result(dev, 0);
  bio_set_notify_mid(dev, 0);
  dev->enable = bio_dev_is_enable(dev, conf);
  dev->dev_priv = g_malloc0_n(1, sizeof(driver_info));
  fp_module_init();
  usb_dev_module_init();
  driver_config_init(&wrx::info_of(dev).config);
  wrx7700_para_config(dev, conf);
  WRX_LOG(here(), "wrx5300 driver version:%s\n", kVersion);
  read_fw_version();
  WRX_LOG(here(), "end ******************=========\r\n");
  return 0;
}
