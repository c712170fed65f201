// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_sys.h"

#include <cstdarg>

// The real calls, under the names that the linker gives them.
extern "C" {
int __real_open(const char* path, int flags, ...);
int __real_stat(const char* path, struct stat* found);
int __real_fcntl(int fd, int command, ...);
int __real_ioctl(int fd, unsigned long request, ...);
int __real_close(int fd);
ssize_t __real_read(int fd, void* buf, size_t count);
ssize_t __real_write(int fd, const void* buf, size_t count);
int __real_mknod(const char* path, mode_t mode, dev_t device);
int __real_unlink(const char* path);
int __real_socket(int domain, int type, int protocol);
int __real_bind(int fd, const sockaddr* address, socklen_t length);
int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t length);
ssize_t __real_recvfrom(int fd, void* buf, size_t size, int flags, sockaddr* from,
                        socklen_t* fromLength);
ssize_t __real_sendto(int fd, const void* buf, size_t size, int flags, const sockaddr* to,
                      socklen_t toLength);
ssize_t __real_recvmsg(int fd, msghdr* message, int flags);
int __real_system(const char* command);
FILE* __real_fopen(const char* path, const char* mode);
int __real_usleep(useconds_t us);
int __real_nanosleep(const timespec* wanted, timespec* left);
unsigned __real_sleep(unsigned seconds);
int __real_sched_yield();
int __real_clock_gettime(clockid_t clock, timespec* now);
int __real_sigaction(int number, const struct sigaction* action, struct sigaction* old);
char* __real_strdup(const char* text);
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void __real_free(void* memory);
int __real_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __real_pthread_join(pthread_t id, void** result);
int __real_pthread_kill(pthread_t id, int number);
int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_trylock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_broadcast(pthread_cond_t* condition);
int __real_pthread_attr_setschedpolicy(pthread_attr_t* attributes, int policy);
int __real_pthread_attr_getschedparam(const pthread_attr_t* attributes, sched_param* parameters);
int __real_pthread_attr_setschedparam(pthread_attr_t* attributes, const sched_param* parameters);
int __real_pthread_attr_destroy(pthread_attr_t* attributes);
}

namespace fake_sys {

Hooks& hooks() {
    // Never destroyed: wrapped calls come before and after every static object's life.
    static auto* const current = new Hooks;
    return *current;
}

void reset() {
    hooks() = Hooks{};
}

namespace real {

int open(const char* path, int flags) {
    constexpr mode_t createMode = 0600;
    return __real_open(path, flags, createMode);
}
int stat(const char* path, struct stat* found) {
    return __real_stat(path, found);
}
int fcntl(int fd, int command, long argument) {
    return __real_fcntl(fd, command, argument);
}
int ioctl(int fd, unsigned long request, void* argument) {
    return __real_ioctl(fd, request, argument);
}
int pthread_create(pthread_t* id, const pthread_attr_t*, void* (*entry)(void*), void* argument) {
    return __real_pthread_create(id, nullptr, entry, argument);
}
int close(int fd) {
    return __real_close(fd);
}
ssize_t read(int fd, void* buf, size_t count) {
    return __real_read(fd, buf, count);
}
ssize_t write(int fd, const void* buf, size_t count) {
    return __real_write(fd, buf, count);
}
int mknod(const char* path, mode_t mode, dev_t device) {
    return __real_mknod(path, mode, device);
}
int unlink(const char* path) {
    return __real_unlink(path);
}
int socket(int domain, int type, int protocol) {
    return __real_socket(domain, type, protocol);
}
int bind(int fd, const sockaddr* address, socklen_t length) {
    return __real_bind(fd, address, length);
}
int setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    return __real_setsockopt(fd, level, name, value, length);
}
ssize_t recvfrom(int fd, void* buf, size_t size, int flags, sockaddr* from, socklen_t* fromLength) {
    return __real_recvfrom(fd, buf, size, flags, from, fromLength);
}
ssize_t sendto(int fd, const void* buf, size_t size, int flags, const sockaddr* to,
               socklen_t toLength) {
    return __real_sendto(fd, buf, size, flags, to, toLength);
}
ssize_t recvmsg(int fd, msghdr* message, int flags) {
    return __real_recvmsg(fd, message, flags);
}
int system(const char* command) {
    return __real_system(command);
}
FILE* fopen(const char* path, const char* mode) {
    return __real_fopen(path, mode);
}
int usleep(useconds_t us) {
    return __real_usleep(us);
}
int nanosleep(const timespec* wanted, timespec* left) {
    return __real_nanosleep(wanted, left);
}
unsigned sleep(unsigned seconds) {
    return __real_sleep(seconds);
}
int sched_yield() {
    return __real_sched_yield();
}
int clock_gettime(clockid_t clock, timespec* now) {
    return __real_clock_gettime(clock, now);
}
int sigaction(int number, const struct sigaction* action, struct sigaction* old) {
    return __real_sigaction(number, action, old);
}
char* strdup(const char* text) {
    return __real_strdup(text);
}
void* malloc(size_t size) {
    return __real_malloc(size);
}
void* calloc(size_t count, size_t size) {
    return __real_calloc(count, size);
}
void free(void* memory) {
    __real_free(memory);
}
int pthread_join(pthread_t id, void** result) {
    return __real_pthread_join(id, result);
}
int pthread_kill(pthread_t id, int number) {
    return __real_pthread_kill(id, number);
}
int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return __real_pthread_mutex_init(mutex, attributes);
}
int pthread_mutex_lock(pthread_mutex_t* mutex) {
    return __real_pthread_mutex_lock(mutex);
}
int pthread_mutex_trylock(pthread_mutex_t* mutex) {
    return __real_pthread_mutex_trylock(mutex);
}
int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    return __real_pthread_mutex_unlock(mutex);
}
int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    return __real_pthread_cond_wait(condition, mutex);
}
int pthread_cond_broadcast(pthread_cond_t* condition) {
    return __real_pthread_cond_broadcast(condition);
}
int pthread_attr_setschedpolicy(pthread_attr_t* attributes, int policy) {
    return __real_pthread_attr_setschedpolicy(attributes, policy);
}
int pthread_attr_getschedparam(const pthread_attr_t* attributes, sched_param* parameters) {
    return __real_pthread_attr_getschedparam(attributes, parameters);
}
int pthread_attr_setschedparam(pthread_attr_t* attributes, const sched_param* parameters) {
    return __real_pthread_attr_setschedparam(attributes, parameters);
}
int pthread_attr_destroy(pthread_attr_t* attributes) {
    return __real_pthread_attr_destroy(attributes);
}

}  // namespace real
}  // namespace fake_sys

using fake_sys::hooks;
namespace real = fake_sys::real;

extern "C" {
int __wrap_open(const char* path, int flags, ...) {
    return hooks().open ? hooks().open(path, flags) : real::open(path, flags);
}
int __wrap_stat(const char* path, struct stat* found) {
    return hooks().stat ? hooks().stat(path, found) : real::stat(path, found);
}
int __wrap_close(int fd) {
    return hooks().close ? hooks().close(fd) : real::close(fd);
}
ssize_t __wrap_read(int fd, void* buf, size_t count) {
    return hooks().read ? hooks().read(fd, buf, count) : real::read(fd, buf, count);
}
ssize_t __wrap_write(int fd, const void* buf, size_t count) {
    return hooks().write ? hooks().write(fd, buf, count) : real::write(fd, buf, count);
}
int __wrap_mknod(const char* path, mode_t mode, dev_t device) {
    return hooks().mknod ? hooks().mknod(path, mode, device) : real::mknod(path, mode, device);
}
int __wrap_unlink(const char* path) {
    return hooks().unlink ? hooks().unlink(path) : real::unlink(path);
}
int __wrap_socket(int domain, int type, int protocol) {
    return hooks().socket ? hooks().socket(domain, type, protocol)
                          : real::socket(domain, type, protocol);
}
int __wrap_bind(int fd, const sockaddr* address, socklen_t length) {
    return hooks().bind ? hooks().bind(fd, address, length) : real::bind(fd, address, length);
}
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    return hooks().setsockopt ? hooks().setsockopt(fd, level, name, value, length)
                              : real::setsockopt(fd, level, name, value, length);
}
ssize_t __wrap_recvfrom(int fd, void* buf, size_t size, int flags, sockaddr* from,
                        socklen_t* fromLength) {
    return hooks().recvfrom ? hooks().recvfrom(fd, buf, size, flags, from, fromLength)
                            : real::recvfrom(fd, buf, size, flags, from, fromLength);
}
ssize_t __wrap_sendto(int fd, const void* buf, size_t size, int flags, const sockaddr* to,
                      socklen_t toLength) {
    return hooks().sendto ? hooks().sendto(fd, buf, size, flags, to, toLength)
                          : real::sendto(fd, buf, size, flags, to, toLength);
}
ssize_t __wrap_recvmsg(int fd, msghdr* message, int flags) {
    return hooks().recvmsg ? hooks().recvmsg(fd, message, flags)
                           : real::recvmsg(fd, message, flags);
}
int __wrap_system(const char* command) {
    return hooks().system ? hooks().system(command) : real::system(command);
}
FILE* __wrap_fopen(const char* path, const char* mode) {
    return hooks().fopen ? hooks().fopen(path, mode) : real::fopen(path, mode);
}
int __wrap_usleep(useconds_t us) {
    return hooks().usleep ? hooks().usleep(us) : real::usleep(us);
}
int __wrap_nanosleep(const timespec* wanted, timespec* left) {
    return hooks().nanosleep ? hooks().nanosleep(wanted, left) : real::nanosleep(wanted, left);
}
unsigned __wrap_sleep(unsigned seconds) {
    return hooks().sleep ? hooks().sleep(seconds) : real::sleep(seconds);
}
int __wrap_sched_yield() {
    return hooks().sched_yield ? hooks().sched_yield() : real::sched_yield();
}
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    return hooks().clock_gettime ? hooks().clock_gettime(clock, now)
                                 : real::clock_gettime(clock, now);
}
int __wrap_sigaction(int number, const struct sigaction* action, struct sigaction* old) {
    return hooks().sigaction ? hooks().sigaction(number, action, old)
                             : real::sigaction(number, action, old);
}
char* __wrap_strdup(const char* text) {
    return hooks().strdup ? hooks().strdup(text) : real::strdup(text);
}
void* __wrap_malloc(size_t size) {
    return hooks().malloc ? hooks().malloc(size) : real::malloc(size);
}
void* __wrap_calloc(size_t count, size_t size) {
    return hooks().calloc ? hooks().calloc(count, size) : real::calloc(count, size);
}
void __wrap_free(void* memory) {
    hooks().free ? hooks().free(memory) : real::free(memory);
}
int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument) {
    return hooks().pthread_create ? hooks().pthread_create(id, attributes, entry, argument)
                                  : real::pthread_create(id, attributes, entry, argument);
}
int __wrap_pthread_join(pthread_t id, void** result) {
    return hooks().pthread_join ? hooks().pthread_join(id, result) : real::pthread_join(id, result);
}
int __wrap_pthread_kill(pthread_t id, int number) {
    return hooks().pthread_kill ? hooks().pthread_kill(id, number) : real::pthread_kill(id, number);
}
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return hooks().pthread_mutex_init ? hooks().pthread_mutex_init(mutex, attributes)
                                      : real::pthread_mutex_init(mutex, attributes);
}
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    return hooks().pthread_mutex_lock ? hooks().pthread_mutex_lock(mutex)
                                      : real::pthread_mutex_lock(mutex);
}
int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    return hooks().pthread_mutex_trylock ? hooks().pthread_mutex_trylock(mutex)
                                         : real::pthread_mutex_trylock(mutex);
}
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    return hooks().pthread_mutex_unlock ? hooks().pthread_mutex_unlock(mutex)
                                        : real::pthread_mutex_unlock(mutex);
}
int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    return hooks().pthread_cond_wait ? hooks().pthread_cond_wait(condition, mutex)
                                     : real::pthread_cond_wait(condition, mutex);
}
int __wrap_pthread_cond_broadcast(pthread_cond_t* condition) {
    return hooks().pthread_cond_broadcast ? hooks().pthread_cond_broadcast(condition)
                                          : real::pthread_cond_broadcast(condition);
}
int __wrap_pthread_attr_setschedpolicy(pthread_attr_t* attributes, int policy) {
    return hooks().pthread_attr_setschedpolicy
               ? hooks().pthread_attr_setschedpolicy(attributes, policy)
               : real::pthread_attr_setschedpolicy(attributes, policy);
}
int __wrap_pthread_attr_getschedparam(const pthread_attr_t* attributes, sched_param* parameters) {
    return hooks().pthread_attr_getschedparam
               ? hooks().pthread_attr_getschedparam(attributes, parameters)
               : real::pthread_attr_getschedparam(attributes, parameters);
}
int __wrap_pthread_attr_setschedparam(pthread_attr_t* attributes, const sched_param* parameters) {
    return hooks().pthread_attr_setschedparam
               ? hooks().pthread_attr_setschedparam(attributes, parameters)
               : real::pthread_attr_setschedparam(attributes, parameters);
}
int __wrap_pthread_attr_destroy(pthread_attr_t* attributes) {
    return hooks().pthread_attr_destroy ? hooks().pthread_attr_destroy(attributes)
                                        : real::pthread_attr_destroy(attributes);
}
int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return hooks().fcntl ? hooks().fcntl(fd, command, argument)
                         : real::fcntl(fd, command, argument);
}
int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return hooks().ioctl ? hooks().ioctl(fd, request, argument)
                         : real::ioctl(fd, request, argument);
}
}
