/* SPDX-License-Identifier: LGPL-2.1-or-later
 *
 * The simulated module for programs that load it at run time: open libwrx-module-usb.so with
 * RTLD_NOW | RTLD_GLOBAL before the plug-in, call wrx_simulate_start, and the plug-in's libusb
 * calls reach the module instead of the machine's bus.
 */
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Puts one module on the bus, at the speed of a real one, and runs `script` (may be null; the
 * language is described in script.h). With `memory_file` (may be null) the module's templates,
 * flash and version come from that file, when it exists, and go back to it at the end.
 * Returns 0, or -1 with the reason in `error` (at most error_size bytes, terminated); a damaged
 * file is never overwritten, and one that another program has is refused. */
int wrx_simulate_start(const char* script, const char* memory_file, char* error, size_t error_size);

/* Runs a further script on the running module, from any thread. 0, or -1 with the reason. */
int wrx_simulate_play(const char* script, char* error, size_t error_size);

/* Writes the module's state as JSON text (terminated, cut to size) and returns the whole text's
 * length without its end, or -1 when nothing is running:
 * {"present":true,"mode":"application","version":100,"version_text":"…","capacity":256,
 *  "slots":[{"slot":20,"finger":"thumb"}],"flash":{"bytes":…,"crc":…,"bootable":true},
 *  "presses_left":0,"transfers":…} */
int wrx_simulate_report(char* text, size_t size);

/* Saves the memory and takes the module off the bus. 0, or -1 with the reason. */
int wrx_simulate_finish(char* error, size_t error_size);

#ifdef __cplusplus
}
#endif
