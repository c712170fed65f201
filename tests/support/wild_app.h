// SPDX-License-Identifier: Apache-2.0
// A companion app that does anything at one FIFO: its thread opens, closes, deletes and replaces
// the FIFO and puts other files in its place, until it is told to become a well-behaved app.
#pragma once

#include <atomic>
#include <random>
#include <string>
#include <thread>

namespace uafd {

class WildApp {
  public:
    // `direction` is the flag of the app's end, O_WRONLY or O_RDONLY. The seed decides the acts,
    // but not how they interleave with the channel's threads.
    WildApp(std::string fifoPath, int direction, unsigned seed);
    ~WildApp();
    WildApp(const WildApp&) = delete;
    WildApp& operator=(const WildApp&) = delete;

    // Between halt() and resume() the app keeps its files open and does nothing, like an app in a
    // debugger.
    void halt() { setHalted(true); }
    void resume() { setHalted(false); }

    // From its next act on the app behaves well: it makes the FIFO if it is missing, keeps its end
    // open and moves sound.
    void settle() { settling = true; }
    // Whether the FIFO is in its place for good.
    bool hasSettled() const { return settled; }

  private:
    void setHalted(bool wanted);
    void run();
    void openEnd();
    void closeEnd();
    void moveBlock();
    void behave();  // like a good app

    // The acts.
    void moveSound();
    // The app stays there in silence until it happens to do something else.
    void openAndRest();
    void rest();
    // Leaves the app's end of the FIFO open if it is.
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
