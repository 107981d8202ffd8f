#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Runs the fuzzers of a build, as many at once as there are processors. What crashes one, leaks or
# takes too long is kept, and said how to replay.
#
#   run.sh BUILD SECONDS [NAME…]   all of fuzz/seeds unless some are named
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
seconds=$2
shift 2
found=$build/found

# fuzz_one NAME: new inputs go into the build's corpus, which the next run begins with.
fuzz_one() {
  local name=$1 program=$build/fuzz/fuzz_$1 corpus=$build/corpus/$1 log=$found/$1.log words=() input
  mkdir -p "$corpus"
  rm -f "$found/$name"-*
  [ ! -e "$here/dictionaries/$name" ] || words=("-dict=$here/dictionaries/$name")
  if "$program" -max_total_time="$seconds" -timeout=20 -max_len=4096 "${words[@]}" \
    -artifact_prefix="$found/$name-" "$corpus" "$here/seeds/$name" >"$log" 2>&1; then
    echo "ok   $name: $(sed -n 's/^#\([0-9]*\)\s*DONE *\(cov: [0-9]*\).*/\1 inputs, \2/p' "$log")"
    return
  fi
  echo "FAIL $name:"
  grep -av '^#[0-9]' "$log" | tail -n 60 | cut -c 1-200
  for input in "$found/$name"-*; do
    [ -e "$input" ] || continue
    echo "     its input is kept; this replays it:"
    echo "       $program $input"
    echo "     mended, it belongs into fuzz/seeds/$name, which ./dev test replays"
  done
  return 1
}

# Says it in one piece, as another one may be speaking.
in_one_piece() {
  local said ended=0
  said=$(fuzz_one "$1") || ended=1
  echo "$said"
  return $ended
}

mkdir -p "$found"
# In memory, where there is such a place: every input writes files.
scratch=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo /tmp)")
trap 'rm -rf "$scratch"' EXIT
[ $# -gt 0 ] || set -- $(cd "$here/seeds" && ls)
export -f fuzz_one in_one_piece
export here build seconds found TMPDIR=$scratch
printf '%s\n' "$@" | xargs -P "$(nproc)" -n 1 bash -c 'in_one_piece "$0"'
