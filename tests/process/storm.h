// SPDX-License-Identifier: Apache-2.0
// A storm over the daemon's process: the host, the gadget driver, the app, the sound cards and the
// kernel do anything at any moment, in an order that depends on a seed. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>

#include "tests/process/app.h"
#include "tests/process/daemon.h"

namespace uafd::process {

class Storm {
  public:
    explicit Storm(uint32_t seed);

    // Starts the daemon, bound, and the app. False when the daemon ended instead.
    bool begin();
    // Takes this many steps. False when the daemon ended, or no longer handles what it gets.
    bool rage(int steps);
    // Puts everything right again: no fault, the card there, the app awake, the streams off.
    bool calmDown();

    // How often each step was taken, by name.
    const std::map<std::string, int>& done() const { return doneCounts; }

    Root root;
    Daemon daemon;
    App app;

  private:
    struct Action {
        uint32_t weight;
        const char* name;
        void (*act)(Storm& s);
    };
    static const Action kActions[];

    uint32_t draw() { return static_cast<uint32_t>(random()); }
    uint32_t upTo(uint32_t limit) { return draw() % limit; }
    const char* eitherStream() { return upTo(2) == 0 ? "capture" : "playback"; }
    void act();
    void letRun();
    void answerNotes();
    void sendVolumes(uint32_t count);
    void sendUsbState(const std::string& word);

    void bindAgain();
    void unbindAndBind();
    void switchBoth();
    void switchManyTimes();
    void oddRecord();
    void restartApp();
    void replaceFifos();
    void floodSilentApp();
    void syncUps();
    void oddDatagrams();
    void usbStates();
    void oddUevents();
    void cableFault();
    void failStep();
    void refuseCall();
    void pullCard();
    void plugCard();

    std::minstd_rand random;
    std::map<std::string, int> doneCounts;
    int restarts = 0;  // how often the daemon asked for the controller's restart
};

}  // namespace uafd::process
