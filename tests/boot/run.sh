#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# The booted machine: a Debian guest with its own systemd, udev, logind, polkit, D-Bus and PAM, on
# which the packages are installed and a finger is used. Green only when every scenario has passed.
#
#   run.sh [--arm64] [WORD…]         only the scenarios whose names contain one of these words
#   run.sh [--arm64] --packages-only installs and downloads what the run needs, and no more
set -euo pipefail
PATH=$PATH:/usr/sbin:/sbin
here=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$here/../.." && pwd)
arch=amd64
if [ "${1:-}" = --arm64 ]; then
  arch=arm64
  shift
fi
out=$source/build/boot/$arch
. "$here/packages.sh"

# shellcheck disable=SC2046,SC2086
install_packages $BOOT_PACKAGES $(emulator_packages $arch)
download_machine $arch "$out"
[ "${1:-}" != --packages-only ] || exit 0

# The packages stay until something newer than they goes into them.
packages=$source/build/packages
built=$(find "$packages" -name "wrxd_*_$arch.deb" 2>/dev/null)
newer() {
  git -C "$source" ls-files -z | grep -zvE '^(tests|bench|fuzz|docs|\.ci)/|^[^/]*\.md$' |
    (cd "$source" && xargs -0 sh -c 'find "$@" -newer "$0" 2>/dev/null' "$built")
}
if [ -z "$built" ] || [ -n "$(newer)" ]; then
  "$source/dev" package --build-only $([ $arch = amd64 ] || echo --$arch)
fi

# The image stays until something that it is made from changes.
made_from=$(cat "$here/make-image.sh" "$here"/guest/*.service "$out/root.packages" <(ls "$out/debs") | sha256sum)
if [ "$made_from" != "$(cat "$out/made-from" 2>/dev/null)" ] || [ ! -e "$out/disk" ]; then
  rm -f "$out/made-from"
  "$here/make-image.sh" $arch "$out"
  echo "$made_from" >"$out/made-from"
fi

# A disk that is a tar file: the packages, a later version of them, and the guest's programs.
rm -rf "$out/run"
mkdir -p "$out"/run/disk/{packages,newer}
cp "$here"/guest/*.py "$out/run/disk"
for deb in "$packages"/*_{$arch,all}.deb; do
  case $deb in *-dbgsym_*) continue ;; esac
  cp "$deb" "$out/run/disk/packages"
  dpkg-deb -R "$deb" "$out/run/later"
  sed -i 's/^Version: .*/&+later/; s/(= [^)]*/&+later/g' "$out/run/later/DEBIAN/control"
  dpkg-deb --root-owner-group -Znone -b "$out/run/later" "$out/run/disk/newer" >/dev/null
  rm -rf "$out/run/later"
done
tar -C "$out/run/disk" -cf "$out/run/disk.tar" .
exec python3 -B "$here/trial.py" $arch "$out" "$@"
