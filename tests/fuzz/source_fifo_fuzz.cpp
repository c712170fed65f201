// SPDX-License-Identifier: Apache-2.0
// What the companion app may do with the FIFO that the source reads: pieces of every size, a closed
// end, errors, a FIFO that does not open; signals, with and without a stop; and a frame buffer that
// refuses blocks. Every block for the frame buffer must be the left channel of the bytes read,
// written over what earlier reads left there.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <vector>

#include "channel/uaf_src.h"
#include "tests/fuzz/faked.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ssrs.h"
#include "tests/support/fake_threads.h"

namespace uafd {

const int fuzz::kMaxInputBytes = 20;

namespace {

using fake_log::kSourceLog;
using fuzz::require;

constexpr char kFifoPath[] = "/nowhere/fifo";  // a path where nothing real can be
constexpr int kFifoFd = 77;
constexpr size_t kBlockBytes = 1920;
constexpr size_t kBlockFrames = 480;

// Bytes of which no two pieces are equal.
const uint8_t* noise() {
    static const std::vector<uint8_t> kBytes = [] {
        std::vector<uint8_t> made(16 * 256 + 4096 * 8 + kBlockBytes);
        uint32_t state = 1;
        std::generate(made.begin(), made.end(), [&state] {
            state = state * 1664525 + 1013904223;
            return static_cast<uint8_t>(state >> 24);
        });
        return made;
    }();
    return kBytes.data();
}

class SourceRun {
  public:
    explicit SourceRun(fuzz::Input& input) : input(input), block(kBlockFrames * 2) {
        fake_sys::Hooks& hooks = fake_sys::hooks();
        threads.install();
        hooks.open = [this](const char* path, int flags) { return open(path, flags); };
        hooks.fcntl = [](int, int command, long size) {
            require(command == F_GETPIPE_SZ || size == kBlockBytes, "a block's capacity is wanted");
            return 4096;
        };
        hooks.read = [this](int fd, void* data, size_t room) { return read(fd, data, room); };
        hooks.close = [this](int fd) {
            require(fd == openFd, "only what is open is closed");
            openFd = -1;
            return 0;
        };
        fake_ssrs::hooks().SSRS_Write = [this](SSRS_Ctx*, const int16_t* samples, int32_t n) {
            return take(samples, n);
        };
        fake_alsa::stopRecording();
        fake_alsa::answerAlways("snd_pcm_open", -ENODEV);
        source.setDevName(kFifoPath, "hw:1");
    }

    // A start that finds no card leaves its buffer thread behind, which is all that this needs.
    void run() {
        require(source.intfUpdate(true) == -1 && threads.created.size() == 1,
                "the thread is created");
        expected = {kSourceLog.debug("init SSRS\n"), kSourceLog.debug("start, opening hw:1\n"),
                    kSourceLog.error("error at uafStart@204: rc=-19\n"),
                    kSourceLog.debug("enter buffer loop\n")};
        threads.created.back().run();
        expected.push_back(kSourceLog.debug("exit buffer loop, loopcnt=" + std::to_string(passes) +
                                            ", fifoRead " + std::to_string(total) + "\n"));
        require(!blockDue, "every block reaches the frame buffer");
        compareLog();
        fake_ssrs::reset();
    }

  private:
    int open(const std::string& path, int flags) {
        require(path == kFifoPath && flags == O_RDONLY, "it is opened for reading");
        require(openFd < 1, "what is open is not opened");
        const uint8_t how = input.byte();
        openFd = -1;
        if (how >= 240 && fuzz::errorOf(how) == EINTR) {
            return interrupt();
        }
        if (how >= 240) {
            errno = fuzz::errorOf(how);
            expected.push_back(kSourceLog.error("failed to open /nowhere/fifo\n"));
            return -1;
        }
        expected.push_back(kSourceLog.debug("/nowhere/fifo opened buffer size 4096\n"));
        openFd = how >= 224 ? 0 : kFifoFd;  // 0 counts as closed, except for the next read
        justOpened = true;
        return openFd;
    }

    ssize_t read(int fd, void* data, size_t room) {
        require(fd == openFd && room == kBlockBytes && !blockDue, "a block is read");
        require(openFd >= 1 || justOpened, "descriptor 0 is opened again");
        const uint8_t how = input.byte();
        if (how >= 232 && fuzz::errorOf(how) == EINTR) {
            return interrupt();
        }
        justOpened = false;
        const ssize_t size = how < 208 ? static_cast<ssize_t>(pieceOf(how)) : how < 232 ? 0 : -1;
        blockDue = size >= 0;
        total += static_cast<size_t>(std::max<ssize_t>(size, 0));
        if (size > 0) {
            const uint8_t* const bytes = noise() + 16 * how + 4096 * (reads++ % 8);
            memcpy(data, bytes, static_cast<size_t>(size));
            memcpy(block.data(), bytes, static_cast<size_t>(size));
            return size;
        }
        errno = fuzz::errorOf(how);
        expected.push_back(kSourceLog.debug("closing /nowhere/fifo, failed to read rc=" +
                                            std::to_string(size) + ", expect 1920\n"));
        std::fill(block.begin(), block.end(), int16_t{0});
        return size;
    }

    // A signal interrupts the call: the last signal is a stop's, others have no effect.
    int interrupt() {
        if (input.empty()) {
            stop();
        }
        errno = EINTR;
        return -1;
    }

    void stop() {
        expected.push_back(kSourceLog.debug("stopping buffer thread\n"));
        source.uafStop();
    }

    // A whole block, a few bytes, almost a block, or any number.
    size_t pieceOf(uint8_t how) {
        if (how < 64 || input.empty()) {
            return kBlockBytes;
        }
        return how < 112   ? how - 63u
               : how < 160 ? kBlockBytes - (how - 112u)
                           : 1 + input.number(2) % kBlockBytes;
    }

    // Stands for the frame buffer: gets each block once, and may refuse it.
    int32_t take(const int16_t* samples, int32_t n) {
        require(blockDue && n == kBlockFrames, "a block follows each read");
        blockDue = false;
        for (size_t i = 0; i < kBlockFrames; i++) {
            block[i] = block[2 * i];
        }
        require(std::equal(samples, samples + n, block.begin()), "it is the left channel");
        const uint8_t how = input.byte();
        const int32_t result = how >= 240 ? SSRS_BAD_PARAMETER : how >= 200 ? SSRS_QUEUE_FULL : 0;
        if (input.empty()) {
            stop();
        }
        finishPass(result);
        return result;
    }

    void finishPass(int32_t result) {
        if (result == SSRS_BAD_PARAMETER) {
            expected.push_back(kSourceLog.error("SSRS_Write error: 3\n"));
            return;
        }
        if (passes++ == 0) {
            expected.push_back(
                kSourceLog.debug("buffer loopcnt 0, fifoRead " + std::to_string(total) + "\n"));
        }
    }

    void compareLog() {
        fuzz::requireLines(expected, kSourceLog.lines());
        fake_log::clear();
    }

    const fuzz::Faked faked;
    fuzz::Input& input;
    FakeThreads threads;
    UafSrc source;
    fuzz::Lines expected;
    std::vector<int16_t> block;  // what the source's own block must contain
    bool blockDue = false;
    int openFd = -1;
    bool justOpened = false;
    int passes = 0;
    size_t total = 0;
    size_t reads = 0;
};

}  // namespace

void fuzz::execute(Input& input) {
    SourceRun(input).run();
}

}  // namespace uafd
