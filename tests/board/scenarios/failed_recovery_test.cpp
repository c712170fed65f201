// SPDX-License-Identifier: Apache-2.0
// The gadget driver refuses to restart the stream, or fails in the middle of it: the channel stops
// after three more passes, tells the app, and starts at the host's next on event.
#include "tests/board/scenarios/stream_case.h"

namespace uafd {
namespace {

using board::kMs;
using stream_log::failedPrepare;
using stream_log::failure;
using stream_log::kickStart;
using stream_log::recovery;
using stream_log::xrunMet;

class FailedRecovery : public StreamCase {
  protected:
    // The lines of `pass` in each state: in the pass that fails first, and in the three passes that
    // a stop waits for.
    template <typename Pass>
    static Lines everyPass(Pass&& pass) {
        return pass(1) + pass(2) + pass(2) + pass(2);
    }
    static Lines transferFails(int state) {
        return failure(direction(),
                       either("stopping, unexpected read error",
                              "stopping, unexpected write error(Input/output error)"),
                       state);
    }
    static Lines restartFails(int state) {
        return isSpeaker() ? failure(direction(),
                                     "stopping, ALSA failed to start: Input/output error", state)
                           : kickStart(direction()) + transferFails(state);
    }

    // The faults strike the running stream: the channel stops, with these lines in its log.
    void expectStop(const char* name, const std::vector<std::string>& faults, const Lines& log) {
        SCOPED_TRACE(name);
        board::sleepFor(100 * kMs);
        const Moment before = mark();
        for (const std::string& fault : faults) {
            fault == "xrun" ? command(fault) : arm(fault);
        }
        expectStopped(before, log);
        host.command("fault clear");
        expectStartable();
    }
};

TEST_P(FailedRecovery, StopsTheChannelUntilTheHostsNextWord) {
    switchOn();
    expectStop(
        "one prepare fails", {"prepare 5", "xrun"},
        xrunMet(direction()) + failedPrepare(direction(), "underrun", 1) + recovery(direction()));
    expectStop(
        "one prepare fails after a transfer", {"prepare 5", "transfer 32"},
        xrunMet(direction()) + failedPrepare(direction(), "underrun", 1) + recovery(direction()));
    expectStop("every prepare fails", {"prepare 5 times=0", "xrun"}, everyPass([](int state) {
                   return xrunMet(direction()) + failedPrepare(direction(), "underrun", state);
               }));
    // A playback ring that never plays is full after three writes; the driver then delays each
    // further write by a tenth of a second.
    const Lines full = kickStart(direction()) + Lines{"D UAFSRC: timeout0, rc=0"};
    expectStop("every start fails", {"start 5 times=0", "xrun"},
               recovery(direction()) + either(Lines{}, full) + everyPass(restartFails));
    expectStop("one transfer fails", {"ack 5"}, transferFails(1));
    expectStop("every transfer fails", {"ack 5 times=0"}, everyPass(transferFails));
    EXPECT_EQ(findDamage(), "");
}

INSTANTIATE_BOTH_DIRECTIONS(FailedRecovery);

}  // namespace
}  // namespace uafd
