# SPDX-License-Identifier: LGPL-2.1-or-later
# Debian packages of the booted machine, and how they are got. Sourced by the scripts beside it.
. "$(dirname "${BASH_SOURCE[0]}")/../../cmake/packages.sh"

# Installed on the building machine, beside the emulator.
BOOT_PACKAGES="mmdebstrap e2fsprogs kmod cpio python3 passwd"
emulator_packages() {
  case $1 in
    amd64) echo qemu-system-x86 ;;
    arm64) echo qemu-system-arm qemu-user-static ;;
  esac
}
# The guest: what a machine with log-in by finger has, what our packages depend on, and what the
# scenarios look with.
MACHINE_PACKAGES="systemd systemd-sysv udev libpam-systemd dbus polkitd sudo login passwd kmod
  fprintd libpam-fprintd ucf debconf
  libfmt9 libspng0 libsqlite3-0 libsdbus-c++1 libusb-1.0-0 libglib2.0-0
  systemd-coredump vlock libglib2.0-bin procps python3 python3-dbus"
# Unpacked, never installed: a kernel's own installation would make an initramfs, by far the longest
# step of all in emulation.
UNPACKED_PACKAGES="busybox-static"

# The building machine's own Debian sources, a line each.
debian_sources() {
  apt-get indextargets --format 'deb $(REPO_URI) $(CODENAME) $(COMPONENT)' \
    "Created-By: Packages" "Origin: Debian" | sort -u
}

# download_kernel ARCHITECTURE FOLDER: the newest kernel, and a shell for the initramfs.
download_kernel() {
  local kernel
  kernel=$(apt-cache depends "linux-image-$1:$1" | sed -n 's/^ *Depends: \(linux-image-.*\)/\1/p')
  [ -n "$kernel" ] || { echo "no $1 kernel package is known here" >&2; return 1; }
  # One kernel, the newest.
  find "$2" -name 'linux-image-*' ! -name "${kernel%:*}_*" -delete 2>/dev/null || true
  # shellcheck disable=SC2086
  download_packages "$1" "$2" "${kernel%:*}" $UNPACKED_PACKAGES
}

# emulated ARCHITECTURE COMMAND…: runs it where the kernel can start that architecture's programs.
emulated() {
  local entry=/proc/sys/fs/binfmt_misc/qemu-aarch64 code=0 ours=
  if [ "$1" = arm64 ] && [ "$(dpkg --print-architecture)" = amd64 ] && [ ! -e $entry ]; then
    [ -e ${entry%/*}/register ] || as_root mount -t binfmt_misc binfmt_misc ${entry%/*}
    as_root sh -c "cat /usr/lib/binfmt.d/qemu-aarch64.conf >${entry%/*}/register"
    ours=yes
  fi
  shift
  "$@" || code=$?
  [ -z "$ours" ] || as_root sh -c "echo -1 >$entry"
  return $code
}

# download_machine ARCHITECTURE FOLDER: the guest as the archive has it, in FOLDER/root.tar; anew
# when it is to have other packages.
download_machine() {
  local wanted
  if ! { dpkg --print-architecture && dpkg --print-foreign-architectures; } | grep -qx "$1"; then
    as_root dpkg --add-architecture "$1"
    as_root apt-get update -qq
  fi
  wanted=$(echo $MACHINE_PACKAGES)
  mkdir -p "$2"
  download_kernel "$1" "$2/debs"
  [ "$wanted" = "$(cat "$2/root.packages" 2>/dev/null)" ] && [ -e "$2/root.tar" ] && return
  echo "making the $1 guest from packages"
  debian_sources >"$2/sources.list"
  rm -f "$2/root.packages"
  emulated "$1" as_root mmdebstrap --quiet --variant=minbase --architectures="$1" \
    --include="${wanted// /,}" --aptopt='APT::Install-Recommends "false"' \
    --dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-exclude=/usr/share/locale/*' \
    --dpkgopt='path-exclude=/usr/share/man/*' \
    bookworm "$2/root.tar" "$2/sources.list"
  echo "$wanted" >"$2/root.packages"
}
