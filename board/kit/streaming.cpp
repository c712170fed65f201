// SPDX-License-Identifier: Apache-2.0
#include "board/kit/streaming.h"

#include <algorithm>
#include <stdexcept>

#include "board/kit/hogs.h"

namespace board {
namespace {

constexpr Ns kSettling = 3 * kSecond;

enum DriverDirection : uint64_t { kSpeaker, kMic };  // as in the driver

constexpr Ns kPeriod = 5 * kMs;
constexpr size_t kIoctlsInPeriod = 5;                 // of the microphone's thread
constexpr char kWriteFrames[] = "cmd == 0x40184150";  // SNDRV_PCM_IOCTL_WRITEI_FRAMES
constexpr char kWholePeriod[] = "ret == 960";         // bytes that went into the FIFO

PerfEvent recorded(const char* event, pid_t tid, const char* filter) {
    PerfEvent traced = PerfEvent::traced(traceId(event), PerfScope::thread(tid), filter);
    traced.record();
    return traced;
}

// An answer belongs to the oldest earlier period end without one. An answer to a period that ended
// before the recording began is left out.
AnswerTimes::Waits waitsFor(std::vector<Ns> ends, const std::vector<Ns>& answers) {
    std::sort(ends.begin(), ends.end());  // they come from several processors
    AnswerTimes::Waits waits;
    auto end = ends.begin();
    for (const Ns answer : answers) {
        if (end != ends.end() && *end < answer) {
            waits.times.push_back(answer - *end++);
        } else if (!waits.times.empty()) {
            ++waits.unasked;
        }
    }
    waits.unanswered = ends.end() - end;
    return waits;
}

}  // namespace

Streaming::Streaming(Board* board) : board(board), player(ramp) {
    board->app->speak(ramp);
    board->host.command("speaker on");
    board->host.command("mic on");
    run(kSettling, [] {});
}

StreamingThreads Streaming::threads() {
    return {threadThatLogged("loopcnt 0, pcmRead #, fifoWrite #"),
            threadThatLogged("loopcnt 0, pcmWrite #"),
            threadThatLogged("buffer loopcnt 0, fifoRead #")};
}

void Streaming::discardSound() {
    board->app->takeHeard();
    board->host.takeRecording();
}

pid_t Streaming::threadThatLogged(const std::string& text) {
    for (const LogLine& line : board->daemon.log()) {
        if (matches(line.text, text)) {
            return line.tid;
        }
    }
    throw std::runtime_error("no thread logged " + text);
}

AnswerTimes::AnswerTimes(const StreamingThreads& threads, Ns longest)
    : toFifo(recorded("syscalls/sys_exit_write", threads.sink, kWholePeriod)),
      ioctlEnds(recorded("syscalls/sys_exit_ioctl", threads.source, "")),
      toPcm(recorded("syscalls/sys_enter_ioctl", threads.source, kWriteFrames)) {
    const TraceId end = traceKernel("period_end", "usb_board:gadget_pcm_period dir=+0($arg1):u32");
    const auto periods = static_cast<size_t>(longest / kPeriod * 11 / 10);
    for (std::vector<Ns>* times : {&toFifoAt, &toPcmAt, &speakerAt, &micAt}) {
        times->reserve(periods);
    }
    ioctlEndAt.reserve(kIoctlsInPeriod * periods);
    for (int cpu = 0; cpu < processors(); ++cpu) {
        periodEnds.push_back(PerfEvent::traced(end, PerfScope::processor(cpu)));
        periodEnds.back().record();
    }
}

void AnswerTimes::look() {
    append(&toFifoAt, timesOf(toFifo.take()));
    append(&toPcmAt, timesOf(toPcm.take()));
    append(&ioctlEndAt, timesOf(ioctlEnds.take()));
    for (PerfEvent& event : periodEnds) {
        for (const PerfSample& sample : event.take()) {
            (sample.fields[1] == kSpeaker ? speakerAt : micAt).push_back(sample.at);
        }
    }
}

AnswerTimes::Waits AnswerTimes::speaker() const {
    return waitsFor(speakerAt, toFifoAt);
}

AnswerTimes::Waits AnswerTimes::mic() const {
    std::vector<Ns> written;
    for (const Ns begin : toPcmAt) {
        const auto end = std::upper_bound(ioctlEndAt.begin(), ioctlEndAt.end(), begin);
        if (end != ioctlEndAt.end()) {
            written.push_back(*end);
        }
    }
    return waitsFor(micAt, written);
}

int64_t AnswerTimes::endedTogether() const {
    return std::count_if(speakerAt.begin(), speakerAt.end(), [this](Ns at) {
        const auto near = std::lower_bound(micAt.begin(), micAt.end(), at - kMs / 2);
        return near != micAt.end() && *near < at + kMs / 2;
    });
}

}  // namespace board
