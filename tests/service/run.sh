#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Tests of wrxd with clients that nobody here wrote. Needs root (a PAM stack, other users).
#   run.sh BUILD-FOLDER [WORD…]     only cases with one of the words in their name
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:?usage: run.sh BUILD-FOLDER [WORD...]}" && pwd)
shift
for tool in dbus-daemon fprintd-list pamtester setpriv; do
  command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
[ "$(id -u)" -eq 0 ] || { echo "skipped: not root"; exit 77; }
python=/usr/bin/python3  # the one that Debian's modules belong to
"$python" -c 'import dbus, dbusmock, gi' || { echo "skipped: python modules missing"; exit 77; }
export WRX_BUILD=$build WRX_SOURCE=$(cd "$here/../.." && pwd) PYTHONDONTWRITEBYTECODE=1
exec "$python" -u "$here/run.py" "$@"
