// SPDX-License-Identifier: Apache-2.0
// The functions of uafd_companion.h, which describes them, as a class that closes its companion.
// C++17; no exceptions; only the C library has to be linked. Every operation but open needs an open
// companion.
#pragma once

#include <memory>
#include <optional>

#include "uafd_companion.h"

namespace uafd {

class Companion {
  public:
    // Closes what was open before. 0 or a negative errno.
    int open(const uafd_options& options) {
        close();
        uafd_companion* opened = nullptr;
        const int error = uafd_companion_open_with(&options, &opened);
        handle.reset(opened);
        return error;
    }
    int open(unsigned parts = UAFD_ALL, const char* directory = nullptr) {
        uafd_options options = UAFD_OPTIONS_INIT;
        options.parts = parts;
        options.directory = directory;
        return open(options);
    }
    void close() { handle.reset(); }
    int releaseDaemon() { return uafd_companion_release_daemon(get()); }
    bool isOpen() const { return handle != nullptr; }

    int wait() { return uafd_companion_wait(get()); }
    int waitFor(int timeoutMs) { return uafd_companion_wait_for(get(), timeoutMs); }
    void wake() { uafd_companion_wake(get()); }
    int speakerFd() const { return uafd_companion_speaker_fd(get()); }
    int micFd() const { return uafd_companion_mic_fd(get()); }
    int eventsFd() const { return uafd_companion_events_fd(get()); }

    int read(int16_t* samples, size_t frames) {
        return uafd_companion_read(get(), samples, frames);
    }
    int write(const int16_t* samples) { return uafd_companion_write(get(), samples); }

    std::optional<uafd_event> nextEvent() {
        uafd_event event{};
        return uafd_companion_next_event(get(), &event) > 0 ? std::optional(event) : std::nullopt;
    }
    int sync() { return uafd_companion_sync(get()); }
    int setSpeakerVolume(int16_t volume) {
        return uafd_companion_set_speaker_volume(get(), volume);
    }
    int setSpeakerMute(bool muted) { return uafd_companion_set_speaker_mute(get(), muted ? 1 : 0); }

    uafd_counts counts() const {
        uafd_counts counts{};
        uafd_companion_counts(get(), &counts);
        return counts;
    }
    // For the C functions.
    uafd_companion* get() const { return handle.get(); }

  private:
    struct Closer {
        void operator()(uafd_companion* companion) const { uafd_companion_close(companion); }
    };
    std::unique_ptr<uafd_companion, Closer> handle;
};

}  // namespace uafd
