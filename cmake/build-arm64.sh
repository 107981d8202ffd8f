#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Cross-builds everything for 64-bit Arm into build/arm64. With --test the unit tests run too,
# under qemu-user.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$here/.." && pwd)
. "$here/packages.sh"

# shellcheck disable=SC2086
install_packages $BUILD_PACKAGES
cd "$source"
tests=OFF
[ "${1:-}" != --test ] || tests=ON
cmake --preset arm64 -DWRX_UNIT_TESTS=$tests >/dev/null
cmake --build --preset arm64 -- --quiet
cd build/arm64
python3 -B "$source/tests/binary/check.py" lib/wrx5300.so lib/libbiometric.so bin/wrxctl \
  bin/wrxd bin/wrx-module
cd "$source"
[ "${1:-}" != --test ] || ctest --preset arm64 -j "$(nproc)"
