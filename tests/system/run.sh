#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# The system test: cross-builds the project, boots Debian's arm64 kernel with it in qemu and runs
# the scenarios of guest/scenarios.sh there, shared out between two guests. Green only when every
# guest itself says that all its scenarios have passed; otherwise its whole console is shown.
#
#   run.sh [WORD…]          only the scenarios whose names contain these words
#   run.sh --endurance [N]  only the plugging in and out, a thousand or N times
#   run.sh --packages-only  installs and downloads what the run needs, and no more
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$here/../.." && pwd)
build=${WRX_ARM64_BUILD:-$source/build/arm64}
out=$build/system
guests=2
limit=${WRX_GUEST_LIMIT:-300}  # seconds; on a free machine a run takes about a third of it
cycles=100                     # of plugging in and out
if [ "${1:-}" = --endurance ]; then
  cycles=${2:-1000} guests=1
  limit=$((120 + 3 * cycles))
  set -- endurance
fi
. "$source/cmake/packages.sh"

# shellcheck disable=SC2086
install_packages $SYSTEM_PACKAGES $BUILD_PACKAGES
if [ "${1:-}" = --packages-only ]; then
  download_guest "$out/debs"
  exit
fi
[ -n "${WRX_ARM64_BUILD:-}" ] || "$source/cmake/build-arm64.sh"
"$here/make-image.sh" "$build" "$out"

accelerator="-cpu cortex-a57"
if [ "$(uname -m)" = aarch64 ] && [ -w /dev/kvm ]; then accelerator="-accel kvm -cpu host"; fi

# guest N WORD…: boots one of the guests, which takes every scenario whose turn is N. One processor
# each: in emulation, handing work from one to another costs more than it wins.
guest() {
  local number=$1 console=$out/console-$1.log
  shift
  # shellcheck disable=SC2086
  timeout "$limit" qemu-system-aarch64 -machine virt $accelerator -smp 1 -m 512 \
    -nodefaults -nographic -no-reboot -serial stdio \
    -kernel "$out/kernel" -initrd "$out/initramfs" \
    -append "console=ttyAMA0 quiet panic=-1 oops=panic rdinit=/init ENDURED=$cycles \
      -- $number $guests $*" \
    </dev/null 2>&1 | tee "$console" | sed -u -n 's/\r$//; /^\(PASS\|FAIL\|     \)/p' || true
}

# The guest's own last word; without it, it panicked, hung or was cut off.
last_word() { grep -aoE '^[0-9]+ passed, [0-9]+ failed' "$out/console-$1.log" | tail -n 1; }

begun=$(date +%s)
for number in $(seq $guests); do guest "$number" "$@" & done
wait
took=$(($(date +%s) - begun))

passed=0 failed=0
for number in $(seq $guests); do
  read -r good _ bad _ <<<"$(last_word "$number" || echo "0 passed, 1 failed")"
  passed=$((passed + good)) failed=$((failed + bad))
  if [ "$bad" != 0 ]; then
    echo "--- the console of guest $number ---"
    cat "$out/console-$number.log"
  fi
done
[ "$took" -lt "$limit" ] || echo "A guest hung: it was ended after $limit seconds."
echo "$passed passed, $failed failed ($took seconds)"
[ "$passed" -gt 0 ] && [ "$failed" = 0 ]
