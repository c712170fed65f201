// SPDX-License-Identifier: Apache-2.0
// Replaces the mutexes and conditions that a test names: their calls appear in a journal and fail
// on request. A lock that would wait for itself fails the test instead of hanging it, and so does
// an unlock of a mutex that is not held. All other mutexes work as usual. For tests on one thread,
// or on several of which only one runs at a time.
#pragma once

#include <functional>
#include <map>
#include <pthread.h>
#include <set>
#include <string>
#include <vector>

namespace uafd {

class FakeLocks {
  public:
    explicit FakeLocks(std::vector<std::string>& journal) : journal(journal) {}

    // Installs the hooks; *this must outlive the calls.
    void install();

    // Watches the mutexes and conditions inside this object, or this one alone. Their entries in
    // the journal are "lock", "trylock", "unlock", "broadcast" and "wait", each followed by the
    // name if there is one.
    template <typename Owner>
    void watch(const Owner& owner, const std::string& name = "") {
        places[name] = {reinterpret_cast<const char*>(&owner), sizeof owner};
    }
    // Watches the mutexes that are initialised next.
    void watchNew(std::vector<std::string> names) { newNames = std::move(names); }

    // Whether a mutex watched under this name is held.
    bool isHeld(const std::string& name) const;

    // From now on each call with this entry returns this result, or only the n-th does. A lock that
    // fails is not taken; an unlock that fails still has its effect.
    void answer(const std::string& entry, int result, int nth = 0) {
        answers[entry] = {result, nth, 0};
    }

    // Does this once, just before the next call with this entry.
    void beforeNext(const std::string& entry, std::function<void()> act) {
        actions[entry] = std::move(act);
    }
    // Called in each watched call, after its entry is in the journal.
    std::function<void(const std::string& entry)> onCall;

  private:
    struct Place {
        const char* begin;
        size_t bytes;
    };
    struct Answer {
        int result;
        int nth;  // 0: every call
        int calls;
    };

    // Null if the object is not watched.
    const std::string* nameOf(const void* object) const;
    int note(const std::string& call, const std::string& name);
    int lock(pthread_mutex_t* mutex);
    int tryLock(pthread_mutex_t* mutex);
    int unlock(pthread_mutex_t* mutex);

    std::vector<std::string>& journal;
    std::map<std::string, Place> places;  // by name
    std::vector<std::string> newNames;
    std::map<std::string, Answer> answers;
    std::map<std::string, std::function<void()>> actions;
    std::set<const void*> held;
};

}  // namespace uafd
