# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Sourced by what looks at the page: a browser without a window.

# shellcheck source=tools/packages.sh
source "$(dirname "${BASH_SOURCE[0]}")/../packages.sh"

# browse OPTION... PAGE: Chromium, installed where it is missing, with an empty profile. What it
# complains of, such as the desktop that is not there, shows only when it fails.
browse() {
  install_missing chromium
  local work status=0
  work=$(mktemp -d)
  chromium --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --hide-scrollbars \
    --user-data-dir="$work/profile" "$@" 2>"$work/log" || status=$?
  ((!status)) || cat "$work/log" >&2
  rm -rf "$work"
  return "$status"
}
