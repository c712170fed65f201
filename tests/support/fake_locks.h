// SPDX-License-Identifier: Apache-2.0
// Stands in for the mutexes and conditions that a test names: their calls appear in a journal and
// fail on demand. A lock that would wait for itself is a failure instead of a hang, and so is an
// unlock of what is not held. All other mutexes work as ever. For tests on one thread, or on
// several of which one runs at a time.
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

    // Takes over the hooks; *this must outlive the calls.
    void install();

    // The mutexes and conditions inside this object, or just this one. Their entries in the journal
    // are "lock", "trylock", "unlock", "broadcast" and "wait", each with a name behind it if given.
    template <typename Owner>
    void watch(const Owner& owner, const std::string& name = "") {
        places[name] = {reinterpret_cast<const char*>(&owner), sizeof owner};
    }
    // The same for the mutexes that are set up next.
    void watchNew(std::vector<std::string> names) { newNames = std::move(names); }

    // Of a mutex watched under this name.
    bool isHeld(const std::string& name) const;

    // From now on each such call returns this result, or only the n-th. A lock that fails is not
    // taken; an unlock that fails has taken effect.
    void answer(const std::string& entry, int result, int nth = 0) {
        answers[entry] = {result, nth, 0};
    }

    // Does this in front of the next such call, once.
    void beforeNext(const std::string& entry, std::function<void()> act) {
        actions[entry] = std::move(act);
    }
    // Called in each watched call, with its entry, when that is in the journal.
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

    // Null: it is not watched.
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
