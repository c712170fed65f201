// SPDX-License-Identifier: Apache-2.0
// Makes threads follow a script. Every thread on the stage stops at each of its calls to the stage
// and goes on when the script tells it to; so at most one of them runs at any time, and between two
// steps of the script all of them are at rest.
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
    // Thrown to end a thread of the stage from within a call, when the script is over.
    struct ScriptIsOver {};

    // ---- For a thread of the stage ----

    // Stops at `call` and returns the script's answer. Throws ScriptIsOver.
    std::string call(const std::string& call);
    // The calling thread's part, for example "worker 0".
    static const std::string& part();
    // Reports an effect to the script, which gets it with the next takeEffects().
    void effect(const std::string& text);

    // Gives `part` to a new thread that runs `body`. Called by the thread that creates it; returns
    // 0.
    int create(pthread_t* id, const std::string& part, std::function<void()> body);
    // The part of a thread that was created and not yet joined.
    std::string partOf(pthread_t id);
    // Joins the thread if it has left the stage; returns whether it has.
    bool join(pthread_t id);

    // ---- For the script, on the test's thread ----

    // The call at which the part has stopped; empty when no thread has the part, or its thread
    // never stops.
    std::string callOf(const std::string& part);
    // Lets the thread go on and waits until it is at rest again.
    void answer(const std::string& part, const std::string& answer);
    // How many threads with this part were created and not yet joined.
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
