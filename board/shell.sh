# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh
# What board/start --shell runs on the board once the daemon is up.
export TERM=linux
echo "The daemon runs; its log is /out/uafd.log."
if [ -e /proc/usb_wire ]; then
  cat <<'TEXT'
The host plays and records on hw:2 (aplay -D plughw:2 FILE, amixer -c 2); cable and bus are commanded
through /dev/usb_wire, for example: echo unplug >/dev/usb_wire; cat /proc/usb_wire. The app gives the
TEXT
else
  cat <<'TEXT'
The host's side is commanded through /dev/usb_host, for
example: echo speaker on >/dev/usb_host; cat /proc/usb_host. The app gives the
TEXT
fi
cat <<'TEXT'
host back what it plays; "killall uafd-companion" makes room for another. "exit" switches the board off.
TEXT
exec sh
