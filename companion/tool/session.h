// An app at work: opens the daemon's things, asks for the states until it is told, and from then on
// hands sound and events to a handler and takes the handler's blocks, in the beat of the library.
// One thread, one session at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <uafd_companion.hpp>

constexpr int kBlockSamples = UAFD_CHANNELS * UAFD_BLOCK_FRAMES;
constexpr double kBlockS = 0.01;

// What a command does. Nothing is the default everywhere, silence for what the host records.
class Handler {
  public:
    virtual ~Handler() = default;
    // `frames` stereo frames that the host played.
    virtual void onSound(const int16_t* /*samples*/, int /*frames*/) {}
    virtual void onEvent(const uafd_event& /*event*/) {}
    // The next block, silent when handed over; asked for again until it was taken.
    virtual void fillBlock(int16_t* /*samples*/) {}
    virtual void onBlockTaken() {}
    // After each block's time.
    virtual void onTick() {}
    virtual bool isDone() = 0;
};

class Session {
  public:
    // `directory` empty is the daemon's own.
    explicit Session(std::string directory) : directory_(std::move(directory)) {}

    // Says on standard error why it does not work.
    bool open(unsigned parts = UAFD_ALL);
    void close() { companion_.close(); }
    // Until the handler is done (true), or a signal ends it or the library fails (false).
    bool run(Handler* handler);

    uafd::Companion& companion() { return companion_; }
    // The last value told; none before.
    std::optional<int> told(uafd_event_type type) const { return told_[type]; }
    bool isOn(uafd_event_type type) const { return told(type) == 1; }
    void forget(uafd_event_type type) { told_[type].reset(); }

  private:
    void step(Handler* handler, int ready);
    void takeSound(Handler* handler);
    void takeEvents(Handler* handler);
    void giveBlock(Handler* handler);
    void askForStates();

    const std::string directory_;
    uafd::Companion companion_;
    std::optional<int> told_[UAFD_DAEMON_STATE + 1];
    int blocksToAsking_ = 0;
    int askingsToPatience_ = 0;  // lost: it is said that no daemon answers
};

// By CLOCK_MONOTONIC.
int64_t nowNs();
// The text of a result below 0 that the library gave.
const char* reasonOf(int result);
