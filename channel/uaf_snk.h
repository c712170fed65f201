// SPDX-License-Identifier: Apache-2.0
// The sink channel: moves the USB host's speaker audio to the companion app. The worker captures
// mono periods of 5 ms from the gadget card, doubles each sample to stereo and writes them into the
// app's FIFO. Everything but uafStart runs on the worker thread; no lock is taken here. Logs under
// the tag "UAFSNK".
#pragma once

#include <cstdint>
#include <memory>

#include "channel/capture_sync.h"
#include "channel/uaf_ch.h"

namespace uafd {

class UafSnk : public UafCh {
  public:
    UafSnk();
    // Closes neither the PCM nor the FIFO; uafStop does.
    ~UafSnk() override;

    void uafLoop() override;
    // 0, -1 without memory, or the negative ALSA code of the step that failed; a failure leaves the
    // PCM as it is, for the next start to close. The FIFO is opened by the first write.
    int uafStart() override;
    int uafStop() override;

    // The start synchronisation, see channel/capture_sync.h.
    static int64_t micCaptureTimestamp() { return uafd::micCaptureTimestamp(); }
    static int synchStartup(int frames, SynchStartupState* state) {
        return uafd::synchStartup(frames, state);
    }

  private:
    int openPcm();
    bool restartIfStopped();
    int pcmRead();
    bool dropBacklog();
    int sndRead();
    int fifoWrite();
    void clearPeriod();

    // One period: read into the first half as 240 mono samples, then expanded in place to
    // 240 x 2. Allocated by the first start.
    std::unique_ptr<int16_t[]> pcmBuf;
};

}  // namespace uafd
