// SPDX-License-Identifier: LGPL-2.1-or-later
// frame/ is what the framework sees: the entry point, the device record, the configuration
// and the lifecycle callbacks. It is the top floor: it starts the other rooms and calls operations/
// and upgrade/, and nothing below knows of it. All callbacks run on the framework's operation
// thread, except wrx7700_ops_stop_by_user, which may come from another.
#pragma once

#include <glib.h>

#include <cstdint>

#include "records/driver_info.h"
#include "records/framework.h"

#pragma GCC visibility push(default)
extern "C" {

/// The modules this driver serves; a row of zeros ends the table.
extern const usb_id wrx7700_id_table[4];

/// The plug-in's entry point: fills the device record and starts the rooms. `conf` is the loaded
/// configuration of all drivers. Always 0.
int32_t ops_configure(bio_dev* dev, GKeyFile* conf);

// ---- configuration

/// Reads the driver's own configuration file. 0, or -1 when it cannot be loaded; `config` then
/// keeps its zeros.
int32_t driver_config_init(DRIVER_CONFIG_STRUCT* config);
/// Reads the driver's group of the framework's configuration, and clears its one-shot keys in the
/// file. Always 0.
int32_t wrx7700_para_config(bio_dev* dev, GKeyFile* conf);

// ---- lifecycle callbacks

/// Start-up: finds the module, collects its power-up identification, brings its firmware up to
/// date, runs the configured one-shot switches, sets up autosuspend. Always 0.
int32_t wrx7700_ops_driver_init(bio_dev* dev);
/// Number of modules found: 1 or 0.
int32_t wrx7700_ops_discover(bio_dev* dev);
/// Opens the channel to the module. 0, or -1 when disabled or failed.
int32_t wrx7700_ops_open(bio_dev* dev);
/// Closes it, a disabled device's too.
void wrx7700_ops_close(bio_dev* dev);
/// Capturing raw images is not supported. Always null.
char* wrx7700_ops_capture(bio_dev* dev, OpsActions action);
/// The private record stays as long as the plug-in is loaded.
void wrx7700_ops_free(bio_dev* dev);
/// Asks the running operation to stop and waits, at most `waiting_ms` or 3000 milliseconds, until
/// it has. Always 0. Any thread.
int32_t wrx7700_ops_stop_by_user(bio_dev* dev, int32_t waiting_ms);
/// Always null: the framework uses its own text of the status.
const char* wrx7700_ops_get_dev_status_mesg(bio_dev* dev);
/// Always null: the framework uses its own text of the result.
const char* wrx7700_ops_get_ops_result_mesg(bio_dev* dev);
/// The driver's message while the notification is MID_EXTENDED_MESSAGE, else null.
const char* wrx7700_ops_get_notify_mid_mesg(bio_dev* dev);
/// The module was plugged in; logged only.
void wrx7700_ops_attach(bio_dev* dev);
/// The module was unplugged: its sysfs folder is not to be trusted any more.
void wrx7700_ops_detach(bio_dev* dev);

// ---- device routines

/// Whether the module can be opened; if so, records its place on the bus. 1 or 0.
int32_t wrx7700_discover(bio_dev* dev);
/// Switches the module's working mode as "ModeFlag" says. 0, or -1 when it cannot be opened.
int32_t wrx7700_set_mode(bio_dev* dev);
/// Reboots the module if "RebootFlag" says so. 0, or -1 when it cannot be opened.
int32_t wrx7700_set_reboot(bio_dev* dev);
/// Bench entry: shakes hands with the module every six seconds for ever. 0 when the start failed.
int32_t main_test(int32_t argc, char** argv);

}  // extern "C"
#pragma GCC visibility pop
