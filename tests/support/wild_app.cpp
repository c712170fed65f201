// SPDX-License-Identifier: Apache-2.0
#include "tests/support/wild_app.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>
#include <utility>

#include <sys/stat.h>

#include "tests/support/fake_sys.h"

namespace uafd {
namespace {

// For calls that may fail because a file of that name exists: it then stays.
void ignoreResult(int) {}

}  // namespace

WildApp::WildApp(std::string fifoPath, int direction, unsigned seed)
    : path(std::move(fifoPath)),
      target(path + ".target"),
      flags(direction | O_NONBLOCK),
      random(seed),
      thread([this] { run(); }) {}

WildApp::~WildApp() {
    done = true;
    thread.join();
}

void WildApp::setHalted(bool wanted) {
    halting = wanted;
    while (halted != wanted) {
        std::this_thread::yield();
    }
}

void WildApp::run() {
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

void WildApp::openEnd() {
    if (fd < 0) {
        fd = fake_sys::real::open(path.c_str(), flags);
    }
}

void WildApp::closeEnd() {
    if (fd >= 0) {
        close(fd);
    }
    fd = -1;
}

void WildApp::moveBlock() {
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

// ---- The acts ----------------------------------------------------------------------------------

void WildApp::moveSound() {
    openEnd();
    for (auto i = random() % 30; i > 0; --i) {
        moveBlock();
        std::this_thread::yield();
    }
}

void WildApp::openAndRest() {
    openEnd();
    rest();
}

void WildApp::rest() {
    for (auto i = random() % 200; i > 0; --i) {
        std::this_thread::yield();
    }
}

void WildApp::make() {
    mkfifo(path.c_str(), 0600);
}

void WildApp::clear() {
    if (rmdir(path.c_str()) != 0) {
        unlink(path.c_str());
    }
    unlink(target.c_str());
}

void WildApp::replace() {
    clear();
    make();
}

void WildApp::remove() {
    closeEnd();
    clear();
}

void WildApp::replaceTwice() {
    closeEnd();
    replace();
    replace();
}

void WildApp::placeFile() {
    remove();
    close(fake_sys::real::open(path.c_str(), O_CREAT | O_WRONLY));
}

void WildApp::placeFolder() {
    remove();
    mkdir(path.c_str(), 0700);
}

void WildApp::placeLink() {
    remove();
    mkfifo(target.c_str(), 0600);
    ignoreResult(symlink(target.c_str(), path.c_str()));
}

void WildApp::placeLoop() {
    remove();
    ignoreResult(symlink(path.c_str(), path.c_str()));
}

// ---- The good app ------------------------------------------------------------------------------

void WildApp::behave() {
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

}  // namespace uafd
