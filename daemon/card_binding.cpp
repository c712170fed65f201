// SPDX-License-Identifier: Apache-2.0
#include "daemon/card_binding.h"

#include <cstdio>
#include <cstring>

#include <alsa/asoundlib.h>

#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "daemon/log_tag.h"
#include "ipc/app_paths.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr char kDriverName[] = "Vexa_Gadget";

// Called after each printed line: when standard output is a file or a pipe, stdio would otherwise
// keep lines until a page is full, which may be never.
void flushPrinted() {
    fflush(stdout);
}

// Fills `info` with the card's description. False, and reported on standard output, on failure.
bool queryCard(int card, snd_ctl_card_info_t* info) {
    char name[32];
    snprintf(name, sizeof name, "hw:%d", card);
    snd_ctl_t* control;
    int rc = snd_ctl_open(&control, name, 0);
    if (rc < 0) {
        printf("control open (%i): %s\n", card, snd_strerror(rc));
        flushPrinted();
        return false;
    }
    rc = snd_ctl_card_info(control, info);
    if (rc < 0) {
        printf("control hardware info (%i): %s\n", card, snd_strerror(rc));
        flushPrinted();
    }
    snd_ctl_close(control);
    return rc >= 0;
}

}  // namespace

int drvCodecCardSearch(const char* driverName, int card) {
    snd_ctl_card_info_t* info;
    snd_ctl_card_info_alloca(&info);
    if (snd_card_next(&card) < 0) {
        return card;
    }
    while (card >= 0) {
        // A prefix is enough: drivers append to the name.
        if (queryCard(card, info) &&
            strncmp(snd_ctl_card_info_get_driver(info), driverName, strlen(driverName)) == 0) {
            return card;
        }
        if (snd_card_next(&card) < 0) {
            puts("snd_card_next");
            flushPrinted();
            return card;
        }
    }
    return -1;
}

int uafBind(UafSrc* src, UafSnk* snk) {
    const int card = drvCodecCardSearch(kDriverName, -1);
    if (card < 0) {
        LOGE("Audio gadget driver is not ready.\n");
        return -1;
    }
    char pcmName[20];
    snprintf(pcmName, sizeof pcmName, "hw:%d", card);
    src->setDevName(kFifoTxPath, pcmName);
    snk->setDevName(kFifoRxPath, pcmName);
    LOGD("UAC Vexa is enabled, using %s\n", pcmName);
    return card;
}

}  // namespace uafd
