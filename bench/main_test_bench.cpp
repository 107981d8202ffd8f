// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver's bench entry as a program, for a desk with a real sensor: shakes hands every six
// seconds until it is interrupted.
#include "frame/driver.h"

int main(int argc, char** argv) {
  return main_test(argc, argv);
}
