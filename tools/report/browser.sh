# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# To be sourced by scripts that look at the page: a browser without a window.

# shellcheck source=tools/packages.sh
source "$(dirname "${BASH_SOURCE[0]}")/../packages.sh"

# browse OPTION... PAGE: runs Chromium, which it installs if necessary, with an empty profile. Its
# messages, for example about a missing desktop, show only when it fails.
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
