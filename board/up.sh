# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh
# What board/start --daemon and --shell run on the board first: on a board with the wire its own card and
# the gadget; the microphone service, an app that gives the host back what it plays, and the daemon, whose
# log is /out/uafd.log. Returns when it takes events, and the host has its card.
if [ -e /proc/usb_wire ]; then
  modprobe usb_board
  gadget=/sys/kernel/config/usb_gadget/board
  mkdir -p $gadget/functions/vexa.0 $gadget/configs/c.1 $gadget/strings/0x409
  echo 0x1d6b >$gadget/idVendor # the kernel's own test ids
  echo 0x0101 >$gadget/idProduct
  echo uafd >$gadget/strings/0x409/manufacturer
  echo Board >$gadget/strings/0x409/product
  ln -s $gadget/functions/vexa.0 $gadget/configs/c.1/
  ls /sys/class/udc >$gadget/UDC
  until [ -e /proc/asound/card2 ]; do usleep 10000; done
fi
mic_capture &
uafd-companion loop &
uafd >/out/uafd.log 2>&1 &
until grep -q 'rxLoop: starting' /out/uafd.log; do usleep 10000; done 2>/dev/null
