// SPDX-License-Identifier: Apache-2.0
// Replaces threads and their pauses: a created thread is only noted, not started, and the test runs
// it itself. Calls appear in a journal as "create", "join", "signal", "sleep" and "yield". For
// tests on one thread, or on several of which only one runs at a time.
#pragma once

#include <cerrno>
#include <functional>
#include <pthread.h>
#include <string>
#include <vector>

namespace uafd {

class FakeThreads {
  public:
    struct Thread {
        void* (*entry)(void*);
        void* argument;
        int policy;  // both -1 without attributes
        int priority;
        pthread_t id;  // 1 for the first thread, 2 for the next

        void* run() const { return entry(argument); }
    };

    FakeThreads() : journal(ownJournal) {}
    explicit FakeThreads(std::vector<std::string>& journal) : journal(journal) {}
    FakeThreads(const FakeThreads&) = delete;
    FakeThreads& operator=(const FakeThreads&) = delete;

    // Installs the hooks; *this must outlive the calls.
    void install();

    std::vector<Thread> created;
    std::vector<pthread_t> joined;
    long sleptNs = 0;  // all pauses together

    // What the journal shows after "create".
    std::function<std::string(const Thread&)> nameOf = [](const Thread&) { return ""; };
    // The result of creating a thread; the hook may give the thread another id. A thread that is
    // refused does not count as created.
    std::function<int(Thread&)> onCreate = [](Thread&) { return 0; };
    std::function<void(pthread_t)> onJoin = [](pthread_t) {};
    // The result of a signal; by default there is no such thread.
    std::function<int(pthread_t)> onSignal = [](pthread_t) { return ESRCH; };
    // Called in a pause of this length.
    std::function<void(long ns)> onSleep = [](long) {};
    std::function<void()> onYield = [] {};

    // Lets every creation from now on return this result.
    void refuse(int result) {
        onCreate = [result](Thread&) { return result; };
    }

  private:
    int create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
               void* argument);

    std::vector<std::string> ownJournal;  // used when the test has none
    std::vector<std::string>& journal;
};

}  // namespace uafd
