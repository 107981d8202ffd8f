#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Builds what ships twice, from two copies of the source, in folders of other names and lengths, and
# compares every installed file byte for byte. What came out is also looked at from outside.
set -euo pipefail
source=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export CCACHE_DISABLE=1
# The manual bears a date; who builds packages sets it so.
SOURCE_DATE_EPOCH=$(git -C "$source" log -1 --format=%ct)
export SOURCE_DATE_EPOCH

# build SOURCE BUILD INSTALLED: copies the source to one folder, builds in the next, installs below
# the last.
build() {
  mkdir -p "$1"
  tar -C "$source" --exclude=./build --exclude=./.git -c . | tar -C "$1" -x
  cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
    -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
  cmake --build "$2" -- --quiet
  DESTDIR=$3 cmake --install "$2" >/dev/null
}

build "$work/source" "$work/source/build/release" "$work/first"
build "$work/another copy" "$work/b" "$work/second"

diff -r --no-dereference "$work/first" "$work/second"
mapfile -t files < <(find "$work/first" -name wrx5300.so -o -name 'libbiometric.so.*' -type f \
  -o -path '*bin/wrx*' -o -path '*libexec/wrx*')
"$source/tests/binary/check.py" "${files[@]}"
echo "$(find "$work/first" -type f | wc -l) installed files, bit for bit alike; ${#files[@]} are hardened"
