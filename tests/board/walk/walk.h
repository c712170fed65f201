// SPDX-License-Identifier: Apache-2.0
// A random walk over what host, driver, app and cable can do to the daemon, and what must hold of
// the daemon throughout. Each choice follows from the seed and the steps before, so fewer steps
// with the same seed are the beginning of the same walk. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "board/kit/app.h"
#include "board/kit/app_process.h"
#include "board/kit/daemon_board.h"
#include "board/kit/random.h"

namespace uafd {

class Walk {
  public:
    virtual ~Walk() = default;
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    // Takes one random action, prints it, and lets a random time pass. Returns what is wrong, or
    // nothing.
    std::string step();
    // Repairs the daemon's surroundings and proves the daemon whole. Returns what is wrong, or
    // nothing.
    std::string prove();
    // What was measured during the walk, in one line.
    virtual std::string measured() const = 0;

    // ---- For the actions -----------------------------------------------------------------------

    board::Random random;
    // The app, a process that may be stopped; null while it is dead.
    std::unique_ptr<board::AppProcess> app;

    // Prints a detail of the step.
    void note(const std::string& what);
    std::string number(int64_t limit) { return std::to_string(random.below(limit)); }
    void startApp(board::AppOptions options);
    void endApp();
    // Ends the daemon, does `between`, and starts another with a new app, for whose FIFOs a daemon
    // waits.
    void restartDaemon(const std::function<void()>& between);

  protected:
    explicit Walk(uint64_t seed) : random(seed) {}
    // Starts the daemon, with an app.
    void begin();

    // ---- What differs by what the walk is over -------------------------------------------------

    virtual board::DaemonBoard& board() = 0;
    // Chooses an action, announces it, and takes it.
    virtual void act() = 0;
    // Returns which delay of the daemon was too long, or nothing.
    virtual std::string findDelay() { return ""; }
    // Ends every fault and brings everything back except the app.
    virtual void restore() = 0;
    // Switches both of the host's streams.
    virtual void switchStreams(bool on) = 0;
    // Further checks of this kind of walk on a daemon that is whole and idle. Returns what is
    // wrong, or nothing.
    virtual std::string proveMore() { return ""; }

    // Prints the action of the step that begins.
    static void announce(const char* name);

  private:
    void pause();
    std::string findOddity(board::Ns since, board::Ns cpuBefore);
    std::string findCrowd();
    std::string findUnknownLine();
    std::string findRepetition();
    std::string makeSound();
    bool syncUp();

    board::ChannelWatch watch;
    size_t seenMessages = 0;
    // When a message is lost, the others still wait in the queue: between which of them it was lost
    // is unknown.
    size_t messagesAroundLoss = 0;
    size_t seenLines = 0;
    std::string did;  // the step's actions, to explain a failure
};

// An action of a kind of walk, and the choice among them.
template <typename Kind>
struct Action {
    const char* name;
    int weight;  // how often it is chosen, relative to the others
    std::function<void(Kind& walk)> run;
};

template <typename Kind>
const Action<Kind>& chooseAction(board::Random& random, const std::vector<Action<Kind>>& actions) {
    const int64_t weights = std::accumulate(
        actions.begin(), actions.end(), int64_t{0},
        [](int64_t sum, const Action<Kind>& action) { return sum + action.weight; });
    int64_t at = random.below(weights);
    auto action = actions.begin();
    while (at >= action->weight) {
        at -= action->weight;
        ++action;
    }
    return *action;
}

template <typename Item, size_t count, typename Kind>
Item pick(Kind& walk, const Item (&items)[count]) {
    return items[walk.random.below(count)];
}

// What an app may do in any walk.
void restartApp(Walk& walk);
void killApp(Walk& walk);
void freezeApp(Walk& walk);
void thawApp(Walk& walk);
void slowApp(Walk& walk);
void loseSocket(Walk& walk);
void changeFifo(Walk& walk);
void sendMessage(Walk& walk);
void sendOddDatagram(Walk& walk);
void passTime(Walk& walk);

// With the simulated host, which covers faults of driver and cable as well, or, over the app, only
// all that an app may do: there the host streams, binds and sets volumes as any host does.
std::unique_ptr<Walk> simulatedWalk(uint64_t seed, bool overApp);
// Over both ends of the wire: what a user does with cable and host, faults of the bus, what the
// board's system does with the gadget, and apps that come and go.
std::unique_ptr<Walk> wireWalk(uint64_t seed);

}  // namespace uafd
