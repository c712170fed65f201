# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh
# What board/start --daemon and --shell run on the board first: the microphone service, an app that gives
# the host back what it plays, and the daemon, whose log is /out/uafd.log. Returns when it takes events.
mic_capture &
uafd-companion loop &
uafd >/out/uafd.log 2>&1 &
until grep -q 'rxLoop: starting' /out/uafd.log; do usleep 10000; done 2>/dev/null
