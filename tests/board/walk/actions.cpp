// SPDX-License-Identifier: Apache-2.0
// Everything that can happen on a board.
#include <algorithm>
#include <iterator>
#include <numeric>
#include <unistd.h>
#include <vector>

#include <sys/stat.h>

#include "board/kit/uevent.h"
#include "tests/board/walk/walk.h"

namespace uafd {
namespace {

using board::App;
using board::AppOptions;
using board::kMs;

template <typename Item, size_t count>
Item pick(Walk& walk, const Item (&items)[count]) {
    return items[walk.random.below(count)];
}

// ---- Host --------------------------------------------------------------------------------------

void switchStream(Walk& walk) {
    walk.host(walk.direction() + pick(walk, {" on", " off"}));
}

void switchBothFast(Walk& walk) {
    for (int64_t i = 2 + walk.random.below(6); i > 0; --i) {
        switchStream(walk);
    }
}

void changeVolume(Walk& walk) {
    walk.host("volume " + walk.direction() + " " +
              std::to_string(walk.random.below(65536) - 32768));
}

void changeMute(Walk& walk) {
    walk.host("mute " + walk.direction() + " " + walk.number(2));
}

void changeClock(Walk& walk) {
    walk.host("ppb " + std::to_string(walk.random.below(2000001) - 1000000));
}

void stallData(Walk& walk) {
    walk.host("stall " + walk.direction() + " " + walk.number(2));
}

// ---- Control device ----------------------------------------------------------------------------

void bindOrUnbind(Walk& walk) {
    walk.host(pick(walk, {"bind", "unbind", "bind 4", "reenumerate"}));
}

void queueRawRecord(Walk& walk) {
    walk.host("record " + walk.number(8) + " " + pick(walk, {"0", "1", "65535", "2147483648"}));
}

void queueOddRecord(Walk& walk) {
    walk.host(std::string("record ") + pick(walk, {"8", "4294967295", "258", "65539"}) + " 1");
}

void queueBurst(Walk& walk) {
    walk.host("record " + std::to_string(2 + walk.random.below(7)) + " 0 " + walk.number(500));
}

void spoilReads(Walk& walk) {
    walk.host(std::string("fault read ") + pick(walk, {"0", "4", "5", "11", "19"}) +
              " after=" + walk.number(3) + " times=" + std::to_string(1 + walk.random.below(20)));
}

void shortenReads(Walk& walk) {
    walk.host("fault read_short " + walk.number(8) + " after=" + walk.number(3) +
              " times=" + std::to_string(1 + walk.random.below(3)));
}

void refuseRequests(Walk& walk) {
    walk.host(std::string("fault ") + pick(walk, {"set_volume", "set_mute"}) + " 5");
}

// ---- Sound card --------------------------------------------------------------------------------

void injure(Walk& walk) {
    walk.host(pick(walk, {"xrun ", "suspend "}) + walk.direction());
}

void injureOften(Walk& walk) {
    for (int64_t i = 1 + walk.random.below(10); i > 0; --i) {
        injure(walk);
        board::sleepFor(walk.random.below(10) * kMs);
    }
}

void refuseResumes(Walk& walk) {
    walk.host("fault " + walk.pcm() + ".resume " + pick(walk, {"11", "5"}) +
              " times=" + std::to_string(1 + walk.random.below(7)));
    walk.host("suspend " + walk.direction());
}

void spoilStart(Walk& walk) {
    walk.host("fault " + walk.pcm() + "." +
              pick(walk, {"open 5", "hw_params 5", "prepare 5", "start 5", "config 22", "access 22",
                          "format 22", "channels 22", "rate 22", "buffer 22", "period 22",
                          "other_rate 44100", "unplug 1"}) +
              " after=" + walk.number(2));
}

void removeOrAddCard(Walk& walk) {
    walk.host(pick(walk, {"card remove", "card add", "card add 3"}));
}

// ---- App ---------------------------------------------------------------------------------------

void restartApp(Walk& walk) {
    walk.endApp();
    AppOptions options;
    options.chunkBytes = pick<size_t>(walk, {96, 959, 960, 961, 1919, 1920, 1920, 1920, 4096});
    options.jitter = walk.random.below(3) * 4 * kMs;
    options.socket = walk.random.below(8) != 0;
    walk.note("chunks of " + std::to_string(options.chunkBytes) + " bytes" +
              (options.socket ? "" : ", no socket"));
    walk.startApp(options);
}

void killApp(Walk& walk) {
    walk.endApp();
}

void freezeApp(Walk& walk) {
    if (walk.app) {
        walk.app->freeze();
    }
}

void thawApp(Walk& walk) {
    if (walk.app) {
        walk.app->thaw();
    }
}

void slowApp(Walk& walk) {
    if (walk.app) {
        const bool pause = walk.random.below(3) != 0;
        const bool speaking = walk.random.flip();
        walk.note(std::string(pause ? "pauses " : "resumes ") +
                  (speaking ? "speaking" : "listening"));
        speaking ? walk.app->pauseSpeaking(pause) : walk.app->pauseListening(pause);
    }
}

void loseSocket(Walk& /*walk*/) {
    unlink(board::kSocketRx);
}

void changeFifo(Walk& walk) {
    const char* const fifo = pick(walk, {board::kFifoRx, board::kFifoTx});
    const int64_t replacement = walk.random.below(4);
    walk.note(fifo);
    unlink(fifo);
    if (replacement < 2) {
        walk.note("made again");
        mkfifo(fifo, 0666);
    } else if (replacement == 2) {
        walk.note("a file in its place");
        board::put(fifo, "");
    }
}

void sendMessage(Walk& walk) {
    const uint32_t type = pick<uint32_t>(walk, {3, 5, 7, 7, 7, 4, 0, 8, 0xFFFFFFFF});
    walk.note("type " + std::to_string(type));
    App::send({type, static_cast<uint32_t>(walk.random.below(65536))});
}

// Sends any size but 0: an empty datagram ends the daemon's receiving for good.
void sendOddDatagram(Walk& walk) {
    const size_t size = pick<size_t>(walk, {1, 2, 4, 7, 9, 12, 4096, 65000});
    walk.note(std::to_string(size) + " bytes");
    std::vector<uint32_t> words(1 + size / sizeof(uint32_t));
    words[0] = static_cast<uint32_t>(walk.random.below(9));
    App::sendBytes(words.data(), size);
}

// ---- Cable -------------------------------------------------------------------------------------

void changeUsbState(Walk& walk) {
    walk.host(std::string("usb_state ") + pick(walk, {"CONFIGURED", "DISCONNECTED", "CONNECTED"}) +
              pick(walk, {"", " quiet"}));
}

void sendUevent(Walk& walk) {
    walk.host(pick(walk, {"uevent change", "uevent add", "uevent change USB_STATE=CONFIGURED",
                          "uevent change USB_STATE=", "uevent remove USB_STATE=DISCONNECTED",
                          "foreign change USB_STATE=DISCONNECTED"}));
}

// Sends a uevent as a process; only the kernel's own count.
void forgeUevent(Walk& walk) {
    const std::string text = board::ueventText(
        pick(walk, {"change@/a SUBSYSTEM=android_usb USB_STATE=DISCONNECTED", "change@/a", "x"}));
    const auto groups = static_cast<unsigned>(1 + walk.random.below(15));
    walk.note(std::to_string(text.size()) + " bytes to groups " + std::to_string(groups));
    board::UeventSender().send(text, groups);
}

void moveCable(Walk& walk) {
    walk.host(pick(walk, {"unplug", "plug", "cable 0", "cable 1"}));
}

void failEnumeration(Walk& walk) {
    walk.host("fault enumerate 1");
    walk.host("usb_state DISCONNECTED");
}

// ---- Time --------------------------------------------------------------------------------------

void passTime(Walk& walk) {
    const board::Ns time = walk.random.below(8000) * kMs;
    walk.note(std::to_string(time / kMs) + " ms");
    board::sleepFor(time);
}

constexpr Action kActions[] = {
    {"the host switches a stream", 30, Scope::kApp, switchStream},
    {"the host switches its streams fast", 8, Scope::kApp, switchBothFast},
    {"the host changes a volume", 4, Scope::kApp, changeVolume},
    {"the host changes a mute", 4, Scope::kApp, changeMute},
    {"the host's clock changes", 3, Scope::kAll, changeClock},
    {"data stalls", 3, Scope::kAll, stallData},
    {"the gadget binds or unbinds", 6, Scope::kApp, bindOrUnbind},
    {"a raw record", 6, Scope::kAll, queueRawRecord},
    {"an odd record", 2, Scope::kAll, queueOddRecord},
    {"a burst of records", 2, Scope::kAll, queueBurst},
    {"reads fail", 4, Scope::kAll, spoilReads},
    {"reads are short", 4, Scope::kAll, shortenReads},
    {"requests are refused", 2, Scope::kAll, refuseRequests},
    {"a stream is injured", 8, Scope::kAll, injure},
    {"streams are injured often", 3, Scope::kAll, injureOften},
    {"resumes are refused", 3, Scope::kAll, refuseResumes},
    {"a start's step fails", 8, Scope::kAll, spoilStart},
    {"the card goes or comes", 4, Scope::kAll, removeOrAddCard},
    {"the app starts", 8, Scope::kApp, restartApp},
    {"the app dies", 3, Scope::kApp, killApp},
    {"the app is stopped", 4, Scope::kApp, freezeApp},
    {"the app goes on", 6, Scope::kApp, thawApp},
    {"the app is slow", 6, Scope::kApp, slowApp},
    {"the app loses its socket", 2, Scope::kApp, loseSocket},
    {"a FIFO goes or comes", 5, Scope::kApp, changeFifo},
    {"the app sends a message", 8, Scope::kApp, sendMessage},
    {"the app sends an odd datagram", 3, Scope::kApp, sendOddDatagram},
    {"the USB state changes", 4, Scope::kAll, changeUsbState},
    {"a uevent", 4, Scope::kAll, sendUevent},
    {"a forged uevent", 2, Scope::kAll, forgeUevent},
    {"the cable moves", 4, Scope::kAll, moveCable},
    {"an enumeration fails", 2, Scope::kAll, failEnumeration},
    {"time passes", 3, Scope::kApp, passTime},
};

}  // namespace

const Action& chooseAction(board::Random& random, Scope scope) {
    const auto weight = [scope](const Action& action) {
        return scope == Scope::kAll || action.scope == scope ? action.weight : 0;
    };
    const int64_t weights =
        std::accumulate(std::begin(kActions), std::end(kActions), int64_t{0},
                        [&](int64_t sum, const Action& action) { return sum + weight(action); });
    int64_t at = random.below(weights);
    const Action* action = kActions;
    while (at >= weight(*action)) {
        at -= weight(*action++);
    }
    return *action;
}

}  // namespace uafd
