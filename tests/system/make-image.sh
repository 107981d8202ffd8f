#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Makes the guest: make-image.sh BUILD OUT puts the kernel and an initramfs into the folder OUT,
# from the arm64 build in BUILD and Debian's arm64 packages in OUT/debs.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$1 out=$2
. "$here/../../cmake/packages.sh"

packages=$out/packages root=$out/root
triplet=aarch64-linux-gnu

copy_programs() {
  mkdir -p "$root"/{bin,dev,proc,sys,run,tmp,root,usr/lib,etc,var}
  ln -s usr/lib "$root/lib"
  ln -s ../run "$root/var/run"
  DESTDIR=$root cmake --install "$build" --strip >"$out/install.log"
  # The rule allows autosuspend by itself; what the scenarios read must be the driver's doing.
  rm -f "$root"/usr/lib/udev/rules.d/*wrx5300*.rules
  cp "$packages"/bin/{busybox,udevadm} "$packages/usr/sbin/usbip" "$root/bin/"
  ln -s ../bin/udevadm "$root/bin/systemd-udevd"
  cp "$build"/bin/wrx-session* "$root/usr/bin/"
  cp "$here"/guest/* "$root/"
  chmod +x "$root/init"
  printf 'root:x:0:0:root:/root:/bin/sh\nann:x:1000:1000::/:/bin/sh\n' >"$root/etc/passwd"
}

copy_modules() {
  local name
  for name in usb-common usbcore usbip-core vhci-hcd usbmon; do
    find "$packages/lib/modules" -name "$name.ko" -exec cp {} "$root/usr/lib/" \;
    [ -e "$root/usr/lib/$name.ko" ] || { echo "the kernel package has no $name" >&2; return 1; }
  done
}

# Every library that a file of the guest needs, and those that these need.
copy_libraries() {
  local more=1 file library found
  local places="$packages/lib/$triplet $packages/usr/lib/$triplet /lib/$triplet /usr/lib/$triplet"
  places="$places /usr/$triplet/lib"
  mkdir -p "$root/usr/lib/$triplet"
  while [ $more = 1 ]; do
    more=0
    for library in $(find "$root/bin" "$root/usr" -type f -print0 |
      xargs -0 "$triplet-readelf" -d 2>/dev/null | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | sort -u); do
      [ -e "$root/usr/lib/$triplet/$library" ] && continue
      [ -e "$root/usr/lib/$triplet/wrx5300/$library" ] && continue
      # shellcheck disable=SC2086
      found=$(find $places -maxdepth 1 -name "$library" 2>/dev/null | head -n 1)
      [ -n "$found" ] || { echo "no arm64 library $library" >&2; return 1; }
      cp -L "$found" "$root/usr/lib/$triplet/"
      more=1
    done
  done
  ln -sf "$triplet/ld-linux-aarch64.so.1" "$root/usr/lib/ld-linux-aarch64.so.1"
}

download_guest "$out/debs"
unpack_packages "$out/debs" "$packages"
rm -rf "$root"
copy_programs
copy_modules
copy_libraries
cp "$packages"/boot/vmlinuz-* "$out/kernel"
(cd "$root" && find . | cpio --quiet -o -H newc -R 0:0) >"$out/initramfs"
