// SPDX-License-Identifier: Apache-2.0
#include "tests/support/daemon_ends.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sys/socket.h>

namespace uafd {

void DaemonEnds::end() {
    for (int* fd : {&speaker, &mic, &daemonSocket}) {
        if (*fd >= 0) {
            close(std::exchange(*fd, -1));
        }
    }
}

void DaemonEnds::bindSocket() {
    daemonSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    const sockaddr_un address = addressOf("UdsIpcTx");
    unlink(address.sun_path);
    ASSERT_EQ(0, bind(daemonSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

std::future<void> DaemonEnds::beginOpening() {
    return std::async(std::launch::async, [this] {
        speaker = open(path("FifoRx").c_str(), O_WRONLY);
        mic = open(path("FifoTx").c_str(), O_RDONLY);
    });
}

bool DaemonEnds::finishOpening(std::future<void> opening) const {
    const bool opened = opening.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    if (!opened) {  // ends the wait
        for (const char* name : {"FifoRx", "FifoTx"}) {
            rescue(path(name), opening);
        }
    }
    return opened && speaker >= 0 && mic >= 0;
}

void DaemonEnds::play(const void* bytes, size_t size) {
    ASSERT_EQ(static_cast<ssize_t>(size), write(speaker, bytes, size));
}

void DaemonEnds::play(const std::vector<int16_t>& samples) {
    play(samples.data(), samples.size() * sizeof samples[0]);
}

std::vector<int16_t> DaemonEnds::record() {
    std::vector<int16_t> samples(960);
    const ssize_t got = read(mic, samples.data(), samples.size() * sizeof samples[0]);
    samples.resize(got < 0 ? 0 : static_cast<size_t>(got) / sizeof samples[0]);
    return samples;
}

int DaemonEnds::sendBytes(const void* bytes, size_t size) {
    const sockaddr_un address = addressOf("UdsIpcRx");
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    const ssize_t sent = sendto(fd, bytes, size, MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = sent < 0 ? errno : 0;
    close(fd);
    return error;
}

int DaemonEnds::send(uint32_t type, uint32_t data) {
    const uint32_t words[] = {type, data};
    return sendBytes(words, sizeof words);
}

std::vector<DaemonEnds::Message> DaemonEnds::messages() {
    std::vector<Message> received;
    uint32_t words[4];
    while (recv(daemonSocket, words, sizeof words, 0) == 2 * sizeof words[0]) {
        received.emplace_back(words[0], words[1]);
    }
    return received;
}

sockaddr_un DaemonEnds::addressOf(const std::string& name) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path(name).c_str(), sizeof address.sun_path - 1);
    return address;
}

void DaemonEnds::rescue(const std::string& fifo, const std::future<void>& opening) {
    const int fd = open(fifo.c_str(), O_RDWR);
    opening.wait_for(std::chrono::seconds(1));
    close(fd);
}

}  // namespace uafd
