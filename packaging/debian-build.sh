#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Builds the Debian packages, and their source package, from a copy of the tree, as a user who is not
# root.
#   debian-build.sh [--arm64] [--check] [--second] OUT
#     --arm64   cross-builds for 64-bit Arm instead, without the source package
#     --check   runs the tests too
#     --second  in another folder, as another user, at another time of another zone, in another
#               language, with another umask and one compiler at a time
#     OUT       the folder that the packages and the build's log are put into
set -euo pipefail
source=$(cd "$(dirname "$0")/.." && pwd)
version=$(sed -n '1s/.*(\(.*\)).*/\1/p' "$source/debian/changelog")

# copy_tree FOLDER: what git has, and what it would take, so that a working tree can be tried.
copy_tree() {
  mkdir -p "$1"
  git -C "$source" ls-files -z --cached --others --exclude-standard --deduplicate |
    (cd "$source" && xargs -0 sh -c 'for f; do [ ! -e "$f" ] || printf "%s\0" "$f"; done' sh) |
    tar -C "$source" --null -T - -c | tar -C "$1" -x
}

# A compiler cache of the packages' own, where the machine has one and the user can reach it. Its
# CCACHE_BASEDIR would change the names in the debug symbols, so the tree has a fixed place instead.
use_cache() {
  local cache=$source/build/packages-ccache tree=$source/build/packages-tree
  command -v ccache >/dev/null && mkdir -p "$cache" && chmod 1777 "$cache" &&
    "${as[@]}" test -w "$cache" || return 0
  rm -rf "$work" "$tree"
  work=$tree
  where+=("PATH=/usr/lib/ccache:$PATH" "CCACHE_DIR=$cache")
}

main() {
  local architecture=amd64 build=full cross=() second='' options=nocheck profiles=nocheck as=()
  while [ $# -gt 1 ]; do
    case $1 in
      --arm64) cross=(-aarm64) architecture=arm64 build=binary ;;
      --check) options='' profiles='' ;;
      --second) second=yes ;;
    esac
    shift
  done
  [ "$architecture" = amd64 ] || profiles=cross,$profiles
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  local out=$1 name=wrx5300-$version user=nobody jobs mask=022 folder
  local where=(TZ=UTC LC_ALL=C.UTF-8 HOME=/nonexistent)
  jobs=$(nproc)
  if [ -n "$second" ]; then
    name=a/longer/way/wrx5300 user=daemon jobs=1 mask=027
    where=(TZ=Pacific/Kiritimati LC_ALL=fr_CH.UTF-8 LANGUAGE=fr HOME=/var/empty)
  fi
  [ "$(id -u)" != 0 ] || as=(setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups)
  [ -n "$second" ] || use_cache
  folder=$work/$name
  mkdir -p "$out"
  copy_tree "$folder"
  [ "$(id -u)" != 0 ] || chown -R "$user:" "$work"
  (
    umask "$mask"
    cd "$folder"
    nice -n 10 "${as[@]}" env "${where[@]}" DEB_BUILD_OPTIONS="parallel=$jobs $options" \
      dpkg-buildpackage --build=$build "${cross[@]}" --build-profiles="$profiles" --no-sign
  ) >"$out/build-$architecture.log" 2>&1 || {
    tail -n 40 "$out/build-$architecture.log"
    return 1
  }
  rm -f "$out"/*_{"$architecture",all}.deb
  find "$(dirname "$folder")" -maxdepth 1 -type f -exec install -m 644 -t "$out" {} +
}

main "$@"
exit
