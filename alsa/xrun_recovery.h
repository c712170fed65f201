// SPDX-License-Identifier: Apache-2.0
// Brings a PCM back after a transfer or a wait reported an xrun or a suspend: the only place where
// the daemon prepares or resumes a PCM after a fault. Called on channel threads, each with its own
// PCM; no state is shared.
#pragma once

#include <alsa/asoundlib.h>

namespace uafd {

// `err` is the negative code of the failed call: -EPIPE (an overrun or underrun) or -ESTRPIPE (a
// suspend). A suspended device is asked to resume, once a second while it answers -EAGAIN, for at
// most six seconds, during which the calling thread is blocked: it has nothing else to do
// meanwhile. Whatever does not resume is prepared.
//
// Returns 0 when the PCM may be used again (a capture PCM must then be started again by its user),
// the negative code of a failed prepare, or `err` itself, without touching the PCM, when it is
// neither of the two. Logs every step, failures included, at debug level under the tag "UAFSND";
// the caller logs what a failure means.
int xrun_recovery(snd_pcm_t* pcm, int err);

}  // namespace uafd
