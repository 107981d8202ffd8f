#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# What is made from the tree's own tables is as the tables are, and does its work.
#   generated.sh BUILD-FOLDER
set -euo pipefail
build=$1
cd "$(dirname "$0")/../../packaging"
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT

fail() { echo "$*"; exit 1; }

for kind in rules hwdb metainfo; do "$build/bin/wrx-generate-udev" $kind | cmp - udev/60-wrx5300.$kind; done
"$build/bin/wrx-generate-completion" | cmp - completion/wrxctl.bash
! command -v xgettext >/dev/null || ../po/update.sh --check

# The manual tells of every command and option, manual and samples of every key of the driver.
. completion/wrxctl.bash
while read -r word; do
  grep -qF "*$word*" man/wrxctl.1.scd || fail "the manual does not tell of $word"
done < <(grep -oP '^    \["\K[^"]*(?="\]=)|(?<=[ "])--[a-z]+' completion/wrxctl.bash | sort -u | grep -vx -- --help)
for key in Enable $(sed -n 's/.* k\(\w*\)\[\] = "\1";/\1/p' ../records/configuration_keys.h); do
  grep -qh "^\*$key\*=" man/*.conf.5.scd && grep -qh "^$key=" etc/*.conf || fail "nobody tells of $key"
done

# Completion offers what fits where the cursor stands.
while IFS=: read -r line offered; do
  read -ra COMP_WORDS <<<"$line"
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  _wrxctl
  [ "${COMPREPLY[*]}" = "$offered" ] || fail "'$line' is completed by ${COMPREPLY[*]}"
done <<END
wrxctl en:enroll
wrxctl module s:serial slots
wrxctl enroll --n:--name
wrxctl clean --uid 5 --a:--all
wrxctl --json fsck --r:--repair
wrxctl module image --o:--output
wrxctl --db list verify --i:--index
wrxctl list --name:
wrxctl search --uid roo:root
END

# The service is started from where it stands, and a changed configuration stays.
[ -e "$build/bin/wrxd" ] || exit 0
mkdir -p "$stage/etc/biometric-auth"
touch "$stage/etc/biometric-auth/biometric-drivers.conf"
DESTDIR=$stage cmake --install "$build" --prefix /opt/wrx >/dev/null
programs=$(grep -rhoP '^Exec(Start)?=\K\S+' "$stage/opt/wrx")
for program in ${programs:?no unit is installed}; do
  [ -x "$stage$program" ] || fail "there is no $program"
done
[ ! -s "$stage/etc/biometric-auth/biometric-drivers.conf" ] || fail "a changed configuration is lost"
[ -s "$stage/etc/biometric-auth/extra.conf.d/vestrel-m6600.conf" ] || fail "no configuration came"
