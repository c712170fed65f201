// SPDX-License-Identifier: Apache-2.0
// The control interface of the fake alsa-lib: sound cards and their drivers' names.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/support/fake_alsa.h"
#include "tests/support/fake_alsa_call.h"

struct _snd_ctl {
    fake_alsa::Card card;
};

struct _snd_ctl_card_info {
    char driver[32];
};

namespace {

std::vector<fake_alsa::Card>& cards() {
    static auto* const all = new std::vector<fake_alsa::Card>;
    return *all;
}

int openControls = 0;

std::string nameOf(const fake_alsa::Card& card) {
    return "hw:" + std::to_string(card.index);
}

int openControl(snd_ctl_t** control, const char* name) {
    const fake_alsa::Guard guard(fake_alsa::lock());
    for (const fake_alsa::Card& card : cards()) {
        if (nameOf(card) == name && card.openResult >= 0) {
            ++openControls;
            *control = new snd_ctl_t{card};
            return 0;
        }
        if (nameOf(card) == name) {
            return card.openResult;
        }
    }
    return -ENOENT;
}

}  // namespace

namespace fake_alsa {

void setCards(const std::vector<Card>& all) {
    const Guard guard(lock());
    cards() = all;
}

int controlsOpen() {
    const Guard guard(lock());
    return openControls;
}

void resetCards() {
    const Guard guard(lock());
    cards().clear();
    openControls = 0;
}

}  // namespace fake_alsa

using fake_alsa::answer;

extern "C" {

int snd_card_next(int* card) {
    return answer("snd_card_next", std::to_string(*card), [card] {
        const fake_alsa::Guard guard(fake_alsa::lock());
        const auto next = std::find_if(cards().begin(), cards().end(),
                                       [card](const auto& other) { return other.index > *card; });
        *card = next != cards().end() ? next->index : -1;
        return 0;
    });
}

int snd_ctl_open(snd_ctl_t** control, const char* name, int mode) {
    return answer("snd_ctl_open", name + (", " + std::to_string(mode)),
                  [&] { return openControl(control, name); });
}

int snd_ctl_close(snd_ctl_t* control) {
    fake_alsa::record("snd_ctl_close", nameOf(control->card));
    const fake_alsa::Guard guard(fake_alsa::lock());
    --openControls;
    delete control;
    return 0;
}

int snd_ctl_card_info(snd_ctl_t* control, snd_ctl_card_info_t* info) {
    return answer("snd_ctl_card_info", nameOf(control->card) + fake_alsa::fillOf(info), [&] {
        // Filled in even on failure, when the caller must not use it.
        strncpy(info->driver, control->card.driver.c_str(), sizeof info->driver - 1);
        return control->card.infoResult;
    });
}

size_t snd_ctl_card_info_sizeof() {
    return sizeof(snd_ctl_card_info_t);
}

const char* snd_ctl_card_info_get_driver(const snd_ctl_card_info_t* info) {
    fake_alsa::record("snd_ctl_card_info_get_driver", info->driver);
    return info->driver;
}

}  // extern "C"
