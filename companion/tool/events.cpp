// SPDX-License-Identifier: Apache-2.0
// Prints the daemon's events as they arrive, or its present states.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "companion/tool/access.h"
#include "companion/tool/command.h"
#include "companion/tool/session.h"

namespace uafd {
namespace {

// For each event: its name in JSON, its subject, and the words for the values 0 and 1, which are
// null when the value is a volume.
struct Words {
    const char* name;
    const char* subject;
    const char* values[2];
};

constexpr Words kWords[] = {
    {"usb_state", "usb", {"disconnected", "configured"}},
    {"speaker_state", "speaker", {"off", "on"}},
    {"mic_state", "microphone", {"off", "on"}},
    {"speaker_volume", "speaker volume", {nullptr, nullptr}},
    {"mic_volume", "microphone volume", {nullptr, nullptr}},
    {"speaker_mute", "speaker", {"sounds", "muted"}},
    {"mic_mute", "microphone", {"sounds", "muted"}},
    {"daemon_state", "daemon", {"gone", "there"}},
};

constexpr char kRunning[] = "running";
constexpr char kUnreachable[] = "unreachable";  // this user may not use the daemon's files

class Events final : public Command, private Handler {
  public:
    Events() noexcept : Command("events", "", "print the daemon's messages, with the time") {}
    int run(const std::string& /*argument*/) override {
        Session session;
        return session.open(UAFD_EVENTS) && session.run(this, *seconds) ? kExitDone : kExitFailed;
    }

  private:
    void onEvent(const uafd_event& event) override;
    bool isDone() override { return *count > 0 && printed >= *count; }

    Number<int> count{&options, "count", "N", 1, 1000000, 0, "end after N events"};
    Number<double> seconds{&options, "seconds", "N", kLeastS, kDayS, 0, kSecondsHelp};
    Flag json{&options, "json", "print a JSON object per line; values are 0, 1 or a volume"};
    int printed = 0;
};

void Events::onEvent(const uafd_event& event) {
    if (isDone()) {
        return;
    }
    const Words& words = kWords[event.type];
    const char* const value = words.values[event.value != 0 ? 1 : 0];
    if (json) {
        printf("{\"time\":\"%s\",\"event\":\"%s\",\"value\":%d}\n", timeText(true).c_str(),
               words.name, event.value);
    } else {
        printf("%s %s %s\n", timeText(false).c_str(), words.subject,
               value == nullptr ? std::to_string(event.value).c_str() : value);
    }
    fflush(stdout);
    ++printed;
}

class Status final : public Command, private Handler {
  public:
    Status() noexcept : Command("status", "", "print whether a daemon runs, and its states") {}
    int run(const std::string& argument) override;

  private:
    // Asks the daemon; returns its own state in a word.
    const char* ask();
    bool isDone() override { return session.isAnswered(); }
    void print(const char* daemon) const;

    Number<double> wait{
        &options, "wait", "N", kLeastS, kDayS, 10, "seconds to wait for an answer (default 10)"};
    Flag json{&options, "json", "print a JSON object; null stands for unknown"};
    Session session;
    bool hasOtherApp = false;  // which receives the states
};

int Status::run(const std::string& /*argument*/) {
    const FoundFolder folder;
    int error = session.tryOpen(UAFD_EVENTS);
    hasOtherApp = error == -EBUSY;
    if (hasOtherApp) {
        error = session.tryOpen(0);
    }
    if (error != 0) {
        return failed("opening", uafd_companion_error_text(error));
    }
    const char* const daemon = ask();
    print(daemon);
    if (strcmp(daemon, kUnreachable) == 0) {
        failed(name, findObstacle());
    }
    if (!hasOtherApp) {
        folder.restore(true);
    }
    return strcmp(daemon, kRunning) == 0 ? kExitDone : kExitFailed;
}

const char* Status::ask() {
    switch (-session.companion.sync()) {
        case 0:
            return hasOtherApp || (session.run(this, *wait) && isDone()) ? kRunning : "silent";
        case ECONNREFUSED:
            return "absent";
        case EACCES:
            return kUnreachable;
        default:
            return "busy";
    }
}

void Status::print(const char* daemon) const {
    if (json) {
        printf("{\"daemon\":\"%s\",\"other_app\":%s", daemon, hasOtherApp ? "true" : "false");
    } else {
        printf("%-12s%s%s\n", "daemon", daemon,
               hasOtherApp ? ", another app receives the states" : "");
    }
    for (const uafd_event_type type : {UAFD_USB_STATE, UAFD_SPEAKER_STATE, UAFD_MIC_STATE}) {
        const Words& words = kWords[type];
        const std::optional<int> told = session.told(type);
        if (json) {
            printf(",\"%s\":%s", words.name, told ? std::to_string(*told).c_str() : "null");
        } else {
            printf("%-12s%s\n", words.subject, told ? words.values[*told] : "unknown");
        }
    }
    fputs(json ? "}\n" : "", stdout);
}

Events events;
Status status;

}  // namespace
}  // namespace uafd
