// SPDX-License-Identifier: Apache-2.0
// The thread of a stream, and what it shares with the calls of the program. Internal. The lock is
// held wherever a stream is given.
#pragma once

#include "stream.h"

// Takes the stream.
void* uafd_stream_thread(void* argument);

int64_t uafd_stream_now(void);
// Frames with which the program can do something: to be taken, or room for them.
long uafd_stream_available(const uafd_stream* stream);
// Makes `ready` readable, or not.
void uafd_stream_signal(uafd_stream* stream);
