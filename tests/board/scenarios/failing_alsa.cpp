// SPDX-License-Identifier: Apache-2.0
// A library preloaded into the daemon that makes one chosen alsa-lib call fail. Nothing else can
// make setting the software parameters fail, as alsa-lib asks no driver about them. The file
// /tmp/failing_alsa names the call, "FUNCTION CODE"; without the file no call fails.
#include <cstdio>
#include <cstring>
#include <dlfcn.h>

#include <alsa/asoundlib.h>

namespace uafd {
namespace {

constexpr char kOrder[] = "/tmp/failing_alsa";

// The negative code that the call is to fail with, or 0.
int ordered(const char* function) {
    FILE* const file = fopen(kOrder, "re");
    if (file == nullptr) {
        return 0;
    }
    char name[64] = "";
    int code = 0;
    const bool valid = fscanf(file, "%63s %d", name, &code) == 2;
    fclose(file);
    return valid && strcmp(name, function) == 0 ? code : 0;
}

// Whether alsa-lib itself is the caller, which also calls its own functions.
bool isAlsas(const void* caller) {
    Dl_info info{};
    return dladdr(caller, &info) != 0 && strstr(info.dli_fname, "libasound") != nullptr;
}

template <typename... Arguments>
int callOrFail(const void* caller, const char* function, Arguments... arguments) {
    const int code = isAlsas(caller) ? 0 : ordered(function);
    if (code != 0) {
        return code;
    }
    void* const next = dlsym(RTLD_NEXT, function);
    return reinterpret_cast<int (*)(Arguments...)>(next)(arguments...);
}

}  // namespace

extern "C" {

int snd_pcm_sw_params_current(snd_pcm_t* pcm, snd_pcm_sw_params_t* params) {
    return callOrFail(__builtin_return_address(0), __func__, pcm, params);
}

int snd_pcm_sw_params_set_start_threshold(snd_pcm_t* pcm, snd_pcm_sw_params_t* params,
                                          snd_pcm_uframes_t frames) {
    return callOrFail(__builtin_return_address(0), __func__, pcm, params, frames);
}

int snd_pcm_sw_params_set_stop_threshold(snd_pcm_t* pcm, snd_pcm_sw_params_t* params,
                                         snd_pcm_uframes_t frames) {
    return callOrFail(__builtin_return_address(0), __func__, pcm, params, frames);
}

int snd_pcm_sw_params_set_avail_min(snd_pcm_t* pcm, snd_pcm_sw_params_t* params,
                                    snd_pcm_uframes_t frames) {
    return callOrFail(__builtin_return_address(0), __func__, pcm, params, frames);
}

int snd_pcm_sw_params(snd_pcm_t* pcm, snd_pcm_sw_params_t* params) {
    return callOrFail(__builtin_return_address(0), __func__, pcm, params);
}

}  // extern "C"

}  // namespace uafd
