#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Tests of wrxd with clients that nobody here wrote. Needs root (a PAM stack, other users).
#   run.sh BUILD-FOLDER [OPTION…]     pytest's options: -k WORD only cases with the word in their name
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
WRX_BUILD=$(cd "${1:?usage: run.sh BUILD-FOLDER [OPTION...]}" && pwd)
shift
[ "$(id -u)" -eq 0 ] || { echo "skipped: not root"; exit 77; }
export WRX_BUILD PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=$here/../../host/service/demo
for tool in dbus-daemon fprintd-list pamtester umockdev-wrapper; do
  command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
python=/usr/bin/python3  # the one that Debian's modules belong to
"$python" -c 'import dbus, dbusmock, gi, xdist' || { echo "skipped: python modules missing"; exit 77; }
exec umockdev-wrapper "$python" -m pytest -q -p no:cacheprovider --durations 5 "$@" "$here"
