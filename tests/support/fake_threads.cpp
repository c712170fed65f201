// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_threads.h"

#include "tests/support/fake_sys.h"

namespace uafd {

void FakeThreads::install() {
    fake_sys::Hooks& hooks = fake_sys::hooks();
    hooks.pthread_create = [this](auto... arguments) { return create(arguments...); };
    hooks.pthread_join = [this](pthread_t id, void**) {
        journal.emplace_back("join");
        joined.push_back(id);
        onJoin(id);
        return 0;
    };
    hooks.pthread_kill = [this](pthread_t id, int) {
        journal.emplace_back("signal");
        return onSignal(id);
    };
    hooks.nanosleep = [this](const timespec* pause, timespec*) {
        journal.emplace_back("sleep");
        const long ns = pause->tv_sec * 1000000000L + pause->tv_nsec;
        sleptNs += ns;
        onSleep(ns);
        return 0;
    };
    hooks.sched_yield = [this] {
        journal.emplace_back("yield");
        onYield();
        return 0;
    };
}

int FakeThreads::create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
                        void* argument) {
    Thread thread{entry, argument, -1, -1, created.size() + 1};
    if (attributes != nullptr) {
        sched_param parameters{};
        pthread_attr_getschedpolicy(attributes, &thread.policy);
        pthread_attr_getschedparam(attributes, &parameters);
        thread.priority = parameters.sched_priority;
    }
    const std::string name = nameOf(thread);
    journal.push_back(name.empty() ? "create" : "create " + name);
    const int result = onCreate(thread);
    if (result == 0) {
        *id = thread.id;
        created.push_back(thread);
    }
    return result;
}

}  // namespace uafd
