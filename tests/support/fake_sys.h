// SPDX-License-Identifier: Apache-2.0
// Stands in for libc and thread calls: the linker's --wrap sends each of them here, and an unset
// hook passes it on to the real one. A test sets a hook to record a call, to fail at a step, or to
// answer from a script; inside a hook, real::NAME reaches the real call.
//
// Hooks are set before the threads that meet them start, and never changed while those run.
#pragma once

#include <functional>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "tests/support/tsan_blind.h"

namespace fake_sys {

struct Hooks {
    std::function<int(const char*, int)> open;
    std::function<int(const char*, struct stat*)> stat;
    std::function<int(int)> close;
    std::function<ssize_t(int, void*, size_t)> read;
    std::function<ssize_t(int, const void*, size_t)> write;
    std::function<int(const char*, mode_t, dev_t)> mknod;
    std::function<int(const char*)> unlink;
    std::function<int(int, int, int)> socket;
    std::function<int(int, const sockaddr*, socklen_t)> bind;
    std::function<int(int, int, int, const void*, socklen_t)> setsockopt;
    std::function<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> recvfrom;
    std::function<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> sendto;
    std::function<ssize_t(int, msghdr*, int)> recvmsg;
    std::function<int(const char*)> system;
    std::function<FILE*(const char*, const char*)> fopen;
    std::function<int(useconds_t)> usleep;
    std::function<int(const timespec*, timespec*)> nanosleep;
    std::function<unsigned(unsigned)> sleep;
    std::function<int()> sched_yield;
    std::function<int(clockid_t, timespec*)> clock_gettime;
    std::function<int(int, const struct sigaction*, struct sigaction*)> sigaction;
    std::function<char*(const char*)> strdup;
    std::function<void*(size_t)> malloc;
    std::function<void*(size_t, size_t)> calloc;
    std::function<void(void*)> free;
    std::function<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> pthread_create;
    std::function<int(pthread_t, void**)> pthread_join;
    std::function<int(pthread_t, int)> pthread_kill;
    std::function<int(pthread_mutex_t*, const pthread_mutexattr_t*)> pthread_mutex_init;
    std::function<int(pthread_mutex_t*)> pthread_mutex_lock;
    std::function<int(pthread_mutex_t*)> pthread_mutex_trylock;
    std::function<int(pthread_mutex_t*)> pthread_mutex_unlock;
    std::function<int(pthread_cond_t*, pthread_mutex_t*)> pthread_cond_wait;
    std::function<int(pthread_cond_t*)> pthread_cond_broadcast;
    std::function<int(pthread_attr_t*, int)> pthread_attr_setschedpolicy;
    std::function<int(const pthread_attr_t*, sched_param*)> pthread_attr_getschedparam;
    std::function<int(pthread_attr_t*, const sched_param*)> pthread_attr_setschedparam;
    std::function<int(pthread_attr_t*)> pthread_attr_destroy;
    // The variadic calls, with their one optional argument as a number or pointer-sized value.
    std::function<int(int fd, int command, long argument)> fcntl;
    std::function<int(int fd, unsigned long request, void* argument)> ioctl;
};

// The hooks in force; reset() unsets them all.
Hooks& hooks();
void reset();

// The real calls. pthread_create ignores the scheduling attributes, which need privileges, and
// keeps the rest: a test of the attributes hooks the call.
namespace real {
int open(const char* path, int flags);
int stat(const char* path, struct stat* found);
int close(int fd);
ssize_t read(int fd, void* buf, size_t count);
ssize_t write(int fd, const void* buf, size_t count);
int mknod(const char* path, mode_t mode, dev_t device);
int unlink(const char* path);
int socket(int domain, int type, int protocol);
int bind(int fd, const sockaddr* address, socklen_t length);
int setsockopt(int fd, int level, int name, const void* value, socklen_t length);
ssize_t recvfrom(int fd, void* buf, size_t size, int flags, sockaddr* from, socklen_t* fromLength);
ssize_t sendto(int fd, const void* buf, size_t size, int flags, const sockaddr* to,
               socklen_t toLength);
ssize_t recvmsg(int fd, msghdr* message, int flags);
int system(const char* command);
FILE* fopen(const char* path, const char* mode);
int usleep(useconds_t us);
int nanosleep(const timespec* wanted, timespec* left);
unsigned sleep(unsigned seconds);
int sched_yield();
int clock_gettime(clockid_t clock, timespec* now);
int sigaction(int number, const struct sigaction* action, struct sigaction* old);
char* strdup(const char* text);
void* malloc(size_t size);
void* calloc(size_t count, size_t size);
void free(void* memory);
int pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument);
int pthread_join(pthread_t id, void** result);
int pthread_kill(pthread_t id, int number);
int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int pthread_mutex_lock(pthread_mutex_t* mutex);
int pthread_mutex_trylock(pthread_mutex_t* mutex);
int pthread_mutex_unlock(pthread_mutex_t* mutex);
int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int pthread_cond_broadcast(pthread_cond_t* condition);
int pthread_attr_setschedpolicy(pthread_attr_t* attributes, int policy);
int pthread_attr_getschedparam(const pthread_attr_t* attributes, sched_param* parameters);
int pthread_attr_setschedparam(pthread_attr_t* attributes, const sched_param* parameters);
int pthread_attr_destroy(pthread_attr_t* attributes);
int fcntl(int fd, int command, long argument);
int ioctl(int fd, unsigned long request, void* argument);
}  // namespace real

// A lock for the stand-ins and for hooks themselves: the pthread_mutex hooks never see it.
class Mutex {
  public:
    void lock() {
        if (unseen) {
            tsan_blind::begin();
        }
        real::pthread_mutex_lock(&mutex);
    }
    void unlock() {
        real::pthread_mutex_unlock(&mutex);
        if (unseen) {
            tsan_blind::end();
        }
    }

    // Makes every such lock, and what it guards, unseen by ThreadSanitizer: it would order threads
    // that nothing orders outside of the tests. Before any other thread starts.
    static void hideFromTsan() { unseen = true; }

  private:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    static inline bool unseen = false;
};

// A fixture that starts and ends with no hooks set and an empty log.
class Test : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace fake_sys
