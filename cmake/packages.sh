# SPDX-License-Identifier: LGPL-2.1-or-later
# Debian packages of the cross builds and the emulated machines, and how they are got. Sourced.

# Installed on the building machine.
BUILD_PACKAGES="g++-aarch64-linux-gnu qemu-user-static ninja-build cmake pkg-config dpkg-dev python3
  nlohmann-json3-dev libcli11-dev libsdbus-c++-bin
  libusb-1.0-0-dev:arm64 libglib2.0-dev:arm64 libsqlite3-dev:arm64 libfmt-dev:arm64
  libspng-dev:arm64 libsdbus-c++-dev:arm64 libsystemd-dev:arm64 libudev-dev:arm64
  libgtest-dev:arm64 libgmock-dev:arm64"
SYSTEM_PACKAGES="qemu-system-arm cpio"
# Unpacked into the guest, never installed; the kernel comes with them.
GUEST_PACKAGES="busybox-static usbip udev libudev1 libkmod2 libacl1 libcap2 liblzma5 libssl3 libzstd1"

as_root() {
  if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs those of the packages that are missing; NAME:ARCHITECTURE is another machine's.
install_packages() {
  local missing="" package architecture
  for package in "$@"; do
    case $package in *:*)
      architecture=${package##*:}
      dpkg --print-foreign-architectures | grep -qx "$architecture" ||
        as_root dpkg --add-architecture "$architecture" ;;
    esac
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

# download_packages ARCHITECTURE FOLDER PACKAGE…: downloads another machine's packages, once each.
download_packages() {
  local architecture=$1 folder=$2 package
  shift 2
  mkdir -p "$folder"
  for package in "$@"; do
    ls "$folder/$package"_*.deb >/dev/null 2>&1 ||
      (cd "$folder" && apt-get download -q -o APT::Sandbox::User=root "$package:$architecture" >/dev/null)
  done
}

# unpack_packages FOLDER ROOT: unpacks the folder's packages below ROOT, anew when there are others.
unpack_packages() {
  local deb
  [ -e "$2/unpacked" ] && [ "$1" -ot "$2/unpacked" ] && return
  rm -rf "$2"
  mkdir -p "$2"
  for deb in "$1"/*.deb; do dpkg-deb -x "$deb" "$2"; done
  touch "$2/unpacked"
}

# Downloads the guest's packages into the folder $1, once.
download_guest() {
  local kernel
  kernel=$(apt-cache depends linux-image-arm64:arm64 | sed -n 's/^ *Depends: \(linux-image-.*\)/\1/p')
  [ -n "$kernel" ] || { echo "no arm64 kernel package is known here" >&2; return 1; }
  # shellcheck disable=SC2086
  download_packages arm64 "$1" "${kernel%:arm64}" $GUEST_PACKAGES
}
