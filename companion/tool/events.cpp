#include <cstdio>
#include <ctime>

#include "companion/tool/commands.h"
#include "companion/tool/session.h"
#include "companion/tool/tool.h"

namespace {

// Of each event: its subject, and what the values 0 and 1 are called; null when the value is a
// volume.
struct Words {
    const char* subject;
    const char* values[2];
};

constexpr Words kWords[] = {
    {"usb", {"disconnected", "configured"}},
    {"speaker", {"off", "on"}},
    {"microphone", {"off", "on"}},
    {"speaker volume", {nullptr, nullptr}},
    {"microphone volume", {nullptr, nullptr}},
    {"speaker", {"sounds", "muted"}},
    {"microphone", {"sounds", "muted"}},
    {"daemon", {"gone", "there"}},
};

void printTime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    printf("%s.%03ld ", text, now.tv_nsec / 1000000);
}

class Printer : public Handler {
  public:
    explicit Printer(int count) : left_(count > 0 ? count : -1) {}

    void onEvent(const uafd_event& event) override {
        if (isDone()) {
            return;
        }
        const Words& words = kWords[event.type];
        const char* value = words.values[event.value != 0 ? 1 : 0];
        printTime();
        if (value == nullptr) {
            printf("%s %d\n", words.subject, event.value);
        } else {
            printf("%s %s\n", words.subject, value);
        }
        fflush(stdout);
        --left_;
    }
    bool isDone() override { return left_ == 0; }

  private:
    int left_;  // below 0: no end
};

}  // namespace

int printEvents(const CommandLine& line) {
    Session session(line.directory);
    Printer printer(line.count);
    if (!session.open(UAFD_EVENTS)) {
        return kExitFailed;
    }
    return session.run(&printer) ? kExitDone : kExitFailed;
}
