#!/system/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Becomes the daemon. Its own part is what the app's group, the service's, must be able to open: init
# starts services under the umask 077, and an app would reach neither the FIFOs nor the socket that the
# daemon binds. FIFOs that an app has made stay as they are.
umask 007
for fifo in /tmp/usbAudioFifoRx /tmp/usbAudioFifoTx; do
    [ -p "$fifo" ] || mkfifo "$fifo"
done
exec /system/bin/uafd
