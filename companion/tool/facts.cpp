// SPDX-License-Identifier: Apache-2.0
#include "companion/tool/facts.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <sys/socket.h>
#include <sys/un.h>

#include "companion/tool/access.h"
#include "companion/tool/session.h"

namespace uafd {
namespace {

constexpr char kDaemonName[] = "uafd";
constexpr char kDriverName[] = "Vexa_Gadget";  // or a name that begins like this
constexpr char kGadgetState[] = "/sys/devices/virtual/android_usb/android0/state";
constexpr char kSystemd[] = "/run/systemd/system";
constexpr char kAskService[] =
    "systemctl show --property=LoadState,ActiveState,NRestarts uafd.service 2>/dev/null";

int numberIn(const std::string& text, const std::string& key) {
    return static_cast<int>(strtol(valueOf(text, key).c_str(), nullptr, 10));
}

// Whether somebody is bound to a datagram socket. Connecting sends nothing.
std::optional<bool> isBound(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || path.size() >= sizeof address.sun_path) {
        close(fd);
        return std::nullopt;
    }
    path.copy(address.sun_path, path.size());
    const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = result == 0 ? 0 : errno;
    close(fd);
    if (error == 0 || error == EPERM) {  // EPERM: it is connected to another one
        return true;
    }
    return error == ENOENT || error == ECONNREFUSED ? std::optional(false) : std::nullopt;
}

// The index of the gadget's card, or -1. Lines like " 1 [Gadget         ]: Vexa_Gadget - NAME".
int findCard(const std::string& proc) {
    for (const std::string& line : linesOf(contentsOf(proc + "/asound/cards"))) {
        const size_t driver = line.find("]: ");
        if (driver != std::string::npos && line.find(kDriverName, driver) == driver + 3) {
            return static_cast<int>(strtol(line.c_str(), nullptr, 10));
        }
    }
    return -1;
}

// `isComplete`: whether `fifo` has all of its users.
void fillEnds(const Fifo& fifo, const Facts& facts, bool isSpeaker, bool isComplete,
              StreamFacts* stream) {
    stream->hasFifo = fifo.exists;
    if (facts.daemon == Facts::kAbsent || (facts.pid != 0 && isComplete)) {
        stream->isDaemonsEndOpen = false;
    }
    stream->app = fifo.owner;
    for (const Fifo::User& user : fifo.users) {
        if (user.process.pid == facts.pid) {
            stream->isDaemonsEndOpen = true;
        } else if (!stream->app && (isSpeaker ? user.reads : user.writes)) {
            stream->app = user.process;
        }
    }
    stream->isAppKnown = stream->app || isComplete;
}

}  // namespace

const Facts& Watcher::look() {
    const int64_t now = nowNs();
    const double passedS = lookedNs == 0 ? 0 : static_cast<double>(now - lookedNs) / 1e9;
    lookedNs = now;
    before = facts;
    facts = Facts();
    facts.service = before.service;
    facts.gadget = printable(firstLineOf(root + kGadgetState));
    facts.card = findCard(proc);
    facts.speaker.pcm = lookAtPcm("pcm0c", before.speaker.pcm, passedS);
    facts.microphone.pcm = lookAtPcm("pcm0p", before.microphone.pcm, passedS);
    lookAtDaemon();
    lookAtService();
    lookAtApp();
    if (passedS > 0 && facts.process && before.process && facts.pid == before.pid) {
        facts.cpuPercent = 100 * (facts.process->cpuS - before.process->cpuS) / passedS;
    }
    return facts;
}

void Watcher::lookAtDaemon() {
    const std::optional<Process> process = findProcess(proc, kDaemonName);
    const std::optional<bool> bound = isBound(pathOf(kSocketTx));
    facts.pid = process ? process->pid : 0;
    if (process) {
        facts.process = stateOf(proc, process->pid);
    }
    if (facts.process && strchr("TtZX", facts.process->letter) != nullptr) {
        facts.daemon = Facts::kStopped;
    } else if (bound.value_or(false)) {
        facts.daemon = Facts::kRunning;
    } else if (bound) {
        facts.daemon = process ? Facts::kStarting : Facts::kAbsent;
    } else {
        facts.daemon = Facts::kUnreachable;
    }
}

// The answer can only have changed when the process has, so systemd is not asked more often.
void Watcher::lookAtService() {
    if (access((root + kSystemd).c_str(), F_OK) != 0 ||
        (facts.pid != 0 && facts.pid == serviceAskedFor)) {
        return;
    }
    facts.service.reset();
    FILE* const pipe = popen(kAskService, "re");  // NOLINT(cert-env33-c): a constant
    if (pipe == nullptr) {
        return;
    }
    char text[256];
    const size_t size = fread(text, 1, sizeof text, pipe);
    const std::string answer(text, size);
    pclose(pipe);
    serviceAskedFor = facts.pid;
    if (valueOf(answer, "LoadState") == "loaded") {
        facts.service = {valueOf(answer, "ActiveState"), numberIn(answer, "NRestarts")};
    }
}

void Watcher::lookAtApp() {
    Fifo rx(pathOf(kFifoRx));
    Fifo tx(pathOf(kFifoTx));
    const bool isComplete = findUsers(proc, {&rx, &tx});
    fillEnds(rx, facts, true, isComplete, &facts.speaker);
    fillEnds(tx, facts, false, isComplete, &facts.microphone);
    facts.takesMessages = isBound(pathOf(kSocketRx));
}

PcmFacts Watcher::lookAtPcm(const char* name, const PcmFacts& last, double passedS) const {
    PcmFacts pcm;
    if (facts.card < 0) {
        return pcm;
    }
    const std::string folder =
        proc + "/asound/card" + std::to_string(facts.card) + "/" + name + "/sub0/";
    const std::string status = contentsOf(folder + "status");
    pcm.state = valueOf(status, "state");
    pcm.restarts = last.restarts;
    if (pcm.state.empty()) {
        pcm.state = printable(firstLineOf(folder + "status"));
        return pcm;
    }
    const std::string shape = contentsOf(folder + "hw_params");
    pcm.format = valueOf(shape, "format");
    pcm.rate = numberIn(shape, "rate");
    pcm.channels = numberIn(shape, "channels");
    pcm.periodFrames = numberIn(shape, "period_size");
    pcm.bufferFrames = numberIn(shape, "buffer_size");
    pcm.movedFrames = strtoll(valueOf(status, "hw_ptr").c_str(), nullptr, 10);
    pcm.waitingFrames = strtoll(valueOf(status, "delay").c_str(), nullptr, 10);
    pcm.started = valueOf(status, "trigger_time");
    if (last.isOn() && last.started == pcm.started && passedS > 0) {
        pcm.movedPerSecond = static_cast<double>(pcm.movedFrames - last.movedFrames) / passedS;
    }
    pcm.restarts += last.isOn() && last.started != pcm.started ? 1 : 0;
    return pcm;
}

}  // namespace uafd
