// SPDX-License-Identifier: Apache-2.0
// A random walk over everything that host, driver, app and cable can do to the daemon, and what
// must hold of the daemon throughout. Each choice follows from the seed and the steps before, so
// fewer steps with the same seed are the beginning of the same walk. One thread.
#pragma once

#include <memory>
#include <string>

#include "board/kit/app_process.h"
#include "board/kit/board.h"
#include "board/kit/channel_watch.h"
#include "board/kit/random.h"
#include "board/kit/record_watch.h"

namespace uafd {

// What a walk covers.
enum class Scope {
    kAll,  // everything
    kApp,  // all that an app may do; the host streams, binds and sets volumes as any host does
};

class Walk {
  public:
    // The daemon must be running, with an app.
    Walk(uint64_t seed, Scope scope);

    // Takes one random action, prints it, and lets a random time pass. Returns what is wrong, or
    // nothing.
    std::string step();
    // Repairs the daemon's surroundings and proves the daemon whole. Returns what is wrong, or
    // nothing.
    std::string prove();
    const board::RecordWatch& records() const { return recordWatch; }

    // ---- For the actions ------------------------------------------------------------------------

    board::Random random;
    board::Board board;
    // The app, a process that may be stopped; null while it is dead.
    std::unique_ptr<board::AppProcess> app;

    // Sends a command as the host; the board may refuse it in its present state.
    void host(const std::string& command);
    // Prints a detail of the step.
    void note(const std::string& what);
    std::string direction();  // "speaker" or "mic"
    std::string pcm();        // "capture" or "playback"
    std::string number(int64_t limit) { return std::to_string(random.below(limit)); }
    void startApp(board::AppOptions options);
    void endApp();

  private:
    void pause();
    std::string findOddity(board::Ns since, board::Ns cpuBefore);
    std::string findCrowd();
    std::string findUnknownLine();
    std::string findRepetition();
    std::string findDelay();
    std::string makeSound();
    bool syncUp();

    const Scope scope;
    board::RecordWatch recordWatch;
    board::ChannelWatch watch;
    size_t seenMessages = 0;
    // When a message is lost, the others still wait in the queue: between which of them it was lost
    // is unknown.
    size_t messagesAroundLoss = 0;
    size_t seenLines = 0;
    std::string did;  // the step's actions, to explain a failure
};

// An action, how often it is chosen relative to the others, and in which walks: kAll is left out of
// walks over the app.
struct Action {
    const char* name;
    int weight;
    Scope scope;
    void (*run)(Walk& walk);
};

const Action& chooseAction(board::Random& random, Scope scope);

}  // namespace uafd
