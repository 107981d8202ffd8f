#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Builds the Debian packages into build/packages, as a user who is not root.
#   debian-build.sh [--arm64] [--check] [--second] OUT
#     --arm64   cross-builds for 64-bit Arm instead
#     --check   runs the tests too
#     --second  in another folder, as another user, at another time of another zone, in another
#               language, with another umask and one compiler at a time
#     OUT       the folder that the packages and the build's log are put into
set -euo pipefail
source=$(cd "$(dirname "$0")/.." && pwd)
options="nocheck" profiles="nocheck" cross=() architecture=amd64 second=
while [ $# -gt 1 ]; do
  case $1 in
    --arm64) cross=(-aarm64) architecture=arm64 ;;
    --check) options="" profiles="" ;;
    --second) second=yes ;;
  esac
  shift
done
[ "$architecture" = amd64 ] || profiles="cross,$profiles"
out=$1
version=$(sed -n '1s/.*(\(.*\)).*/\1/p' "$source/debian/changelog")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
folder=$work/wrx5300-$version user=nobody where=(TZ=UTC LC_ALL=C.UTF-8 HOME=/nonexistent)
jobs=$(nproc) mask=022
if [ -n "$second" ]; then
  folder=$work/a/longer/way/wrx5300 user=daemon jobs=1 mask=027
  where=(TZ=Pacific/Kiritimati LC_ALL=fr_CH.UTF-8 LANGUAGE=fr HOME=/var/empty)
fi
mkdir -p "$folder" "$out"
# What git has and what it would take, so that a working tree can be tried.
git -C "$source" ls-files -z --cached --others --exclude-standard --deduplicate |
  (cd "$source" && xargs -0 sh -c 'for f; do [ ! -e "$f" ] || printf "%s\0" "$f"; done' sh) |
  tar -C "$source" --null -T - -c | tar -C "$folder" -x
as=()
if [ "$(id -u)" = 0 ]; then
  chown -R "$user:" "$work"
  as=(setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups)
fi

# A compiler cache of its own, where the machine has one and the user can reach it.
cache=$source/build/packages-ccache
if [ -z "$second" ] && command -v ccache >/dev/null && mkdir -p "$cache" && chmod 1777 "$cache" &&
  "${as[@]}" test -w "$cache"; then
  where+=("PATH=/usr/lib/ccache:$PATH" "CCACHE_DIR=$cache" "CCACHE_BASEDIR=$folder" CCACHE_NOHASHDIR=1)
fi
(
  umask "$mask"
  cd "$folder"
  nice -n 10 "${as[@]}" env "${where[@]}" DEB_BUILD_OPTIONS="parallel=$jobs $options" \
    dpkg-buildpackage --build=binary "${cross[@]}" --build-profiles="$profiles" --no-sign
) >"$out/build-$architecture.log" 2>&1 || {
  tail -n 40 "$out/build-$architecture.log"
  exit 1
}
rm -f "$out"/*_"$architecture".deb
mv "$(dirname "$folder")"/*.{deb,changes,buildinfo} "$out"
