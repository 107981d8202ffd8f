#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Shows a log-in by finger through PAM, on the simulated module, and what happens on the wire.
# Needs root for the PAM stack, which is removed again.
#   login-demo.sh BUILD-FOLDER
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
WRX_BUILD=$(cd "${1:?usage: login-demo.sh BUILD-FOLDER}" && pwd)
export WRX_BUILD PYTHONDONTWRITEBYTECODE=1
exec /usr/bin/python3 -u "$here/login_demo.py"
