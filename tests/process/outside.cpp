// SPDX-License-Identifier: Apache-2.0
#include "tests/process/outside.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include <android/log.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "daemon/uac_user.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_pcm.h"
#include "tests/support/fake_sys.h"

namespace uafd {

extern "C" int __real___android_log_print(int priority, const char* tag, const char* format, ...);

namespace {

using fake_sys::hooks;
using process::kControlFd;
using process::kNotesFd;
using process::kSpeed;
using process::kUeventFd;
using tsan_blind::ToOrder;
namespace real = fake_sys::real;

// ---- Below the root ----------------------------------------------------------------------------

// Never destroyed: the daemon's threads outlive main.
std::string& root() {
    static auto* const folder = new std::string;
    return *folder;
}

// Where a path of the daemon's really leads. It takes no heap memory, as the heap is the daemon's.
// The process's own files in /proc/self stay where they are.
class Mapped {
  public:
    explicit Mapped(const char* path) {
        const bool own = strncmp(path, "/proc/self/", 11) == 0;
        snprintf(text, sizeof text, "%s%s", own ? "" : root().c_str(), path);
    }
    const char* path() const { return text; }

  private:
    char text[PATH_MAX];
};

sockaddr_un mapped(const sockaddr* address) {
    sockaddr_un moved = *reinterpret_cast<const sockaddr_un*>(address);
    const Mapped where(moved.sun_path);
    // The test's folder has a name that is short enough.
    memset(moved.sun_path, 0, sizeof moved.sun_path);
    memcpy(moved.sun_path, where.path(), std::min(strlen(where.path()), sizeof moved.sun_path - 1));
    return moved;
}

// ---- Refusals ----------------------------------------------------------------------------------

struct Refusal {
    const char* call;
    std::atomic<int> times{0};
    std::atomic<int> error{0};
};

enum Call {
    kOpen,
    kRead,
    kIoctl,
    kFcntl,
    kRecvmsg,
    kSendto,
    kStrdup,
    kMalloc,
    kPthreadCreate,
    kCalls
};

Refusal refusals[kCalls] = {{"open"},   {"read"},   {"ioctl"},  {"fcntl"},         {"recvmsg"},
                            {"sendto"}, {"strdup"}, {"malloc"}, {"pthread_create"}};

bool takeOne(std::atomic<int>& count) {
    int left = count.load(std::memory_order_relaxed);
    while (left > 0 && !count.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) {
    }
    return left > 0;
}

// True, with errno set, when this call has to fail.
bool isRefused(Call call) {
    if (!takeOne(refusals[call].times)) {
        return false;
    }
    errno = refusals[call].error.load(std::memory_order_relaxed);
    return true;
}

// ---- Time --------------------------------------------------------------------------------------

void sleepNs(int64_t ns) {
    const timespec pause{ns / 1000000000, ns % 1000000000};
    real::nanosleep(&pause, nullptr);
}

// Sleeps a little longer or shorter each time, so that the threads' timing always differs.
void playFor(int64_t ns) {
    static std::atomic<uint32_t> steps{0};
    const uint32_t mixed = steps.fetch_add(1, std::memory_order_relaxed) * 2654435761U;
    sleepNs(ns / kSpeed * static_cast<int64_t>(mixed >> 24) / 64);
}

void installTime() {
    hooks().usleep = [](useconds_t us) {
        sleepNs(int64_t{us} * 1000 / kSpeed);
        return 0;
    };
    hooks().sleep = [](unsigned seconds) {
        sleepNs(int64_t{seconds} * 1000000000 / kSpeed);
        return 0U;
    };
    hooks().nanosleep = [](const timespec* wanted, timespec*) {
        sleepNs((wanted->tv_sec * 1000000000 + wanted->tv_nsec) / kSpeed);
        return 0;
    };
    hooks().setsockopt = [](int fd, int level, int name, const void* value, socklen_t length) {
        timeval timeout;
        memcpy(&timeout, value, std::min(sizeof timeout, size_t{length}));
        timeout = {0, (timeout.tv_sec * 1000000 + timeout.tv_usec) / kSpeed};
        return real::setsockopt(fd, level, name, &timeout, sizeof timeout);
    };
}

// ---- Files and the app -------------------------------------------------------------------------

void installFiles() {
    hooks().open = [](const char* path, int flags) {
        if (strcmp(path, kUacUserPath) == 0) {
            return kControlFd;
        }
        if (isRefused(kOpen)) {
            return -1;
        }
        const ToOrder blind;
        return real::open(Mapped(path).path(), flags);
    };
    hooks().unlink = [](const char* path) { return real::unlink(Mapped(path).path()); };
    hooks().fopen = [](const char* path, const char* mode) {
        return real::fopen(Mapped(path).path(), mode);
    };
    hooks().write = [](int fd, const void* data, size_t size) {
        const ToOrder blind;
        return real::write(fd, data, size);
    };
    hooks().fcntl = [](int fd, int command, long argument) {
        return isRefused(kFcntl) ? -1 : real::fcntl(fd, command, argument);
    };
    hooks().bind = [](int fd, const sockaddr* address, socklen_t) {
        if (address->sa_family != AF_UNIX) {
            return 0;
        }
        const sockaddr_un moved = mapped(address);
        return real::bind(fd, reinterpret_cast<const sockaddr*>(&moved), sizeof moved);
    };
    hooks().sendto = [](int fd, const void* data, size_t size, int flags, const sockaddr* to,
                        socklen_t) -> ssize_t {
        const sockaddr_un moved = mapped(to);
        const ToOrder blind;
        return isRefused(kSendto)
                   ? -1
                   : real::sendto(fd, data, size, flags, reinterpret_cast<const sockaddr*>(&moved),
                                  sizeof moved);
    };
}

void installMemoryAndThreads() {
    hooks().strdup = [](const char* text) {
        return isRefused(kStrdup) ? nullptr : real::strdup(text);
    };
    hooks().malloc = [](size_t size) { return isRefused(kMalloc) ? nullptr : real::malloc(size); };
    hooks().pthread_create = [](pthread_t* id, const pthread_attr_t* attributes,
                                void* (*entry)(void*), void* argument) {
        return isRefused(kPthreadCreate) ? errno
                                         : real::pthread_create(id, attributes, entry, argument);
    };
}

// ---- The control device and the uevents --------------------------------------------------------

ssize_t receive(int fd, void* data, size_t size, int flags) {
    const ToOrder blind;
    return real::recvfrom(fd, data, size, flags, nullptr, nullptr);
}

ssize_t readControl(void* record, size_t size,
                    const std::function<void(const std::string&)>& obey) {
    for (;;) {
        if (isRefused(kRead)) {
            return -1;
        }
        char packet[256];
        const ssize_t got = receive(kControlFd, packet, sizeof packet, 0);
        if (got <= 0) {
            _exit(EXIT_FAILURE);  // the test has ended
        }
        const auto length = static_cast<size_t>(got) - 1;
        if (packet[0] == process::kCommand) {
            obey(std::string(packet + 1, length));
            continue;
        }
        memcpy(record, packet + 1, std::min(length, size));
        return static_cast<ssize_t>(std::min(length, size));
    }
}

int request(unsigned long code, const void* value) {
    if (isRefused(kIoctl)) {
        return -1;
    }
    char text[64];
    uint32_t number = 0;
    // The request's code holds the size of the value; the one request without a value has a null
    // pointer.
    memcpy(&number, value != nullptr ? value : &number,
           value != nullptr ? (code >> 16) & 0x3FFF : 0);
    snprintf(text, sizeof text, "ioctl %lx %u", code, number);
    outside::note(text);
    return 0;
}

ssize_t receiveUevent(msghdr* message) {
    if (isRefused(kRecvmsg)) {
        return -1;
    }
    process::UeventSender sender{};
    iovec parts[] = {{&sender, sizeof sender}, message->msg_iov[0]};
    msghdr framed{};
    framed.msg_iov = parts;
    framed.msg_iovlen = 2;
    const ssize_t got = real::recvmsg(kUeventFd, &framed, 0);
    auto* const name = static_cast<sockaddr_nl*>(message->msg_name);
    name->nl_pid = sender.pid;
    name->nl_groups = sender.groups;
    message->msg_flags = framed.msg_flags;
    return got < 0 ? got : std::max(ssize_t{0}, got - static_cast<ssize_t>(sizeof sender));
}

void installDevices(std::function<void(const std::string&)> obey) {
    hooks().recvfrom = [](int fd, void* data, size_t size, int flags, sockaddr*, socklen_t*) {
        return receive(fd, data, size, flags);
    };
    hooks().mknod = [](const char*, mode_t, dev_t) {
        errno = EEXIST;
        return -1;
    };
    hooks().read = [obey = std::move(obey)](int fd, void* data, size_t size) {
        if (fd == kControlFd) {
            return readControl(data, size, obey);
        }
        const ToOrder blind;
        return real::read(fd, data, size);
    };
    hooks().ioctl = [](int, unsigned long code, void* value) { return request(code, value); };
    hooks().socket = [](int domain, int type, int protocol) {
        return domain == AF_NETLINK ? kUeventFd : real::socket(domain, type, protocol);
    };
    hooks().recvmsg = [](int, msghdr* message, int) {
        const ToOrder blind;
        return receiveUevent(message);
    };
    hooks().system = [](const char* command) {
        outside::note(std::string("system ") + command);
        return 0;
    };
}

// ---- Sound -------------------------------------------------------------------------------------

struct Wanted {
    std::atomic<int> xruns{0};
    std::atomic<int> suspends{0};
    std::atomic<int> lags{0};
    std::atomic<bool> stalled{false};
};
Wanted wanted[2];
constexpr int64_t kLagNs = 40000000;
std::atomic<bool> cardThere{true};

void obeyWishes(snd_pcm_t* pcm) {
    Wanted& wishes =
        wanted[pcm->stream == SND_PCM_STREAM_CAPTURE ? outside::kCapture : outside::kPlayback];
    fake_alsa::stall(pcm, wishes.stalled.load(std::memory_order_relaxed));
    if (takeOne(wishes.lags)) {
        fake_alsa::advance(pcm, kLagNs);
    }
    if (takeOne(wishes.xruns)) {
        fake_alsa::setState(pcm, SND_PCM_STATE_XRUN);
    }
    if (takeOne(wishes.suspends)) {
        fake_alsa::setState(pcm, SND_PCM_STATE_SUSPENDED);
    }
    if (!cardThere.load(std::memory_order_relaxed)) {
        fake_alsa::setState(pcm, SND_PCM_STATE_DISCONNECTED);
    }
}

// The samples are copied here, outside the fake alsa-lib's lock, so that the sanitizers see how the
// daemon's buffers are used.
constexpr size_t kPeriodMax = 1024;

void installSound() {
    fake_alsa::setCards({{0, "rockchiprt5640c"}, {1, "Vexa_Gadget"}});
    auto& alsa = fake_alsa::hooks();
    alsa.wait = [](snd_pcm_t* pcm, int timeoutMs) {
        obeyWishes(pcm);
        const int64_t before = fake_alsa::elapsedNs(pcm);
        const int result = fake_alsa::device::wait(pcm, timeoutMs);
        playFor(fake_alsa::elapsedNs(pcm) - before);
        return result;
    };
    alsa.readi = [](snd_pcm_t* pcm, int16_t* samples, snd_pcm_uframes_t frames) {
        std::array<int16_t, kPeriodMax> period;
        const auto got = fake_alsa::device::readi(pcm, period.data(), frames);
        std::copy_n(period.begin(), std::max(got, snd_pcm_sframes_t{0}), samples);
        return got;
    };
    alsa.writei = [](snd_pcm_t* pcm, const int16_t* samples, snd_pcm_uframes_t frames) {
        std::array<int16_t, kPeriodMax> period;
        std::copy_n(samples, frames, period.begin());
        return fake_alsa::device::writei(pcm, period.data(), frames);
    };
}

}  // namespace

// Logs as usual, but hides from ThreadSanitizer the order in which the log's lock puts the threads.
extern "C" int __wrap___android_log_print(int priority, const char* tag, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const ToOrder blind;
    return __real___android_log_print(priority, tag, "%s", text);
}

namespace outside {

void install(const std::string& folder, std::function<void(const std::string&)> obey) {
    fake_sys::Mutex::hideFromTsan();
    fake_alsa::stopRecording();
    root() = folder;
    installTime();
    installFiles();
    installMemoryAndThreads();
    installDevices(std::move(obey));
    installSound();
}

void note(const std::string& text) {
    if (send(kNotesFd, text.data(), text.size(), MSG_NOSIGNAL) < 0) {
        _exit(EXIT_FAILURE);  // the test has ended
    }
}

bool refuse(const std::string& call, int error, int times) {
    auto* const found = std::find_if(std::begin(refusals), std::end(refusals),
                                     [&](const Refusal& each) { return call == each.call; });
    if (found == std::end(refusals)) {
        return false;
    }
    found->error.store(error, std::memory_order_relaxed);
    found->times.store(times, std::memory_order_relaxed);
    return true;
}

bool upset(const std::string& how, Stream stream) {
    Wanted& wishes = wanted[stream];
    std::atomic<int>* const wish = how == "xrun"      ? &wishes.xruns
                                   : how == "suspend" ? &wishes.suspends
                                   : how == "lag"     ? &wishes.lags
                                                      : nullptr;
    if (wish != nullptr) {
        wish->store(1, std::memory_order_relaxed);
    }
    return wish != nullptr;
}

void stall(Stream stream, bool stalled) {
    wanted[stream].stalled.store(stalled, std::memory_order_relaxed);
}

void setCardThere(bool there) {
    cardThere.store(there, std::memory_order_relaxed);
    if (there) {
        fake_alsa::setCards({{0, "rockchiprt5640c"}, {1, "Vexa_Gadget"}});
        fake_alsa::stopAnswering("snd_pcm_open");
    } else {
        fake_alsa::setCards({{0, "rockchiprt5640c"}});
        fake_alsa::answerAlways("snd_pcm_open", -ENODEV);
    }
}

}  // namespace outside
}  // namespace uafd
