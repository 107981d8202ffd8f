#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Makes the template of the message catalogues from the sources, and brings the catalogues up to it.
# With --check nothing is written; it fails when the template or a catalogue is behind or has gaps.
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
common=(--from-code=UTF-8 --language=C++ --add-location=file --sort-by-file --no-wrap)

# The programs' words are English and marked where they stand.
xgettext "${common[@]}" --package-name=wrx5300 --keyword= --keyword=gettext --keyword=N_ \
  --keyword=tr --keyword=tr_n:1,2 --keyword=Failure:2 --output="$work/programs.pot" \
  base/*.cpp frame/*.cpp host/client/*.cpp host/common/*.cpp host/lib/*.cpp
sed -i 's/charset=CHARSET/charset=UTF-8/' "$work/programs.pot"
# The driver's words to the user are Chinese, and nothing else in its sources is.
xgettext "${common[@]}" --extract-all --output="$work/all.pot" operations/*.cpp \
  2>"$work/warnings" || { cat "$work/warnings"; exit 1; }
msggrep --no-wrap --msgid --regexp='[^ -~[:cntrl:]]' "$work/all.pot" --output="$work/driver.pot"

# A piece of a sentence that is put together is never looked up.
msggrep --no-wrap --invert-match --msgid --regexp='^: ' --regexp='^the folder of $' \
  "$work/programs.pot" --output="$work/sentences.pot"

# Without the date, which would make every run differ.
msgcat --no-wrap --use-first "$work/sentences.pot" "$work/driver.pot" |
  sed -e '/^"POT-Creation-Date:/d' \
    -e '1,/^$/{/^# \(SOME\|Copyright\|FIRST\)/d;s/^# This file.*/# Made by po\/update.sh./}' \
    >"$work/wrx5300.pot"

behind=0
cmp -s "$work/wrx5300.pot" po/wrx5300.pot || behind=1
for catalogue in po/*.po; do
  msgmerge --quiet --no-wrap --no-fuzzy-matching --output-file="$work/merged.po" "$catalogue" \
    "$work/wrx5300.pot"
  msgattrib --no-wrap --no-obsolete "$work/merged.po" --output-file="$work/kept.po"
  cmp -s "$work/kept.po" "$catalogue" || behind=1
  [ "${1:-}" = --check ] || cp "$work/kept.po" "$catalogue"
done
[ "${1:-}" = --check ] || cp "$work/wrx5300.pot" po/wrx5300.pot
[ "${1:-}" = --check ] || exit 0
[ "$behind" -eq 0 ] ||
  { echo 'the message catalogues are behind the sources; run po/update.sh'; exit 1; }

# Chinese says everything; English what the driver says, for the rest is English already.
msggrep --msgid --regexp='[^ -~[:cntrl:]]' po/en.po --output="$work/en.po"
for catalogue in po/zh_CN.po "$work/en.po"; do
  if msgfmt --statistics --output=/dev/null "$catalogue" 2>&1 | grep untranslated; then exit 1; fi
done
