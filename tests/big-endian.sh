#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# The tests of everything that goes over a wire (label "wire"), on a machine of the other byte order:
# cross-built for s390x into build/s390x, run under qemu-user.
#
#   big-endian.sh                  builds and runs them
#   big-endian.sh --packages-only  installs and downloads what that needs, and no more
set -euo pipefail
source=$(cd "$(dirname "$0")/.." && pwd)
. "$source/cmake/packages.sh"
out=$source/build/s390x

HOST_PACKAGES="g++-s390x-linux-gnu qemu-user-static ninja-build cmake pkg-config
  nlohmann-json3-dev libcli11-dev googletest"
# Unpacked below the build tree, never installed: Debian has newer packages for some architectures
# than for this one, and of two versions only one can be installed.
TARGET_PACKAGES="libglib2.0-0 libglib2.0-dev libpcre2-8-0 libpcre2-dev libusb-1.0-0 libusb-1.0-0-dev
  libudev1 libsqlite3-0 libsqlite3-dev zlib1g libfmt9 libfmt-dev libgtest-dev libgmock-dev"

# An apt of its own for the other architecture, which leaves this machine's as it is.
prepare_apt() {
  mkdir -p "$out"/apt/{lists,cache}/partial
  cat >"$out/apt/apt.conf" <<EOF
APT::Architecture "s390x";
APT::Architectures { "s390x"; };
APT::Sandbox::User "root";
Dir::State::status "/dev/null";
Dir::State::lists "$out/apt/lists";
Dir::Cache "$out/apt/cache";
EOF
  export APT_CONFIG=$out/apt/apt.conf
  [ -e "$out/packages/unpacked" ] || apt-get update -qq
}

# shellcheck disable=SC2086
install_packages $HOST_PACKAGES
prepare_apt
# shellcheck disable=SC2086
download_packages s390x "$out/debs" $TARGET_PACKAGES
unpack_packages "$out/debs" "$out/packages"
[ "${1:-}" != --packages-only ] || exit 0

cd "$source"
cmake --preset s390x >/dev/null
cmake --build --preset s390x -- --quiet
ctest --preset s390x -j "$(nproc)" --progress | tail -n 40
