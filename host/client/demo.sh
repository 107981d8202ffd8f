#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# One finger's whole life on the simulated module, with the real plug-in and the real client:
# enrolled, refused as a duplicate, verified, identified, searched, listed, cleaned; then the
# module's firmware is upgraded. Every step's exit code and, where it counts, its words are checked.
#
#   demo.sh BUILD_FOLDER    what was built there
#   demo.sh /usr            what is installed, as root; it changes the configuration in /etc
set -euo pipefail

build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LC_ALL=C.UTF-8 LANGUAGE=

export XDG_CONFIG_HOME=$work XDG_DATA_HOME=$work XDG_STATE_HOME=$work
# A press that comes before the driver has started is taken for the finger that switched the machine
# on. Where packages are tried the machine may be busy, and the driver gets more time.
patience=
[ -e "$build/lib/wrx5300-scratch.so" ] || patience='set press-gap 3s; '
wrxctl() {
  local last=${*: -1}
  case $last in press*) set -- "${@:1:$#-1}" "$patience$last" ;; esac
  "$build/bin/wrxctl" "$@" --db "$work/features.db" --templates "$work/module" \
    --trace "$work/trace"
}

# step EXPECTED_EXIT_CODE EXPECTED_WORDS ARGUMENTS…
step() {
  local expected=$1 words=$2 code=0
  shift 2
  printf '\n$ wrxctl'
  for word in "$@"; do
    word=${word#"$build/lib/"}
    case $word in
      *[[:space:]\;]*) printf " '%s'" "$word" ;;
      *) printf ' %s' "$word" ;;
    esac
  done
  printf '\n'
  wrxctl "$@" 2>&1 | tee "$work/output" || code=${PIPESTATUS[0]}
  if [ "$code" -ne "$expected" ] || ! grep -qF -- "$words" "$work/output"; then
    printf '\nThe demo failed: exit code %s (expected %s), expected to read "%s".\n' \
      "$code" "$expected" "$words"
    printf 'The last lines of the driver:\n'
    tail -n 20 "$work/trace"
    exit 1
  fi
}

step 0 'Found TRV WRX5300' discover --simulate
step 0 '图像质量差,请再触摸指纹一次.' enroll --name 'right thumb' \
  --simulate 'press thumb; press thumb x5; press thumb smudged; press thumb x7'
step 5 '按压的指纹与已有的指纹模版重复.' enroll --index 1 --simulate 'press thumb'
step 0 'matches' verify --simulate 'press thumb'
step 1 'does not match' verify --simulate 'press middle'
step 0 'This is user' identify --simulate 'press thumb'
step 0 'module slot 20' search --simulate 'press thumb'
step 0 '1 fingerprint stored' list --simulate
step 0 'Deleted 1 fingerprint' clean --all --simulate
step 0 '0 fingerprints stored' list --simulate

if grep '^slot ' "$work/module"; then
  echo 'The demo failed: the module still holds a template that no record knows.'
  exit 1
fi
printf '\nThe module holds no template and the database no record: they agree.\n'

# The upgrade needs an image and its configuration where the driver looks for them: a twin of the
# plug-in has its system paths below the build folder. It is not installed.
system=$build/scratch/etc
scratch=(--plugin "$build/lib/wrx5300-scratch.so" --simulate)
if [ ! -e "$build/lib/wrx5300-scratch.so" ]; then
  system=/etc
  scratch=(--simulate)
fi
mkdir -p "$system/biometric-auth/extra.conf.d" "$system/wrx6600/extra"
printf '[BASIC_PARAM]\nUpgradeFlag=1\nUpgradeMode=SMART_UPGRADE\n' \
  >"$system/biometric-auth/extra.conf.d/vestrel-m6600.conf"
echo ACM32FP_V123 >"$system/wrx6600/extra/trv_fw.conf"
{
  printf 'acm32_btl_zelta_pc_000123'
  head -c 61000 /dev/zero | tr '\0' 'f'
} >"$system/wrx6600/extra/ACM32FP_V123.bin"
step 0 'The next start upgrades' firmware "${scratch[@]}"
step 0 'upgraded the module' init "${scratch[@]}"
step 0 '0 upgrades left' firmware "${scratch[@]}"
printf '\nThe demo is over.\n'
