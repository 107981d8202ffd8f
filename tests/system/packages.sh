# SPDX-License-Identifier: LGPL-2.1-or-later
# Debian packages of the Arm build and the system test, and how they are got. Sourced by the
# scripts beside it.

# Installed on the building machine.
BUILD_PACKAGES="g++-aarch64-linux-gnu qemu-user-static ninja-build cmake pkg-config dpkg-dev
  nlohmann-json3-dev libcli11-dev
  libusb-1.0-0-dev:arm64 libglib2.0-dev:arm64 libsqlite3-dev:arm64 libfmt-dev:arm64
  libgtest-dev:arm64 libgmock-dev:arm64"
SYSTEM_PACKAGES="qemu-system-arm cpio"
# Unpacked into the guest, never installed; the kernel comes with them.
GUEST_PACKAGES="busybox-static usbip udev libudev1 libkmod2 libacl1 libcap2 liblzma5 libssl3 libzstd1"

as_root() {
  if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs those of the packages that are missing.
install_packages() {
  local missing="" package
  dpkg --print-foreign-architectures | grep -qx arm64 || as_root dpkg --add-architecture arm64
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing="$missing $package"
  done
  [ -z "$missing" ] && return
  echo "installing:$missing"
  as_root apt-get update -qq
  # shellcheck disable=SC2086
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends $missing >/dev/null
}

# Downloads the guest's packages into the folder $1, once.
download_guest() {
  local kernel package
  kernel=$(apt-cache depends linux-image-arm64:arm64 | sed -n 's/^ *Depends: \(linux-image-.*\)/\1/p')
  [ -n "$kernel" ] || { echo "no arm64 kernel package is known here" >&2; return 1; }
  mkdir -p "$1"
  for package in "$kernel" $GUEST_PACKAGES; do
    ls "$1/${package%:arm64}"_*.deb >/dev/null 2>&1 ||
      (cd "$1" && apt-get download -q -o APT::Sandbox::User=root "${package%:arm64}:arm64" >/dev/null)
  done
}
