// SPDX-License-Identifier: Apache-2.0
// Puts a freshly opened PCM into the daemon's one stream format and sets its software thresholds.
// Free functions without state: the caller owns the handle, and neither function opens, closes,
// prepares or starts it. Called by each channel's uafStart, on the thread that starts the channel.
//
// Every alsa-lib call is checked. The first one that fails is logged (tag "UAFSND", error level,
// "error at %s@%d: %s=%d\n") and ends the function; the handle stays as that call left it.
#pragma once

#include <alsa/asoundlib.h>

namespace uafd {

// Interleaved signed 16-bit little-endian samples, `channels` to a frame, at `rate` Hz or whatever
// the device grants near it (an inexact rate is only logged, at debug level). `bufferSize` and
// `periodSize` are frames, each granted near the wish; 0 leaves the choice to the driver.
// Returns 0, or the negative code of the call that failed.
int setHwParams(snd_pcm_t* pcm, snd_pcm_uframes_t bufferSize, snd_pcm_uframes_t periodSize,
                unsigned channels, unsigned rate);

// Thresholds in frames: `startThreshold` queued frames start a playback stream, `stopThreshold`
// frames available stop it as an xrun, `availMin` frames available end a wait.
// Returns 0, or the negative code of the call that failed.
int setSwParams(snd_pcm_t* pcm, snd_pcm_uframes_t startThreshold, snd_pcm_uframes_t stopThreshold,
                snd_pcm_uframes_t availMin);

}  // namespace uafd
