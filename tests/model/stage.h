// SPDX-License-Identifier: Apache-2.0
// Holds threads to a script. Every thread on the stage stops at each call that it makes of it, and
// goes on when the script says so; so at most one of them runs at any time, and between two steps
// of the script all of them are at rest.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <pthread.h>
#include <string>
#include <vector>

namespace uafd {

class Stage {
  public:
    // Ends a thread of the stage from within a call, when the script is over.
    struct ScriptIsOver {};

    // ---- A thread of the stage ----

    // Stops at `call` and returns the script's answer. Throws ScriptIsOver.
    std::string call(const std::string& call);
    // The calling thread's part, such as "worker 0".
    static const std::string& part();
    // Something that the script sees: kept until the next takeEffects().
    void effect(const std::string& text);

    // Gives `part` to a new thread that runs `body`; on the thread that creates it. 0.
    int create(pthread_t* id, const std::string& part, std::function<void()> body);
    // The part of a thread that was created and not joined.
    std::string partOf(pthread_t id);
    // Joins it, if it has left the stage; whether it has.
    bool join(pthread_t id);

    // ---- The script, on the test's thread ----

    // The call at which the part stops; empty when nobody has it, or its thread runs on and on.
    std::string callOf(const std::string& part);
    // Lets it go on and waits until it is at rest again.
    void answer(const std::string& part, const std::string& answer);
    // How many threads with this part exist: created and not joined.
    int threads(const std::string& part);
    std::vector<std::string> takeEffects();
    // Ends and joins every thread.
    void close();

  private:
    struct Player {
        std::string part;
        std::function<void()> body;
        pthread_t id{};
        std::string call;
        std::string answer;
        bool atRest = false;
        bool left = false;
        Stage* stage = nullptr;
    };
    static void* run(void* player);
    Player* find(const std::string& part);
    void waitForRest(std::unique_lock<std::mutex>& lock);

    static thread_local Player* self;

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Player*> players;
    std::vector<std::string> effects;
    bool isOver = false;
};

}  // namespace uafd
