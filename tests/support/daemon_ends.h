// SPDX-License-Identifier: Apache-2.0
// The daemon's ends of what it shares with a companion app, in a folder of the test's own: opened
// and used as the daemon does it, and nothing else of a daemon. One thread.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "tests/support/temp_dir.h"

namespace uafd {

class DaemonEnds {
  public:
    using Message = std::pair<uint32_t, uint32_t>;  // type, data

    explicit DaemonEnds(const TempDir& folder) : folder(folder.path()) {}
    ~DaemonEnds() { end(); }
    DaemonEnds(const DaemonEnds&) = delete;
    DaemonEnds& operator=(const DaemonEnds&) = delete;

    std::string path(const std::string& name) const { return folder + "/usbAudio" + name; }

    // As a process's end; what is bound stays in the file system.
    void end() {
        for (int* fd : {&speaker, &mic, &daemonSocket}) {
            if (*fd >= 0) {
                close(std::exchange(*fd, -1));
            }
        }
    }
    void bindSocket() {
        daemonSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        const sockaddr_un address = addressOf("UdsIpcTx");
        unlink(address.sun_path);
        ASSERT_EQ(0,
                  bind(daemonSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    // Without O_NONBLOCK, in the daemon's order; true when neither had to wait for ever.
    bool openFifos() { return finishOpening(beginOpening()); }
    std::future<void> beginOpening() {
        return std::async(std::launch::async, [this] {
            speaker = open(path("FifoRx").c_str(), O_WRONLY);
            mic = open(path("FifoTx").c_str(), O_RDONLY);
        });
    }
    bool finishOpening(std::future<void> opening) const {
        const bool opened = opening.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
        if (!opened) {  // lets it out
            for (const char* name : {"FifoRx", "FifoTx"}) {
                rescue(path(name), opening);
            }
        }
        return opened && speaker >= 0 && mic >= 0;
    }

    void play(const void* bytes, size_t size) {
        ASSERT_EQ(static_cast<ssize_t>(size), write(speaker, bytes, size));
    }
    void play(const std::vector<int16_t>& samples) {
        play(samples.data(), samples.size() * sizeof samples[0]);
    }
    // What one read of the microphone's FIFO gives, which must have something.
    std::vector<int16_t> record() {
        std::vector<int16_t> samples(960);
        const ssize_t got = read(mic, samples.data(), samples.size() * sizeof samples[0]);
        samples.resize(got < 0 ? 0 : static_cast<size_t>(got) / sizeof samples[0]);
        return samples;
    }

    int speakerFd() const { return speaker; }
    int micFd() const { return mic; }

    // To the app; 0 or an errno.
    int sendBytes(const void* bytes, size_t size) {
        const sockaddr_un address = addressOf("UdsIpcRx");
        const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        const ssize_t sent = sendto(fd, bytes, size, MSG_DONTWAIT,
                                    reinterpret_cast<const sockaddr*>(&address), sizeof address);
        const int error = sent < 0 ? errno : 0;
        close(fd);
        return error;
    }
    int send(uint32_t type, uint32_t data) {
        const uint32_t words[] = {type, data};
        return sendBytes(words, sizeof words);
    }
    // What the app has sent since the last call.
    std::vector<Message> messages() {
        std::vector<Message> received;
        uint32_t words[4];
        while (recv(daemonSocket, words, sizeof words, 0) == 2 * sizeof words[0]) {
            received.emplace_back(words[0], words[1]);
        }
        return received;
    }

  private:
    sockaddr_un addressOf(const std::string& name) const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path(name).c_str(), sizeof address.sun_path - 1);
        return address;
    }
    static void rescue(const std::string& fifo, const std::future<void>& opening) {
        const int fd = open(fifo.c_str(), O_RDWR);
        opening.wait_for(std::chrono::seconds(1));
        close(fd);
    }

    const std::string folder;
    int speaker = -1;
    int mic = -1;
    int daemonSocket = -1;
};

}  // namespace uafd
