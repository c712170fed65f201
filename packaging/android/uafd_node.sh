#!/system/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Makes the node of the gadget control device where no earlier start has. Its service runs it with the
# group that the daemon has, so that the node needs no chown.
[ -c /dev/uac_user ] || exec mknod -m 0660 /dev/uac_user c 122 0
