// SPDX-License-Identifier: Apache-2.0
// A companion app gone wild at one FIFO: its thread opens, closes, deletes and replaces the FIFO
// and puts anything in its place, until it is told to settle down and be a good app.
#pragma once

#include <atomic>
#include <random>
#include <string>
#include <thread>

namespace uafd {

class WildApp {
  public:
    // `direction` is the flag of the app's end, O_WRONLY or O_RDONLY. The acts follow from the
    // seed; how they meet the channel's threads does not.
    WildApp(std::string fifoPath, int direction, unsigned seed);
    ~WildApp();
    WildApp(const WildApp&) = delete;
    WildApp& operator=(const WildApp&) = delete;

    // Between the two it keeps open what is open and touches nothing, like an app in a debugger.
    void halt() { setHalted(true); }
    void resume() { setHalted(false); }

    // From its next act on it is a good app: it makes the FIFO where it is missing, holds its end
    // of it and moves sound.
    void settle() { settling = true; }
    // The FIFO is in its place, and stays.
    bool hasSettled() const { return settled; }

  private:
    void setHalted(bool wanted);
    void run();
    void openEnd();
    void closeEnd();
    void moveBlock();
    void behave();  // as a good app

    // The acts.
    void moveSound();
    // An app that is there and silent, for as long as it happens not to do anything else.
    void openAndRest();
    void rest();
    // Its end of the FIFO, if it is open, stays so.
    void make();
    void clear();
    void replace();
    void remove();
    void replaceTwice();
    void placeFile();
    void placeFolder();
    void placeLink();
    void placeLoop();

    const std::string path;
    const std::string target;
    const int flags;
    std::minstd_rand random;
    int fd = -1;
    std::atomic<bool> halting{false};
    std::atomic<bool> halted{false};
    std::atomic<bool> settling{false};
    std::atomic<bool> settled{false};
    std::atomic<bool> done{false};
    std::thread thread;
};

}  // namespace uafd
