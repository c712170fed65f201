// SPDX-License-Identifier: Apache-2.0
// Finds the ALSA card that the gadget driver registered and gives both channels their device names.
// Event loop only.
#pragma once

namespace uafd {

class UafSnk;
class UafSrc;

// The lowest index after `card` (-1: of all) of a sound card whose driver name begins with
// `driverName`, or -1 when there is none. A card that cannot be opened or asked is reported on
// standard output at once, where this search alone writes, and skipped.
int drvCodecCardSearch(const char* driverName, int card);

// Names the gadget card's PCM and their FIFO to both channels. Returns the card's index, or -1,
// with an error line (tag "UAFIFO") and the names as they were, when the card is not there.
int uafBind(UafSrc* src, UafSnk* snk);

}  // namespace uafd
