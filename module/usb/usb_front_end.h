// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The in-process front end: libusb-1.0's own functions, served by the bench instead of a bus. It
// is linked (or loaded) before the real library, so that a driver reaches the simulated module
// without knowing of it. Where a device is concerned, the result is what the real library gives:
// a handle of a device that left stays valid and answers LIBUSB_ERROR_NO_DEVICE.
//
// Nothing is declared here beyond libusb's header; the bench (bus.h) is the way to set it up.
#pragma once

#include <libusb-1.0/libusb.h>
