// SPDX-License-Identifier: Apache-2.0
// Replaces alsa-lib at link time. Every snd_ call of the daemon is recorded and then answered by
// the first of these that has an answer: the script, a hook, the device.
//
// Only time drives the device, and time never passes by itself: each PCM has its own clock, which
// moves when a wait or a transfer has to wait, or when a test advances it. The fill level follows
// from that clock and the stream's rate. Any thread may make any call; hooks and scripts are set
// before the threads that use them start, as in fake_sys.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <alsa/asoundlib.h>

#include "tests/support/fake_sys.h"

namespace fake_alsa {

// ---- The record --------------------------------------------------------------------------------

// Every call since the start or clearCalls(), oldest first, for example "snd_pcm_wait(pcm0, 10)".
// PCMs are numbered in the order of their opening. A pointer to a value is shown as the value
// passed in; constants are shown without their prefix:
//   snd_pcm_open(hw:1, CAPTURE, 0)
//   snd_pcm_hw_params_any(pcm0, zeroed)      "dirty" when the container was not all zeros
//   snd_pcm_hw_params_set_access(pcm0, RW_INTERLEAVED)
//   snd_pcm_hw_params_set_rate_near(pcm0, 48000, 0)
//   snd_pcm_readi(pcm0, 240)
//   snd_card_next(-1)
//   snd_ctl_card_info(hw:0, zeroed)
// The ..._sizeof calls and snd_strerror are not recorded.
std::vector<std::string> calls();
// The calls of one function.
std::vector<std::string> callsOf(const std::string& function);
int count(const std::string& function);
void clearCalls();
// For a long run: from now on records no calls, calls no hook `before` and keeps no written
// samples.
void stopRecording();

// ---- Scripted answers --------------------------------------------------------------------------

// The `nth` call of `function` from now on (1 = the next one) returns `result`, usually a negative
// code, and does nothing else.
void answerAt(const std::string& function, int nth, long result);
// Until stopAnswering(), every call without an answer from answerAt() returns `result`.
void answerAlways(const std::string& function, long result);
// Removes the script of `function`.
void stopAnswering(const std::string& function);

// ---- Hooks -------------------------------------------------------------------------------------

// The device's answers, for a hook that passes a call on to it.
namespace device {
int wait(snd_pcm_t* pcm, int timeoutMs);
snd_pcm_state_t state(snd_pcm_t* pcm);
snd_pcm_sframes_t availUpdate(snd_pcm_t* pcm);
snd_pcm_sframes_t readi(snd_pcm_t* pcm, int16_t* samples, snd_pcm_uframes_t frames);
snd_pcm_sframes_t writei(snd_pcm_t* pcm, const int16_t* samples, snd_pcm_uframes_t frames);
}  // namespace device

// Called on the caller's thread without any of the stand-in's locks: a hook may make any call,
// block, or end the thread.
struct Hooks {
    // Called with every recorded call, in the record's words, before it is answered.
    std::function<void(const std::string& call)> before;
    std::function<int(snd_pcm_t*, int timeoutMs)> wait = device::wait;
    std::function<snd_pcm_state_t(snd_pcm_t*)> state = device::state;
    std::function<snd_pcm_sframes_t(snd_pcm_t*)> availUpdate = device::availUpdate;
    std::function<snd_pcm_sframes_t(snd_pcm_t*, int16_t*, snd_pcm_uframes_t)> readi = device::readi;
    std::function<snd_pcm_sframes_t(snd_pcm_t*, const int16_t*, snd_pcm_uframes_t)> writei =
        device::writei;
};
Hooks& hooks();

// ---- The device --------------------------------------------------------------------------------

// How a device responds to parameters; copied when the device is opened.
struct Device {
    unsigned grantedRate = 0;             // 0 = as asked
    int rateDirection = 0;                // what the rate call leaves in the direction
    snd_pcm_uframes_t grantedBuffer = 0;  // frames; 0 = as asked
    snd_pcm_uframes_t grantedPeriod = 0;  // frames; 0 = as asked
    int clockPpm = 0;                     // how much faster than its rate the device runs
};
Device& nextDevice();

// The PCM that was opened as number `index` since the start; null when there is none. It can still
// be examined after it was closed.
snd_pcm_t* pcm(int index);
int pcmsOpened();     // since the start
int pcmsOpen();       // now
int controlsOpen();   // snd_ctl handles, now
int statusObjects();  // snd_pcm_status_t, now

// Lets time pass: the fill level changes, and an overdue stream gets an xrun.
void advance(snd_pcm_t* pcm, int64_t ns);
int64_t elapsedNs(snd_pcm_t* pcm);
// A stalled device neither takes nor gives anything while time passes.
void stall(snd_pcm_t* pcm, bool stalled);
void setState(snd_pcm_t* pcm, snd_pcm_state_t state);

// Sample number `frame` from a capture device, counted from its first start; never 0, so that it
// differs from silence. Samples lost in an xrun are missing from the sequence.
int16_t capturedSample(uint64_t frame);
// All samples that a playback device has got.
std::vector<int16_t> written(snd_pcm_t* pcm);

// ---- The sound cards ---------------------------------------------------------------------------

struct Card {
    int index;           // of the card, ascending
    std::string driver;  // the driver's name
    int openResult = 0;  // the result of snd_ctl_open
    int infoResult = 0;  // the result of snd_ctl_card_info
};
void setCards(const std::vector<Card>& cards);

}  // namespace fake_alsa
