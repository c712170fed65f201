// SPDX-License-Identifier: Apache-2.0
#include "bench/board/buffer_times.h"

#include <algorithm>
#include <vector>

#include "bench/board/spread_table.h"
#include "board/kit/answer_times.h"
#include "board/kit/mic_stream.h"
#include "board/kit/perf_event.h"
#include "board/kit/streaming.h"

namespace bench {
namespace {

using board::kMs;
using board::kRate;
using board::kSecond;
using board::Ns;
using board::PerfEvent;
using board::PerfScope;

constexpr Ns kLookEvery = kSecond / 10;
constexpr Ns kSettling = 3 * kSecond;
// The host's clock is so slow that it passes an app's block of 10 ms in 10 s.
constexpr char kHostClock[] = "ppb -1000000";
constexpr double kHostRate = 0.999;
constexpr char kWriteFrames[] = "cmd == 0x40184150";  // SNDRV_PCM_IOCTL_WRITEI_FRAMES

template <typename Look>
void run(Ns time, Look&& look) {
    for (const Ns end = board::now() + time; board::now() < end;) {
        board::sleepFor(kLookEvery);
        look();
    }
}

// A period's frames come one USB frame after the other: the first of them waits the longest.
void addSpeaker(Ns measured, SpreadTable* table) {
    board::Board board("speaker");
    board.start();
    board.host.command(kHostClock);
    board::Streaming streaming(&board);
    board::AnswerTimes answers(streaming.threads(), measured);
    std::vector<Ns> reads;
    for (const Ns end = board::now() + measured; board::now() < end;) {
        board::sleepFor(kLookEvery);
        answers.look();
        board.host.takeRecording();
        for (const board::HeardBlock& block : board.app->takeHeard().blocks) {
            reads.push_back(block.at);
        }
    }
    std::vector<Ns> inFifo;
    for (const Ns read : reads) {
        const auto after =
            std::upper_bound(answers.inFifoAt().begin(), answers.inFifoAt().end(), read);
        if (after != answers.inFifoAt().begin()) {
            inFifo.push_back(read - *std::prev(after));
        }
    }
    const std::vector<Ns> answered = answers.speaker().times;
    std::vector<Ns> inPcm;
    std::vector<Ns> all;
    for (size_t i = 0; i < std::min(answered.size(), inFifo.size()); ++i) {
        for (int usbFrame = 0; usbFrame < 5; ++usbFrame) {
            inPcm.push_back(usbFrame * kMs);
            all.push_back(usbFrame * kMs + answered[i] + inFifo[i]);
        }
    }
    table->add("speaker: PCM, until the period is whole", inPcm);
    table->add("speaker: daemon, from there to the FIFO", answered);
    table->add("speaker: FIFO, until the app has read it", inFifo);
    table->add("speaker: end to end, host to app", all);
}

// Every PCM write of the daemon's from the stream's start on is seen, so that the frames that the
// host records can be counted back to theirs.
void addMicrophone(Ns measured, SpreadTable* table) {
    board::Board board("microphone");
    board.start();
    PerfEvent writes = PerfEvent::traced(board::traceId("syscalls/sys_enter_ioctl"),
                                         PerfScope::processor(0), kWriteFrames);
    writes.record();
    board.host.command(kHostClock);
    board::MicStream stream(&board, board::noise);
    std::vector<Ns> writtenAt;
    const Ns from = board::now() + kSettling;
    run(kSettling + measured, [&] {
        board::append(&writtenAt, board::timesOf(writes.take()));
        stream.observe();
    });
    const Ns anchor = board.host.counter("mic.first_ns");
    std::vector<Ns> inPcm;
    std::vector<Ns> before;
    std::vector<Ns> all;
    for (const board::MicLatency& latency : stream.latencies()) {
        const auto write = static_cast<size_t>(latency.recordedAt / board::MicRecording::kFrame);
        const Ns recordedAt =
            anchor +
            static_cast<Ns>(static_cast<double>(latency.recordedAt * kSecond / kRate) / kHostRate);
        if (recordedAt < from || write >= writtenAt.size()) {
            continue;
        }
        inPcm.push_back(recordedAt - writtenAt[write]);
        before.push_back(latency.latency - inPcm.back());
        all.push_back(latency.latency);
    }
    table->add("microphone: FIFO and frame buffer", before);
    table->add("microphone: PCM", inPcm);
    table->add("microphone: end to end, app to host", all);
}

}  // namespace

void measureBufferTimes(const Options& options) {
    SpreadTable table("buffer_times", "Where a sound's time goes, in milliseconds", kMs, 3);
    addSpeaker(options.measured, &table);
    addMicrophone(options.measured, &table);
    table.publish();
}

}  // namespace bench
