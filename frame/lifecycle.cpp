// SPDX-License-Identifier: LGPL-2.1-or-later
// The lifecycle callbacks: start, discover, open, close, stop, messages, hot-plug.
#include <algorithm>

#include "base/log.h"
#include "base/pause.h"
#include "base/stop_flags.h"
#include "base/units.h"
#include "frame/driver.h"
#include "operations/operations.h"
#include "protocol/packet.h"
#include "records/driver_info.h"
#include "transport/usb_device.h"
#include "upgrade/upgrade.h"

using wrx::frame::here;

namespace {

constexpr int32_t kStopLimitMs = 3000;
constexpr int32_t kStopPassMs = 10;

bool refused_as_disabled(bio_dev* dev) {
  if (dev->enable != 0) return false;
  bio_set_dev_status(dev, DEVS_COMM_DISABLE);
  bio_set_ops_result(dev, OPS_COMM_ERROR);
  bio_set_notify_abs_mid(dev, NOTIFY_COMM_DISABLE);
  return true;
}

void log_device_name(const bio_dev* dev, wrx::CallSite site) {
  if (dev->device_name != nullptr) WRX_LOG(site, "%s start!\r\n", dev->device_name);
}

bool stop_has_ended(driver_info& info) {
  const int32_t flag = wrx::load_flag(info.ctrlFlag);
  return flag == kStopIdle || flag == kStopAcknowledged || flag == kStopEnded;
}

}  // namespace

int32_t wrx7700_ops_driver_init(bio_dev* dev) {
  driver_info& info = wrx::info_of(dev);
  bio_print_debug("wrx5300_ops_driver_init start.\n");
  info.timeoutMS = bio_get_ops_timeout_ms();
  WRX_LOG(here(), "priv->timeoutMS = %d\r\n", info.timeoutMS);
  wrx::store_flag(info.ctrlFlag, kStopIdle);
  usb_dev_get_port_path();
  if (wrx7700_discover(dev) >= 1) {
    wrx7700_onekey_powerup_identify(dev);
    wrx7700_check_firmware_version(dev);
    wrx7700_set_mode(dev);
    wrx7700_set_reboot(dev);
  } else {
    wrx7700_upgrade_pt_notdelay(dev, 0);
  }
  if (usb_dev_get_port_path_valid_flag() == 0) usb_dev_get_port_path();
  if (usb_dev_enable_autosuspend() == 0) WRX_LOG(here(), "usb_dev_enable_autosuspend.\r\n");
  bio_print_debug("bio_drv_demo_ops_driver_init end\n");
  return 0;
}

int32_t wrx7700_ops_discover(bio_dev* dev) {
  bio_print_debug("bio_drv_demo_ops_discover start\n");
  log_device_name(dev, here());
  const int32_t found = wrx7700_discover(dev);
  bio_print_debug("bio_drv_demo_ops_discover ret = %d\n", found);
  if (found < 0) {
    bio_print_debug("bio_drv_demo_ops_discover return -1\n");
    return -1;
  }
  if (found > 0) bio_print_debug("bio_drv_demo_ops_discover end\n");
  return found;
}

int32_t wrx7700_ops_open(bio_dev* dev) {
  bio_print_debug("bio_drv_demo_ops_open start\n");
  log_device_name(dev, here());
  if (refused_as_disabled(dev)) return -1;
  bio_set_dev_status(dev, DEVS_OPEN_DOING);
  fp_set_ctrlFlag(FP_CONTROL_FLAG_IDLE);
  if (usb_dev_open(dev) != 0) {
    bio_set_ops_abs_result(dev, OPS_OPEN_FAIL);
    bio_set_notify_abs_mid(dev, NOTIFY_OPEN_FAIL);
    bio_set_dev_status(dev, DEVS_COMM_IDLE);
    return -1;
  }
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  bio_set_ops_abs_result(dev, OPS_OPEN_SUCCESS);
  bio_set_notify_abs_mid(dev, NOTIFY_OPEN_SUCCESS);
  bio_print_debug("bio_drv_demo_ops_open end\n");
  return 0;
}

void wrx7700_ops_close(bio_dev* dev) {
  bio_print_debug("bio_drv_demo_ops_close start\n");
  log_device_name(dev, here());
  // A device that was disabled while it was open is closed all the same.
  refused_as_disabled(dev);
  wrx::store_flag(wrx::info_of(dev).ctrlFlag, kStopIdle);
  usb_dev_close();
  bio_print_debug("bio_drv_demo_ops_close end\n");
}

char* wrx7700_ops_capture(bio_dev* dev, [[maybe_unused]] OpsActions action) {
  bio_print_debug("bio_drv_demo_ops_capture start\n");
  if (refused_as_disabled(dev)) return nullptr;
  bio_set_dev_status(dev, DEVS_CAPTURE_DOING);
  bio_set_dev_status(dev, DEVS_COMM_IDLE);
  bio_set_ops_result(dev, OPS_CAPTURE_FAIL);
  bio_set_notify_abs_mid(dev, NOTIFY_CAPTURE_FAIL);
  bio_print_debug("bio_drv_demo_ops_capture end 3\n");
  return nullptr;
}

void wrx7700_ops_free([[maybe_unused]] bio_dev* dev) {
  bio_print_debug("bio_drv_demo_ops_free start\n");
  bio_print_debug("bio_drv_demo_ops_free end\n");
}

int32_t wrx7700_ops_stop_by_user(bio_dev* dev, int32_t waiting_ms) {
  WRX_LOG(here(), "start.\r\n");
  bio_print_debug("bio_drv_demo_ops_stop_by_user start\n");
  bio_print_info("_Device %s[%d] received interrupt request\n", dev->device_name, dev->driver_id);
  if (bio_get_dev_status(dev) == DEVS_COMM_IDLE) return 0;
  const int32_t limit_ms = std::min(kStopLimitMs, waiting_ms);
  wrx::print_line(here(), "timeout = %d.\r\n", limit_ms);
  driver_info& info = wrx::info_of(dev);
  // The handshake first: an operation that sees the protocol flag must find it to answer.
  wrx::store_flag(info.ctrlFlag, kStopRequested);
  fp_set_ctrlFlag(FP_CONTROL_FLAG_STOPPED);
  for (int32_t waited_ms = 0; !stop_has_ended(info) && waited_ms < limit_ms;
       waited_ms += kStopPassMs) {
    wrx::pause_ms(kStopPassMs);
  }
  if (!stop_has_ended(info)) WRX_LOG(here(), "end.\r\n");
  return 0;
}

const char* wrx7700_ops_get_dev_status_mesg([[maybe_unused]] bio_dev* dev) {
  bio_print_debug("bio_drv_demo_ops_get_dev_status_mesg end\n");
  return nullptr;
}

const char* wrx7700_ops_get_ops_result_mesg([[maybe_unused]] bio_dev* dev) {
  bio_print_debug("bio_drv_demo_ops_get_ops_result_mesg end\n");
  return nullptr;
}

const char* wrx7700_ops_get_notify_mid_mesg(bio_dev* dev) {
  bio_print_debug("bio_drv_demo_ops_get_notify_mid_mesg start\n");
  return bio_get_notify_mid(dev) == MID_EXTENDED_MESSAGE ? wrx::info_of(dev).extra_info : nullptr;
}

void wrx7700_ops_attach([[maybe_unused]] bio_dev* dev) {
  WRX_LOG(here(), "usb dev attach.\n");
}

void wrx7700_ops_detach([[maybe_unused]] bio_dev* dev) {
  WRX_LOG(here(), "usb dev detach.\n");
  usb_dev_set_port_path_valid_flag(0);
  WRX_LOG(here(), "usb dev detach end.\n");
}
