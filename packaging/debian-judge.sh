#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Judges the Debian packages in build/packages, a line each, and fails when one of the judges does.
# What each had to say lies in build/package-judges.
#   debian-judge.sh [--arm64]
#     those of another architecture are neither installed nor tried
set -uo pipefail
source=$(cd "$(dirname "$0")/.." && pwd)
architecture=amd64 cross=()
[ "${1:-}" != --arm64 ] || { architecture=arm64 cross=(--arm64); }
packages=$source/build/packages
out=$source/build/package-judges
base=$out/base.tar.gz
mkdir -p "$out"
version=$(sed -n '1s/.*(\(.*\)).*/\1/p' "$source/debian/changelog")
shopt -s nullglob
# Those that are installed, without their debug symbols.
debs=()
for deb in "$packages"/*_"$version"_{"$architecture",all}.deb; do
  case $deb in *-dbgsym_*) ;; *) debs+=("$deb") ;; esac
done
[ ${#debs[@]} = 5 ] || { echo "not the five packages in $packages" >&2; exit 1; }

# The root file system that packages are tried in has all that they depend on, so that only they come
# and go, and no network is needed.
BASE_PACKAGES=(
  systemd dbus debconf fprintd libpam-fprintd eatmydata
  libfmt9 libglib2.0-0 libsdbus-c++1 libspng0 libsqlite3-0 libusb-1.0-0
  apt-utils dpkg-dev pamtester python3-dbus python3-dbusmock python3-gi python3-jsonschema
  python3-pil python3-pytest python3-pytest-xdist g++
  umockdev gir1.2-umockdev-1.0
)

as_root() {
  if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

make_base() {
  local wanted="${BASE_PACKAGES[*]}"
  [ "$(cat "$out/base.packages" 2>/dev/null)" != "$wanted" ] || [ ! -e "$base" ] || return 0
  # Debian's archives, as this machine has them.
  apt-get indextargets --format '$(ORIGIN)|$(CREATED_BY)|deb $(REPO_URI) $(RELEASE) $(COMPONENT)' |
    sed -n 's/^Debian|Packages|//p' | sort -u >"$out/sources.list"
  as_root nice -n 10 mmdebstrap --variant=minbase --include="${wanted// /,}" \
    --customize-hook='rm -f "$1"/etc/apt/sources.list "$1"/etc/apt/sources.list.d/*' \
    --customize-hook='mkdir -p "$1"/usr/share/man/man1 "$1"/usr/share/doc' \
    "$(. /etc/os-release && echo "$VERSION_CODENAME")" "$base" "$out/sources.list" &&
    echo "$wanted" >"$out/base.packages"
}

# The same packages under an older number, in a folder that apt can install from.
make_previous() {
  local deb
  rm -rf "$out/previous" && mkdir -p "$out/previous/packages"
  for deb in "${debs[@]}"; do
    rm -rf "$out/previous/one"
    dpkg-deb -R "$deb" "$out/previous/one" || return 1
    sed -i "s/(= $version)/(= $version~previous)/g; s/^Version: .*/Version: $version~previous/" \
      "$out/previous/one/DEBIAN/control"
    dpkg-deb --root-owner-group -Znone -b "$out/previous/one" "$out/previous/packages" || return 1
  done
  rm -rf "$out/previous/one"
  (cd "$out/previous/packages" && dpkg-scanpackages -m . >Packages)
}

judge_lintian() {
  lintian --allow-root -EviIL +pedantic --fail-on error,warning,info \
    "$packages/wrx5300_${version}_$architecture.changes"
}

judge_blhc() {
  local found
  found=$(blhc --all "$packages/build-$architecture.log") && [ -z "$found" ] || { echo "$found"; false; }
}

judge_reproducible() {
  local deb
  "$source/packaging/debian-build.sh" "${cross[@]}" --second "$out/second" || return 1
  for deb in "$packages"/*_"$version"_{"$architecture",all}.deb; do
    cmp "$deb" "$out/second/$(basename "$deb")" || return 1
  done
}

judge_piuparts() {
  make_base && make_previous || return 1
  mkdir -p "$out/hooks"
  printf '#!/bin/sh\necho "deb [trusted=yes] file:%s ./" >/etc/apt/sources.list.d/previous.list\n' \
    "$out/previous/packages" >"$out/hooks/post_chroot_unpack_previous"
  chmod 755 "$out/hooks/post_chroot_unpack_previous"
  # The folder is debconf's own, for asking before the installation.
  as_root nice -n 10 piuparts -b "$base" -d "$(. /etc/os-release && echo "$VERSION_CODENAME")" \
    --keep-sources-list --fail-on-broken-symlinks '--ignore-regex=/var/cache/debconf/tmp.ci/?' \
    --scriptsdir="$out/hooks" --bindmount="$out/previous/packages" "${debs[@]}" &&
    grep -q 'PASS: Installation, upgrade and purging' "$out/piuparts.log"
}

# in_a_root SCRIPT ARGUMENT...: runs the script, which finds a fresh root file system in $root.
in_a_root() {
  # shellcheck disable=SC2016
  as_root unshare --mount --pid --fork bash -c '
    set -e
    root=$(mktemp -d)
    trap "cd /; umount -R $root/proc $root/dev $root/run; rm -rf --one-file-system $root" EXIT
    tar -C $root -xf "$1"
    mount -t proc proc $root/proc
    mount --rbind /dev $root/dev
    mount -t tmpfs tmpfs $root/run
    script=$2
    shift 2
    eval "$script"
  ' sh "$base" "$@"
}

# The tests that come with the packages, in a root of their own with the packages installed.
judge_autopkgtest() {
  make_base || return 1
  as_root rm -rf "$out/autopkgtest" "$out/tree"
  mkdir -p "$out/tree"
  git -C "$source" ls-files -z -- . ':!fuzz' |
    tar -C "$source" --null -T - -c | tar -C "$out/tree" -x || return 1
  in_a_root 'nice -n 10 autopkgtest "$@" -- chroot "$root"' "${debs[@]}" "$out/tree/" \
    --no-built-binaries --output-dir "$out/autopkgtest"
}

# What the administrator changed and whose fingers there are: an upgrade keeps both and asks nothing;
# a purge forgets the fingers only when told to.
judge_kept() {
  make_base && make_previous || return 1
  # shellcheck disable=SC2016
  in_a_root '
    mkdir "$root/new" "$root/old"
    cp "$1"/*.deb "$root/old"
    shift
    cp "$@" "$root/new"
    DEBIAN_FRONTEND=noninteractive chroot "$root" eatmydata sh -exc "
      extra=/etc/biometric-auth/extra.conf.d/vestrel-m6600.conf
      shared=/etc/biometric-auth/biometric-drivers.conf
      state=/var/lib/wrxd
      dpkg -i /old/*.deb
      sed -i s/^UpgradeFlag=0/UpgradeFlag=7/ \$extra
      echo [another] >>\$shared
      mkdir \$state
      touch \$state/features.db \$state/trace.log
      dpkg -i /new/*.deb </dev/null
      grep UpgradeFlag=7 \$extra
      dpkg -P wrxd wrx5300-tools wrx5300-driver wrx5300-common
      test -e \$state/features.db -a ! -e \$state/trace.log -a ! -e \$extra -a -e \$shared
      dpkg -i /new/*.deb
      echo wrxd wrxd/forget-fingers boolean true | debconf-set-selections
      dpkg -P wrxd
      test ! -e \$state"
  ' "$out/previous/packages" "${debs[@]}"
}

failed=0
# verdict NAME FUNCTION: a line.
verdict() {
  local begun=$SECONDS word=ok
  "$2" >"$out/$1.log" 2>&1 || { word=FAILED failed=$((failed + 1)); }
  printf '%-6s %4d s  %s (%s)\n' "$word" $((SECONDS - begun)) "$1" "$architecture"
  [ "$word" = ok ] || tail -n 25 "$out/$1.log"
}

main() {
  verdict lintian judge_lintian
  verdict blhc judge_blhc
  verdict reproducible judge_reproducible
  if [ "$architecture" = "$(dpkg --print-architecture)" ]; then
    verdict piuparts judge_piuparts
    verdict kept judge_kept
    verdict autopkgtest judge_autopkgtest
  fi
  [ "$failed" = 0 ]
}

main
exit
