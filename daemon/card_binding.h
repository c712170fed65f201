// SPDX-License-Identifier: Apache-2.0
// Finds the ALSA card that the gadget driver registered and gives both channels their device names.
// Event loop only.
#pragma once

namespace uafd {

class UafSnk;
class UafSrc;

// The lowest index after `card` (-1: of all) of a sound card whose driver name begins with
// `driverName`, or -1 when there is none. A card that cannot be opened or queried is skipped and
// reported at once on standard output, which nothing else in the daemon uses.
int drvCodecCardSearch(const char* driverName, int card);

// Gives each channel the names of the gadget card's PCM and of its FIFO. Returns the card's index.
// When there is no card, returns -1 and leaves the names as they are. Logs either result under the
// tag "UAFIFO", debug or error.
int uafBind(UafSrc* src, UafSnk* snk);

}  // namespace uafd
