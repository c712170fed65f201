// SPDX-License-Identifier: Apache-2.0
// The fake alsa-lib without its PCMs: the record, the script, and the sound cards.
#include "tests/support/fake_alsa.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>

#include "tests/support/fake_pcm.h"

struct _snd_ctl {
    fake_alsa::Card card;
};

struct _snd_ctl_card_info {
    char driver[32];
};

struct _snd_pcm_status {
    char unused[64];
};

namespace {

struct Script {
    int calls = 0;                // since the first line of the script
    std::map<int, long> answers;  // by number of call
    std::optional<long> always;
};

struct Kept {
    bool recording = true;
    std::vector<std::string> calls;
    std::map<std::string, Script> scripts;
    int statusObjects = 0;
    std::vector<fake_alsa::Card> cards;
    int openControls = 0;
};

Kept& kept() {
    static auto* const all = new Kept;
    return *all;
}

bool isCallOf(const std::string& call, const std::string& function) {
    return call.compare(0, function.size() + 1, function + '(') == 0;
}

std::optional<long> nextAnswer(const std::string& function) {
    const auto found = kept().scripts.find(function);
    if (found == kept().scripts.end()) {
        return std::nullopt;
    }
    Script& script = found->second;
    const auto line = script.answers.find(++script.calls);
    return line != script.answers.end() ? line->second : script.always;
}

std::string nameOf(const fake_alsa::Card& card) {
    return "hw:" + std::to_string(card.index);
}

int openControl(snd_ctl_t** control, const char* name) {
    const fake_alsa::Guard guard(fake_alsa::lock());
    const auto card = std::find_if(kept().cards.begin(), kept().cards.end(),
                                   [name](const auto& each) { return nameOf(each) == name; });
    if (card == kept().cards.end() || card->openResult < 0) {
        return card == kept().cards.end() ? -ENOENT : card->openResult;
    }
    ++kept().openControls;
    *control = new snd_ctl_t{*card};
    return 0;
}

}  // namespace

namespace fake_alsa {

fake_sys::Mutex& lock() {
    static auto* const mutex = new fake_sys::Mutex;
    return *mutex;
}

std::optional<long> record(const std::string& function, const std::string& arguments) {
    if (isRecording()) {
        const std::string call = function + '(' + arguments + ')';
        {
            const Guard guard(lock());
            kept().calls.push_back(call);
        }
        if (hooks().before) {
            hooks().before(call);
        }
    }
    const Guard guard(lock());
    return nextAnswer(function);
}

bool isRecording() {
    const Guard guard(lock());
    return kept().recording;
}

void stopRecording() {
    const Guard guard(lock());
    kept().recording = false;
}

std::vector<std::string> calls() {
    const Guard guard(lock());
    return kept().calls;
}

std::vector<std::string> callsOf(const std::string& function) {
    const Guard guard(lock());
    std::vector<std::string> found;
    std::copy_if(kept().calls.begin(), kept().calls.end(), std::back_inserter(found),
                 [&](const std::string& call) { return isCallOf(call, function); });
    return found;
}

int count(const std::string& function) {
    return static_cast<int>(callsOf(function).size());
}

void clearCalls() {
    const Guard guard(lock());
    kept().calls.clear();
}

void answerAt(const std::string& function, int nth, long result) {
    const Guard guard(lock());
    Script& script = kept().scripts[function];
    script.answers[script.calls + nth] = result;
}

void answerAlways(const std::string& function, long result) {
    const Guard guard(lock());
    kept().scripts[function].always = result;
}

void stopAnswering(const std::string& function) {
    const Guard guard(lock());
    kept().scripts.erase(function);
}

Hooks& hooks() {
    static auto* const current = new Hooks;
    return *current;
}

void setCards(const std::vector<Card>& cards) {
    const Guard guard(lock());
    kept().cards = cards;
}

int controlsOpen() {
    const Guard guard(lock());
    return kept().openControls;
}

int statusObjects() {
    const Guard guard(lock());
    return kept().statusObjects;
}

// No record, script, hook, card or PCM.
const fake_sys::Restorer kRestorer([] {
    hooks() = Hooks{};
    resetPcms();
    const Guard guard(lock());
    kept() = Kept{};
});

}  // namespace fake_alsa

using fake_alsa::answer;
using fake_alsa::Guard;
using fake_alsa::lock;

extern "C" {

int snd_card_next(int* card) {
    return answer("snd_card_next", std::to_string(*card), [card] {
        const Guard guard(lock());
        const auto next = std::find_if(kept().cards.begin(), kept().cards.end(),
                                       [card](const auto& other) { return other.index > *card; });
        *card = next != kept().cards.end() ? next->index : -1;
        return 0;
    });
}

int snd_ctl_open(snd_ctl_t** control, const char* name, int mode) {
    return answer("snd_ctl_open", name + (", " + std::to_string(mode)),
                  [&] { return openControl(control, name); });
}

int snd_ctl_close(snd_ctl_t* control) {
    fake_alsa::record("snd_ctl_close", nameOf(control->card));
    const Guard guard(lock());
    --kept().openControls;
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

int snd_pcm_status_malloc(snd_pcm_status_t** status) {
    return answer("snd_pcm_status_malloc", "", [&] {
        const Guard guard(lock());
        ++kept().statusObjects;
        *status = new snd_pcm_status_t{};
        return 0;
    });
}

void snd_pcm_status_free(snd_pcm_status_t* status) {
    fake_alsa::record("snd_pcm_status_free", status != nullptr ? "object" : "null");
    const Guard guard(lock());
    --kept().statusObjects;
    delete status;
}

const char* snd_strerror(int code) {
    const int number = std::abs(code);
    return number < SND_ERROR_BEGIN ? strerror(number) : "Unknown error";
}

}  // extern "C"
