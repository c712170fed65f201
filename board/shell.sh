# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh
# What board/start --shell runs on the board once the daemon is up.
export TERM=linux
cat <<'TEXT'
The daemon runs; its log is /out/uafd.log. The host's side is commanded through /dev/usb_host, for
example: echo speaker on >/dev/usb_host; cat /proc/usb_host. The app gives the host back what it
plays; "killall uafd-companion" makes room for another. "exit" switches the board off.
TEXT
exec sh
