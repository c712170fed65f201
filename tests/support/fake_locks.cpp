// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_locks.h"

#include <algorithm>
#include <cerrno>

#include <gtest/gtest.h>

#include "tests/support/fake_sys.h"

namespace uafd {

void FakeLocks::install() {
    fake_sys::Hooks& hooks = fake_sys::hooks();
    hooks.pthread_mutex_init = [this](pthread_mutex_t* mutex, const pthread_mutexattr_t* given) {
        if (!newNames.empty()) {
            watch(*mutex, newNames.front());
            newNames.erase(newNames.begin());
        }
        return fake_sys::real::pthread_mutex_init(mutex, given);
    };
    hooks.pthread_mutex_lock = [this](pthread_mutex_t* mutex) { return lock(mutex); };
    hooks.pthread_mutex_trylock = [this](pthread_mutex_t* mutex) { return tryLock(mutex); };
    hooks.pthread_mutex_unlock = [this](pthread_mutex_t* mutex) { return unlock(mutex); };
    hooks.pthread_cond_broadcast = [this](pthread_cond_t* condition) {
        const std::string* const name = nameOf(condition);
        return name != nullptr ? note("broadcast", *name)
                               : fake_sys::real::pthread_cond_broadcast(condition);
    };
    hooks.pthread_cond_wait = [this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
        const std::string* const name = nameOf(condition);
        return name != nullptr ? note("wait", *name)
                               : fake_sys::real::pthread_cond_wait(condition, mutex);
    };
}

const std::string* FakeLocks::nameOf(const void* object) const {
    for (const auto& [name, place] : places) {
        if (object >= place.begin && object < place.begin + place.bytes) {
            return &name;
        }
    }
    return nullptr;
}

bool FakeLocks::isHeld(const std::string& name) const {
    return std::any_of(held.begin(), held.end(),
                       [&](const void* mutex) { return *nameOf(mutex) == name; });
}

int FakeLocks::note(const std::string& call, const std::string& name) {
    const std::string entry = name.empty() ? call : call + " " + name;
    if (const auto action = actions.find(entry); action != actions.end()) {
        const std::function<void()> act = std::move(action->second);
        actions.erase(action);
        act();
    }
    journal.push_back(entry);
    if (onCall) {
        onCall(entry);
    }
    const auto answer = answers.find(entry);
    if (answer == answers.end()) {
        return 0;
    }
    const int calls = ++answer->second.calls;
    return answer->second.nth == 0 || answer->second.nth == calls ? answer->second.result : 0;
}

int FakeLocks::lock(pthread_mutex_t* mutex) {
    const std::string* const name = nameOf(mutex);
    if (name == nullptr) {
        return fake_sys::real::pthread_mutex_lock(mutex);
    }
    const int result = note("lock", *name);
    if (result == 0) {
        EXPECT_TRUE(held.insert(mutex).second) << "waits for itself: " << journal.back();
    }
    return result;
}

int FakeLocks::tryLock(pthread_mutex_t* mutex) {
    const std::string* const name = nameOf(mutex);
    if (name == nullptr) {
        return fake_sys::real::pthread_mutex_trylock(mutex);
    }
    const int result = note("trylock", *name);
    return result != 0 || held.insert(mutex).second ? result : EBUSY;
}

int FakeLocks::unlock(pthread_mutex_t* mutex) {
    const std::string* const name = nameOf(mutex);
    if (name == nullptr) {
        return fake_sys::real::pthread_mutex_unlock(mutex);
    }
    EXPECT_EQ(1U, held.erase(mutex)) << "is not held: unlock " << *name;
    return note("unlock", *name);
}

}  // namespace uafd
