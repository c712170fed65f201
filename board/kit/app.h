// SPDX-License-Identifier: Apache-2.0
// The companion app: holds the app's ends of both FIFOs and of the message socket, keeps what it
// hears and which messages come, with the time of each, and speaks a voice in real time.
//
// Two threads of its own, one that receives and one that speaks; every call is for any thread.
// Destroying it closes everything at once, as the end of a process does.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "board/kit/sound.h"

namespace board {

constexpr char kFifoRx[] = "/tmp/usbAudioFifoRx";  // the app receives
constexpr char kFifoTx[] = "/tmp/usbAudioFifoTx";  // the app transmits
constexpr char kSocketRx[] = "/tmp/usbAudioUdsIpcRx";
constexpr char kSocketTx[] = "/tmp/usbAudioUdsIpcTx";

// A datagram, sent to kSocketTx or received at kSocketRx.
struct Message {
    uint32_t type;
    uint32_t data;
    bool operator==(const Message& other) const { return type == other.type && data == other.data; }
};

// What a message to or from the app means.
std::string meaningOf(Message message);

struct ReceivedMessage {
    Ns at;
    Message message;
};

// The app's message socket: bound to kSocketRx while this exists; keeps what the daemon sent until
// it is taken. The socket's file stays behind, as after the end of a process. Any thread.
class MessageSocket {
  public:
    MessageSocket();
    // What came since the last call, oldest first.
    std::vector<Message> take();
    int fd() const { return descriptor.get(); }

  private:
    Fd descriptor;
};

// Sends to kSocketTx. Any thread.
class MessageSender {
  public:
    MessageSender();
    // 0 or the errno of the send.
    int send(const void* bytes, size_t count) const;
    int send(Message message) const { return send(&message, sizeof message); }

  private:
    Fd descriptor;
};

// The result of one read.
struct HeardBlock {
    Ns at;
    int64_t firstFrame;  // counted from the app's start
};

struct Heard {
    Samples left;
    std::vector<HeardBlock> blocks;
    int64_t unequalFrames = 0;  // frames whose right sample was not the left one
    // When frame `index` of `left` was read.
    Ns timeOf(int64_t index) const;

  private:
    friend class App;
    int64_t firstFrame = 0;
};

// One block that the daemon's pipe took whole; block k of the voice holds its frames from
// `firstFrame` on. Blocks that find the pipe full or without a reader are lost, as in a microphone.
struct SentBlock {
    Ns at;
    int64_t firstFrame;
};

struct AppOptions {
    Ns jitter = 0;               // each write is up to this much late
    int64_t jitterSeed = 0;      // seed for the lateness of the writes
    size_t chunkBytes = 1920;    // of one write; 10 ms of interleaved stereo
    int slowdownPercent = 0;     // as by speakSlower, from the beginning
    bool socket = true;          // binds the message socket
    bool equalChannels = false;  // the right one carries the left one's sample
    bool speaks = true;          // from the beginning; otherwise it only holds the FIFO open
};

class App {
  public:
    explicit App(AppOptions options = {});
    ~App();
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    // Makes the FIFOs that are missing.
    static void makeFifos();

    // From the next block on; frames are counted from the app's start. Unless the channels are to
    // be equal, the right one carries the inverted sample, so that mixing or swapping shows.
    void speak(Voice voice);
    // The voice's frame that is spoken next.
    int64_t nextFrame() const { return frameToSpeak; }
    // When the app's clock has the frame: it is written then, or late.
    Ns timeOfFrame(int64_t frame) const { return startAt + frame * kSecond / kRate; }
    // The next block is this much late; those that become due meanwhile follow at once.
    void stallSpeaking(Ns time) { stall = time; }
    // Stops or resumes writing.
    void pauseSpeaking(bool pause) { speakingPaused = pause; }
    // Takes `percent` longer from one write to the next; 0 is on time again.
    void speakSlower(int percent) { slowdownPercent = percent; }
    // Stops or resumes reading.
    void pauseListening(bool pause) { listeningPaused = pause; }
    // Reads one period of the daemon's (240 frames) at a time and then pauses; 0: no pause.
    void listenSlowly(Ns pause) { listeningPause = pause; }

    // What came since the last call.
    Heard takeHeard();
    int64_t heardFrames() const { return framesHeard; }

    std::vector<SentBlock> sentBlocks() const;
    // The blocks since the last call.
    std::vector<SentBlock> takeSentBlocks();
    int64_t lostBlocks() const { return blocksLost; }

    std::vector<ReceivedMessage> messages() const;
    // The messages' values from the `from`th on.
    std::vector<Message> messageValues(size_t from = 0) const;
    bool waitForMessages(size_t count, Ns limit = 5 * kSecond) const;

    // Sends to the daemon, without an app; 0 or the errno of the send.
    static int send(Message message) { return sendBytes(&message, sizeof message); }
    static int sendBytes(const void* bytes, size_t count) {
        return MessageSender().send(bytes, count);
    }

  private:
    void listen();
    void readSound();
    void readMessages();
    void talk();
    void openTx();
    void writeChunk(int64_t firstByte);

    const AppOptions options;
    Fd rx;
    Fd tx;
    std::optional<MessageSocket> messageSocket;
    mutable std::mutex mutex;  // guards what follows up to the atomics
    Heard heard;
    Voice currentVoice = silence;
    std::vector<SentBlock> sent;
    std::vector<ReceivedMessage> received;
    std::atomic<int64_t> framesHeard{0};
    std::atomic<int64_t> frameToSpeak{0};
    std::atomic<int64_t> blocksLost{0};
    std::atomic<Ns> startAt{0};  // of frame 0, by the talker
    std::atomic<Ns> stall{0};
    std::atomic<bool> speakingPaused{false};
    std::atomic<bool> listeningPaused{false};
    std::atomic<int> slowdownPercent{0};
    std::atomic<Ns> listeningPause{0};
    std::atomic<bool> stop{false};
    std::thread listener;
    std::thread talker;
};

// What the daemon has told the app about the channels: on and off must alternate. One thread.
class ChannelWatch {
  public:
    // The next messages. An answer to a sync-up repeats the state and is known by its first message
    // {0, 1} with {1, on} and {2, on} right after it.
    void see(const std::vector<Message>& messages);
    // Messages may have been lost: the next ones are not compared with the earlier ones.
    void forget() { told[0] = told[1] = std::nullopt; }

    // The last state of channel 1 or 2; off at first.
    bool isOn(uint32_t channel) const { return told[channel - 1].value_or(false); }
    // The first message that repeated a state, or an empty text.
    const std::string& repetition() const { return firstRepetition; }

  private:
    void see(Message message, bool mayRepeat);

    std::optional<bool> told[2] = {false, false};
    std::string firstRepetition;
};

}  // namespace board
