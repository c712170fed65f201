// SPDX-License-Identifier: Apache-2.0
// Shows what the daemon, the card and the app do, again and again, and disturbs none of them unless
// it is asked to be the app.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <poll.h>
#include <unistd.h>

#include "companion/tool/command.h"
#include "companion/tool/facts.h"
#include "companion/tool/level.h"
#include "companion/tool/session.h"
#include "companion/tool/terminal.h"
#include "companion/tool/top_view.h"

namespace uafd {
namespace {

constexpr size_t kPageColumns = 80;    // where there is no terminal
constexpr size_t kSecondsLength = 19;  // of a time without milliseconds

class Top final : public Command, private Handler {
  public:
    Top() noexcept
        : Command("top", "",
                  "watch daemon, card and app, beside any app and without disturbing it") {}
    int run(const std::string& argument) override;

  private:
    // Waits for the time in milliseconds, or shorter if the terminal or a signal asks for
    // something. False, with a message on standard error, when the library fails.
    bool pause(int timeMs);
    void look();
    void print() const;
    void show();

    void onSound(const int16_t* samples, int frames) override { level.add(samples, frames); }
    bool isDone() override;
    int64_t intervalNs() const { return static_cast<int64_t>(*interval * 1e9); }

    Flag once{&options, "once", "look for one interval, print what was seen, and end"};
    Flag json{&options, "json", "print a JSON object per interval; null stands for unknown"};
    Number<double> interval{
        &options, "interval", "N", 0.1, kDayS, 1, "seconds between two looks (default 1)"};
    Flag take{&options, "take",
              "take the app's place, for levels, volumes and losses; the host records silence"};
    Text sysroot{&options, "sysroot", "DIR", "look at the system whose /proc and /sys are in DIR"};

    std::optional<Watcher> watcher;
    std::optional<Terminal> terminal;
    Terminal::Input input = Terminal::kNothing;
    Session session;  // open with --take
    Level level;
    Facts facts;
};

int Top::run(const std::string& /*argument*/) {
    const char* const root = sysroot.orNull();
    watcher.emplace(root == nullptr ? "" : root);
    if (take && !session.open(UAFD_ALL)) {
        return kExitFailed;
    }
    const bool isView = !once && !json && isatty(STDOUT_FILENO) != 0;
    if (isView) {
        terminal.emplace();
    }
    bool isGood = true;
    look();
    for (int64_t due = nowNs() + intervalNs();;) {
        if (isView) {
            show();
        }
        isGood = pause(msUntil(due));
        if (!isGood || input == Terminal::kQuit || Session::wasInterrupted()) {
            break;
        }
        if (nowNs() >= due) {
            due = nowNs() + intervalNs();
            look();
            if (!isView) {
                print();
            }
            if (once) {
                break;
            }
        }
    }
    terminal.reset();
    return isGood ? kExitDone : kExitFailed;
}

bool Top::isDone() {
    input = terminal ? terminal->wait(0) : Terminal::kNothing;
    return input != Terminal::kNothing;
}

bool Top::pause(int timeMs) {
    if (take) {
        return session.run(this, std::max(timeMs, 1) / 1e3);
    }
    if (terminal) {
        input = terminal->wait(timeMs);
    } else {
        poll(nullptr, 0, timeMs);
    }
    return true;
}

void Top::look() {
    facts = watcher->look();
    if (!take) {
        return;
    }
    const uafd_counts counts = session.companion.counts();
    facts.speaker.volume = session.told(UAFD_SPEAKER_VOLUME);
    facts.speaker.muted = session.told(UAFD_SPEAKER_MUTE);
    facts.microphone.volume = session.told(UAFD_MIC_VOLUME);
    facts.microphone.muted = session.told(UAFD_MIC_MUTE);
    facts.speaker.peakDb = level.peakDb();
    facts.speaker.rmsDb = level.rmsDb();
    facts.microphone.takenBlocks = static_cast<int64_t>(counts.blocks_taken);
    facts.microphone.lostBlocks =
        static_cast<int64_t>(counts.blocks_refused + counts.blocks_unread);
    level.reset();
}

void Top::print() const {
    if (json) {
        fputs(jsonOf(facts, timeText(true)).c_str(), stdout);
    } else {
        for (const Line& line :
             viewOf(facts, timeText(false).substr(0, kSecondsLength), kPageColumns)) {
            puts(textOf(line, kPageColumns, false).c_str());
        }
        puts(once ? "" : "\n");
    }
    fflush(stdout);
}

void Top::show() {
    const char* const noColor = getenv("NO_COLOR");
    const bool isColoured = noColor == nullptr || *noColor == '\0';
    const std::string time = timeText(false).substr(0, kSecondsLength);
    const size_t columns = terminal->columns();
    const std::vector<Line> view = viewOf(facts, time, columns);
    std::vector<std::string> lines(view.size());
    std::transform(view.begin(), view.end(), lines.begin(),
                   [&](const Line& line) { return textOf(line, columns, isColoured); });
    lines.insert(lines.end(), {"", "q quits"});
    terminal->show(lines);
}

Top top;

}  // namespace
}  // namespace uafd
