// SPDX-License-Identifier: Apache-2.0
#include "board/kit/app.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stdexcept>
#include <unistd.h>
#include <utility>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace board {
namespace {

constexpr int kPollMs = 100;  // how soon a thread sees that it is to end
constexpr int kPriority = 40;
constexpr int64_t kFrameBytes = 4;
constexpr int64_t kBytesPerSecond = kFrameBytes * kRate;
constexpr size_t kPeriodBytes = 960;
constexpr uint32_t kUsb = 0;  // messages of a state
constexpr uint32_t kSpeaker = 1;
constexpr uint32_t kMic = 2;

sockaddr_un addressOf(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// The priority of an app's audio threads: real-time, below the daemon's.
void makeRealtime(std::thread* thread) {
    const sched_param priority{kPriority};
    if (pthread_setschedparam(thread->native_handle(), SCHED_FIFO, &priority) != 0) {
        throw std::runtime_error("the app gets no real-time threads");
    }
}

void makeFifo(const char* path) {
    if (mkfifo(path, 0666) != 0 && errno != EEXIST) {
        fail(std::string("making ") + path);
    }
}

// Spreads the writes over the allowed jitter, the same way in every run.
Ns delayOf(int64_t chunk, const AppOptions& options) {
    const int64_t draw = chunk + (options.jitterSeed << 32);
    return options.jitter == 0 ? 0 : static_cast<uint16_t>(noise(draw)) * options.jitter / 65536;
}

}  // namespace

std::string meaningOf(Message message) {
    static const char* const kNames[] = {"USB configured",  "speaker on",        "microphone on",
                                         "speaker volume",  "microphone volume", "speaker mute",
                                         "microphone mute", "sync-up, please"};
    const bool known = message.type < sizeof kNames / sizeof kNames[0];
    const bool isVolume = message.type == 3 || message.type == 4;
    const int value =
        isVolume ? static_cast<int16_t>(message.data & 0xFFFF) : static_cast<int>(message.data);
    return (known ? std::string(kNames[message.type]) : "type " + std::to_string(message.type)) +
           " = " + std::to_string(value);
}

MessageSocket::MessageSocket()
    : descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const sockaddr_un address = addressOf(kSocketRx);
    unlink(kSocketRx);
    if (!descriptor.isOpen() || bind(descriptor.get(), generic(address), sizeof address) != 0) {
        fail(std::string("binding ") + kSocketRx);
    }
}

std::vector<Message> MessageSocket::take() {
    std::vector<Message> messages;
    Message message{};
    while (recv(descriptor.get(), &message, sizeof message, 0) == sizeof message) {
        messages.push_back(message);
    }
    return messages;
}

MessageSender::MessageSender() : descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (!descriptor.isOpen()) {
        fail("making a socket");
    }
}

int MessageSender::send(const void* bytes, size_t count) const {
    const sockaddr_un address = addressOf(kSocketTx);
    return sendto(descriptor.get(), bytes, count, 0, generic(address), sizeof address) < 0 ? errno
                                                                                           : 0;
}

Ns Heard::timeOf(int64_t index) const {
    const int64_t frame = firstFrame + index;
    const auto after = std::upper_bound(
        blocks.begin(), blocks.end(), frame,
        [](int64_t wanted, const HeardBlock& block) { return wanted < block.firstFrame; });
    return after == blocks.begin() ? -1 : (after - 1)->at;
}

void App::makeFifos() {
    makeFifo(kFifoRx);
    makeFifo(kFifoTx);
}

App::App(AppOptions options)
    : options(options), speakingPaused(!options.speaks), slowdownPercent(options.slowdownPercent) {
    signal(SIGPIPE, SIG_IGN);
    makeFifos();
    // Open for reading and writing, so that a stream that ends is silence and not an end of file.
    rx = Fd::open(kFifoRx, O_RDWR | O_NONBLOCK);
    if (options.socket) {
        messageSocket.emplace();
    }
    listener = std::thread([this] { listen(); });
    talker = std::thread([this] { talk(); });
    makeRealtime(&listener);
    makeRealtime(&talker);
}

App::~App() {
    stop = true;
    listener.join();
    talker.join();
}

void App::speak(Voice voice) {
    const std::lock_guard<std::mutex> lock(mutex);
    currentVoice = std::move(voice);
}

Heard App::takeHeard() {
    const std::lock_guard<std::mutex> lock(mutex);
    Heard taken = std::exchange(heard, Heard{});
    heard.firstFrame = taken.firstFrame + static_cast<int64_t>(taken.left.size());
    return taken;
}

std::vector<SentBlock> App::sentBlocks() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return sent;
}

std::vector<SentBlock> App::takeSentBlocks() {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(sent, {});
}

std::vector<ReceivedMessage> App::messages() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return received;
}

std::vector<Message> App::messageValues(size_t from) const {
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<Message> values;
    for (size_t i = from; i < received.size(); ++i) {
        values.push_back(received[i].message);
    }
    return values;
}

bool App::waitForMessages(size_t count, Ns limit) const {
    return waitFor([&] { return messages().size() >= count; }, limit);
}

void App::listen() {
    while (!stop) {
        pollfd sources[] = {{listeningPaused ? -1 : rx.get(), POLLIN, 0},
                            {messageSocket ? messageSocket->fd() : -1, POLLIN, 0}};
        poll(sources, 2, kPollMs);
        if ((sources[0].revents & POLLIN) != 0) {
            readSound();
        }
        if ((sources[1].revents & POLLIN) != 0) {
            readMessages();
        }
    }
}

void App::readSound() {
    int16_t frames[4096][2];
    const Ns pause = listeningPause;
    const ssize_t got = read(rx.get(), frames, pause > 0 ? kPeriodBytes : sizeof frames);
    const Ns at = now();
    sleepUntil(at + pause);
    const std::lock_guard<std::mutex> lock(mutex);
    if (got == 0) {
        listeningPaused = true;  // no FIFO, so that reading it would not wait
    }
    if (got >= kFrameBytes) {
        heard.blocks.push_back({at, framesHeard});
    }
    const ssize_t count = std::max<ssize_t>(got, 0) / kFrameBytes;
    for (ssize_t i = 0; i < count; ++i) {
        heard.left.push_back(frames[i][0]);
        heard.unequalFrames += frames[i][0] != frames[i][1] ? 1 : 0;
    }
    framesHeard += count;
}

void App::readMessages() {
    for (const Message& message : messageSocket->take()) {
        const std::lock_guard<std::mutex> lock(mutex);
        received.push_back({now(), message});
    }
}

void App::talk() {
    const auto chunkBytes = static_cast<int64_t>(options.chunkBytes);
    startAt = now();
    Ns behind = 0;
    for (int64_t chunk = 0; !stop; ++chunk) {
        const int64_t byte = chunk * chunkBytes;
        const Ns due = startAt + behind + byte / kBytesPerSecond * kSecond +
                       byte % kBytesPerSecond * kSecond / kBytesPerSecond;
        behind += chunkBytes * kSecond / kBytesPerSecond * slowdownPercent / 100;
        sleepUntil(due + delayOf(chunk, options) + stall.exchange(0));
        openTx();
        if (!speakingPaused) {
            writeChunk(byte);
        }
        frameToSpeak = (byte + chunkBytes) / kFrameBytes;
    }
}

// Fails until the daemon waits for the app.
void App::openTx() {
    if (!tx.isOpen()) {
        tx = Fd(open(kFifoTx, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    }
}

void App::writeChunk(int64_t firstByte) {
    const int64_t firstFrame = firstByte / kFrameBytes;
    const auto skippedBytes = static_cast<size_t>(firstByte % kFrameBytes);
    const size_t frames = (skippedBytes + options.chunkBytes + kFrameBytes - 1) / kFrameBytes;
    std::vector<int16_t> stereo(2 * frames);
    Voice voice;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        voice = currentVoice;
    }
    const Samples left = render(voice, firstFrame, static_cast<int64_t>(frames));
    for (size_t i = 0; i < frames; ++i) {
        stereo[2 * i] = left[i];
        stereo[2 * i + 1] = options.equalChannels ? left[i] : static_cast<int16_t>(~left[i]);
    }
    const auto* bytes = reinterpret_cast<const std::byte*>(stereo.data()) + skippedBytes;
    const ssize_t written = write(tx.get(), bytes, options.chunkBytes);
    if (written == static_cast<ssize_t>(options.chunkBytes)) {
        const std::lock_guard<std::mutex> lock(mutex);
        sent.push_back({now(), firstFrame});
    } else {
        ++blocksLost;
    }
}

void ChannelWatch::see(const std::vector<Message>& messages) {
    for (size_t i = 0; i < messages.size(); ++i) {
        const bool isAnswer = messages[i] == Message{kUsb, 1} && i + 2 < messages.size() &&
                              messages[i + 1].type == kSpeaker && messages[i + 2].type == kMic;
        see(messages[i], false);
        if (isAnswer) {
            see(messages[i + 1], true);
            see(messages[i + 2], true);
            i += 2;
        }
    }
}

void ChannelWatch::see(Message message, bool mayRepeat) {
    if (message.type != kSpeaker && message.type != kMic) {
        return;
    }
    std::optional<bool>& known = told[message.type - 1];
    const bool on = message.data != 0;
    if (known == on && !mayRepeat && firstRepetition.empty()) {
        firstRepetition = "told again: " + meaningOf(message);
    }
    known = on;
}

}  // namespace board
