// SPDX-License-Identifier: Apache-2.0
// A companion app that does anything at one FIFO: its thread opens, closes, deletes and replaces
// the FIFO and puts other files in its place, until it is told to become a well-behaved app.
#pragma once

#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>

#include <sys/stat.h>

#include "tests/support/fake_sys.h"

namespace uafd {

class WildApp {
  public:
    // `direction` is the flag of the app's end, O_WRONLY or O_RDONLY. The seed decides the acts,
    // but not how they interleave with the channel's threads.
    WildApp(std::string fifoPath, int direction, unsigned seed)
        : path(std::move(fifoPath)),
          target(path + ".target"),
          flags(direction | O_NONBLOCK),
          random(seed),
          thread([this] { run(); }) {}
    ~WildApp() {
        done = true;
        thread.join();
    }
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
    void setHalted(bool wanted) {
        halting = wanted;
        while (halted != wanted) {
            std::this_thread::yield();
        }
    }
    void run() {
        using Act = void (WildApp::*)();
        // Sound must move often, or code that depends on it is never reached.
        constexpr Act acts[] = {&WildApp::moveSound,    &WildApp::moveSound, &WildApp::moveSound,
                                &WildApp::openAndRest,  &WildApp::rest,      &WildApp::closeEnd,
                                &WildApp::remove,       &WildApp::make,      &WildApp::replace,
                                &WildApp::replaceTwice, &WildApp::placeFile, &WildApp::placeFolder,
                                &WildApp::placeLink,    &WildApp::placeLoop};
        while (!done) {
            halted = halting.load();
            if (halted) {
                // A halted app does nothing.
            } else if (settling) {
                behave();
                settled = true;
            } else {
                (this->*acts[random() % std::size(acts)])();
            }
            std::this_thread::yield();
        }
        closeEnd();
    }
    void openEnd() {
        if (fd < 0) {
            fd = fake_sys::real::open(path.c_str(), flags);
        }
    }
    void closeEnd() {
        if (fd >= 0) {
            close(fd);
        }
        fd = -1;
    }
    void moveBlock() {
        std::array<char, 1920> block{};
        if (fd < 0) {
            return;
        }
        const ssize_t moved = (flags & O_ACCMODE) == O_WRONLY
                                  ? fake_sys::real::write(fd, block.data(), block.size())
                                  : fake_sys::real::read(fd, block.data(), block.size());
        if (moved < 0 && errno != EAGAIN) {
            closeEnd();
        }
    }

    // ---- The acts ------------------------------------------------------------------------------

    void moveSound() {
        openEnd();
        for (auto i = random() % 30; i > 0; --i) {
            moveBlock();
            std::this_thread::yield();
        }
    }
    // The app stays there in silence until it happens to do something else.
    void openAndRest() {
        openEnd();
        rest();
    }
    void rest() {
        for (auto i = random() % 200; i > 0; --i) {
            std::this_thread::yield();
        }
    }
    // Leaves the app's end of the FIFO open if it is.
    void make() { mkfifo(path.c_str(), 0600); }
    void clear() {
        if (rmdir(path.c_str()) != 0) {
            unlink(path.c_str());
        }
        unlink(target.c_str());
    }
    void replace() {
        clear();
        make();
    }
    void remove() {
        closeEnd();
        clear();
    }
    void replaceTwice() {
        closeEnd();
        replace();
        replace();
    }
    void placeFile() {
        remove();
        close(fake_sys::real::open(path.c_str(), O_CREAT | O_WRONLY));
    }
    void placeFolder() {
        remove();
        mkdir(path.c_str(), 0700);
    }
    void placeLink() {
        remove();
        mkfifo(target.c_str(), 0600);
        link(target);
    }
    void placeLoop() {
        remove();
        link(path);
    }
    // Fails if a file of that name exists: it then stays.
    void link(const std::string& to) { std::ignore = symlink(to.c_str(), path.c_str()); }

    // Like a good app.
    void behave() {
        struct stat named {};
        struct stat held {};
        if (lstat(path.c_str(), &named) != 0 || !S_ISFIFO(named.st_mode)) {
            remove();
            make();
        } else if (fd >= 0 && fstat(fd, &held) == 0 && held.st_ino != named.st_ino) {
            closeEnd();
        }
        openEnd();
        moveBlock();
    }

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
