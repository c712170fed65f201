// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_alsa.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>

#include "tests/support/fake_alsa_call.h"

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

int statusObjects() {
    const Guard guard(lock());
    return kept().statusObjects;
}

// No record, script, hook, card or PCM.
const fake_sys::Restorer kRestorer([] {
    hooks() = Hooks{};
    resetPcms();
    resetCards();
    const Guard guard(lock());
    kept() = Kept{};
});

}  // namespace fake_alsa

struct _snd_pcm_status {
    char unused[64];
};

extern "C" {

int snd_pcm_status_malloc(snd_pcm_status_t** status) {
    return fake_alsa::answer("snd_pcm_status_malloc", "", [&] {
        const fake_alsa::Guard guard(fake_alsa::lock());
        ++kept().statusObjects;
        *status = new snd_pcm_status_t{};
        return 0;
    });
}

void snd_pcm_status_free(snd_pcm_status_t* status) {
    fake_alsa::record("snd_pcm_status_free", status != nullptr ? "object" : "null");
    const fake_alsa::Guard guard(fake_alsa::lock());
    --kept().statusObjects;
    delete status;
}

const char* snd_strerror(int code) {
    const int number = std::abs(code);
    return number < SND_ERROR_BEGIN ? strerror(number) : "Unknown error";
}

}  // extern "C"
