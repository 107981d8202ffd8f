#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Makes the machine that boots: make-image.sh ARCHITECTURE OUT puts the disk, the kernel and an
# initramfs into the folder OUT. Nothing of this project is on it; a run reuses it as it is.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
arch=$1 out=$2
. "$here/packages.sh"

root=$out/root initramfs=$out/initramfs.root kernel=$out/kernel.root
# What the disk and the root shell need, and the virtual USB bus.
early="virtio_pci virtio_mmio virtio_blk ext4 crc32c_generic"
late="virtio_console vhci-hcd"

# modules_of ROOT NAME…: the files of kernel modules and of those that they need, in loading order.
modules_of() {
  local name
  for name in "${@:2}"; do modprobe -d "$1" -S "$version" --show-depends "$name"; done |
    sed -n 's/^insmod \([^ ]*\).*/\1/p' | awk '!seen[$0]++'
}

unpack_kernel() {
  rm -rf "$kernel"
  mkdir -p "$kernel" "$initramfs"/{bin,dev,mnt,modules}
  dpkg-deb -x "$out"/debs/linux-image-*.deb "$kernel"
  dpkg-deb -x "$out"/debs/busybox-static_*.deb "$initramfs"
  cp "$kernel"/boot/vmlinuz-* "$out/kernel"
  version=$(ls "$kernel/lib/modules")
  depmod -b "$kernel" "$version"
}

# A kernel of many parts, of which the disk's suffice to go on.
make_initramfs() {
  local file number=100
  # shellcheck disable=SC2086
  for file in $(modules_of "$kernel" $early); do
    cp "$file" "$initramfs/modules/$((number++)).ko"
  done
  cat >"$initramfs/init" <<'END'
#!/bin/busybox sh
/bin/busybox mount -t devtmpfs dev /dev
for module in /modules/*; do /bin/busybox insmod $module; done
until /bin/busybox mount -t ext4 /dev/vda /mnt 2>/dev/null; do /bin/busybox usleep 20000; done
/bin/busybox mount -o move /dev /mnt/dev
exec /bin/busybox switch_root /mnt /sbin/init
END
  chmod +x "$initramfs/init"
  (cd "$initramfs" && find . | cpio --quiet -o -H newc -R 0:0) >"$out/initramfs"
}

add_modules() {
  local file
  # shellcheck disable=SC2086
  for file in $(modules_of "$kernel" $early $late); do
    as_root install -D -m 644 "$file" "$root/lib/modules/$version/${file#*/lib/modules/"$version"/}"
  done
  as_root cp "$kernel/lib/modules/$version"/modules.{order,builtin,builtin.modinfo} \
    "$root/lib/modules/$version"
  as_root depmod -b "$root" "$version"
}

# Ann sits at it, Ben is another user; both have their name for a password.
add_users() {
  local name hash
  for name in ann ben; do
    hash=$(perl -e 'print crypt($ARGV[0], q($6$guest$))' $name)
    as_root useradd --prefix "$root" -m -s /bin/bash -p "$hash" $name
  done
  echo 'ann ALL=(ALL) ALL' | as_root tee "$root/etc/sudoers.d/ann" >/dev/null
}

add_settings() {
  as_root cp "$here"/guest/*.service "$root/etc/systemd/system"
  as_root mkdir -p "$root"/etc/systemd/system/multi-user.target.wants "$root/var/log/journal"
  as_root ln -s ../shell.service "$root/etc/systemd/system/multi-user.target.wants/shell.service"
  # The root shell's line is no console, and a machine on trial has no housekeeping to do.
  local unit
  for unit in serial-getty@hvc0.service {apt-daily,apt-daily-upgrade,dpkg-db-backup}.timer; do
    as_root ln -sf /dev/null "$root/etc/systemd/system/$unit"
  done
  echo machine | as_root tee "$root/etc/hostname" >/dev/null
  echo '127.0.0.1 localhost machine' | as_root tee "$root/etc/hosts" >/dev/null
}

as_root rm -rf "$root" "$initramfs"
mkdir -p "$root"
as_root tar -C "$root" -xf "$out/root.tar" --exclude='./dev/*'
unpack_kernel
make_initramfs
add_modules
add_users
add_settings
rm -f "$out/disk"
truncate -s 2G "$out/disk"
as_root mke2fs -q -t ext4 -d "$root" "$out/disk"
as_root rm -rf "$root" "$initramfs" "$kernel"
