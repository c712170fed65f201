// SPDX-License-Identifier: Apache-2.0
// A random walk over everything that host, driver, app and cable can do to the daemon, and what
// must hold of the daemon all the while. Whatever is chosen follows from the seed and the steps
// before, so a walk's beginning is the same walk with fewer steps. One thread.
#pragma once

#include <memory>
#include <string>

#include "board/kit/app_process.h"
#include "board/kit/board.h"
#include "board/kit/channel_watch.h"
#include "board/kit/random.h"
#include "board/kit/record_watch.h"

namespace uafd {

// What a walk is over.
enum class Scope {
    kAll,  // everything
    kApp,  // all that an app may do, and a host that streams, binds and sets volumes as any does
};

class Walk {
  public:
    // The daemon is up, with an app.
    Walk(uint64_t seed, Scope scope);

    // Does one random thing, prints what, and lets a random time pass. Returns what is wrong, or
    // nothing.
    std::string step();
    // Makes the surroundings sound again and proves the daemon whole. Returns what is wrong, or
    // nothing.
    std::string prove();
    const board::RecordWatch& records() const { return recordWatch; }

    // ---- What the actions do things with -------------------------------------------------------

    board::Random random;
    board::Board board;
    // The app, a process that may be stopped; none while it is dead.
    std::unique_ptr<board::AppProcess> app;

    // A command of the host's, which the board may refuse as things stand.
    void host(const std::string& command);
    // Prints something more of what the step does.
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
    // A message was lost: its place among the next ones is unknown, since they wait in the queue.
    size_t messagesAroundLoss = 0;
    size_t seenLines = 0;
    std::string did;  // what the step does, for who reads a failure
};

// One of the things that happen, how often beside the others, and in which walks: kAll is not in
// those over the app.
struct Action {
    const char* name;
    int weight;
    Scope scope;
    void (*run)(Walk& walk);
};

const Action& chooseAction(board::Random& random, Scope scope);

}  // namespace uafd
