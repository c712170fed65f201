// SPDX-License-Identifier: Apache-2.0
// The daemon's main job, shown: the host plays speech that the app records, the app plays speech
// that the host records, with volume, mute, a sync-up, a host whose clock runs fast and slow, and
// the cable meanwhile. Leaves WAV files, the daemon's log, a time line, the messages, latency and
// depth, what the host shows, and a summary in /out; fails with one sentence when anything is
// missing. With --stand-in the gadget and its host are the simulated ones; with --service the
// daemon of the installed package does it.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "board/demo/demo_host.h"
#include "board/kit/mic_stream.h"
#include "board/kit/service.h"
#include "board/kit/statistics.h"

namespace {

using board::FrameKind;
using board::kMicDirection;
using board::kMs;
using board::kRate;
using board::kSecond;
using board::kSpeakerDirection;
using board::Message;
using board::MicStream;
using board::Ns;
using board::Row;
using board::Samples;

constexpr char kSounds[] = "/usr/share/sounds/alsa/";
constexpr int64_t kLeadFrames = kRate / 2;    // before the host's speech: the start is held back
constexpr int64_t kSettleFrames = 2 * kRate;  // before the app's: the latency settles first
constexpr Ns kTail = 200 * kMs;
constexpr int kDriftPpm[] = {1000, -1000};
constexpr Ns kDriftTime = 7 * kSecond;  // until the latency has settled, and as long again
constexpr Ns kLatencyMin = 13 * kMs;
constexpr Ns kLatencyMax = 24 * kMs;
// The present volumes and mutes at the start, two answers to a sync-up, and both channels on and
// off once more.
constexpr size_t kOtherMessages = 4 + 2 * 3 + 4;
constexpr int64_t kHeldBackMax =
    kRate / 20;                     // before the speaker's first frame, beside the settling
constexpr int kAppsVolume = -2560;  // in 1/256 dB

void require(bool holds, const std::string& sentence) {
    if (!holds) {
        throw std::runtime_error(sentence);
    }
}

Ns durationOf(int64_t frames) {
    return frames * kSecond / kRate;
}

// What is measured of one direction.
struct DirectionResult {
    int64_t sent = 0;
    int64_t received = 0;
    int64_t heldBack = 0;        // frames before the first that was received
    int64_t lostOrRepeated = 0;  // frames
    int64_t gained = 0;          // samples, by latency control
    int64_t dropped = 0;         // samples, by latency control
    int64_t xruns = 0;
    Ns start = 0;
    board::Spread latency;
};

class MainJob {
  public:
    explicit MainJob(std::unique_ptr<board::DemoHost> demo)
        : demo(std::move(demo)), board(this->demo->board()), host(board.audioHost()) {}
    void run();

  private:
    void comeUp();
    void hostSpeaks();
    void appSpeaks();
    void letClocksDrift(MicStream* mic);
    void changeSettings();
    void pullAndPlug();
    void speakOnceMore();
    void checkMessages();
    void measureSpeaker(const board::Heard& heard);
    void measureMic(const MicStream& mic);
    void putLatencies(const MicStream& mic) const;
    void putMessages() const;
    void send(Message message);
    void report();
    std::vector<Row> table() const;
    void requireCleanDirections() const;
    Ns timeOfEvent(const std::string& what);

    const std::unique_ptr<board::DemoHost> demo;
    board::DaemonBoard& board;
    board::AudioHost& host;
    board::Timeline timeline;
    Samples hostSpeech;
    Samples appSpeech;
    DirectionResult speakerResult;
    DirectionResult micResult;
    std::vector<board::ReceivedMessage> sentMessages;  // by the app
};

void MainJob::comeUp() {
    hostSpeech = board::readWav(std::string(kSounds) + "Front_Center.wav");
    appSpeech = board::readWav(std::string(kSounds) + "Rear_Left.wav");
    board::writeWav("/out/host_played.wav", hostSpeech);
    board::writeWav("/out/app_played.wav", appSpeech);
    timeline.add(board::now(), "app", "opens its FIFOs and its socket");
    board::AppOptions quiet;
    quiet.speaks = false;
    board.start(true, quiet);
    send({7, 0});
}

void MainJob::send(Message message) {
    timeline.add(board::now(), "app", "says: " + board::meaningOf(message));
    require(board.app->send(message) == 0, "the daemon does not take the app's messages");
    sentMessages.push_back({board::now(), message});
}

void MainJob::hostSpeaks() {
    timeline.add(board::now(), "host", "plays Front_Center.wav");
    const auto frames = static_cast<int64_t>(hostSpeech.size());
    board.app->takeHeard();
    host.play(board::speech(hostSpeech, kLeadFrames));
    board::sleepFor(durationOf(kLeadFrames + frames / 2));
    demo->lookAt(kSpeakerDirection);
    changeSettings();
    board::sleepFor(durationOf(frames / 2) + kTail);
    host.stopPlaying();
    require(board.hasThreads(board::kIdleThreads), "the speaker channel does not stop");
    const board::Heard heard = board.app->takeHeard();
    board::writeWav("/out/app_heard.wav", heard.left);
    require(heard.unequalFrames == 0, "the app's left and right channels differ");
    require(board::findWhole(hostSpeech, heard.left) >= 0,
            "what the app recorded does not contain the speech that the host played");
    measureSpeaker(heard);
}

void MainJob::changeSettings() {
    host.setVolume(kSpeakerDirection, -1280);
    host.setMute(kSpeakerDirection, true);
    host.setMute(kSpeakerDirection, false);
    host.setVolume(kMicDirection, -512);
    send({3, static_cast<uint16_t>(kAppsVolume)});
    require(board::waitFor([&] { return host.volume(kSpeakerDirection) == kAppsVolume; }),
            "the app's volume does not reach the host");
    send({7, 0});
}

// Compares every frame that was heard with what was played.
void MainJob::measureSpeaker(const board::Heard& heard) {
    const board::StreamPosition position = host.position(kSpeakerDirection);
    const int64_t sent = position.frames;
    const board::Voice played = board::speech(hostSpeech, kLeadFrames);
    const int64_t first = board::find(heard.left, 0, board::render(played, 0, kRate));
    require(first >= 0, "what the app heard first is not what the host played");
    int64_t exact = 0;
    while (exact < static_cast<int64_t>(heard.left.size()) &&
           heard.left[static_cast<size_t>(exact)] == played(first + exact)) {
        ++exact;
    }
    // After the host's stop come whole periods of silence, and an unfinished period is lost.
    constexpr int64_t period = 240;
    const int64_t wanted = (sent - first) / period * period;
    speakerResult.sent = sent;
    speakerResult.received = exact;
    speakerResult.heldBack = first;
    speakerResult.lostOrRepeated = std::abs(wanted - exact);
    speakerResult.xruns = board.daemon.count("overrun...");
    speakerResult.start = heard.blocks.front().at - timeOfEvent("speaker on");
    const Ns anchor = position.timeOf(first);
    std::vector<Ns> latencies;
    for (const board::HeardBlock& block : heard.blocks) {
        const int64_t index = block.firstFrame - heard.blocks.front().firstFrame;
        if (index < exact) {
            latencies.push_back(block.at - anchor - durationOf(index));
        }
    }
    speakerResult.latency = board::spreadOf(std::move(latencies));
}

// The first of the host's with this text.
Ns MainJob::timeOfEvent(const std::string& what) {
    for (const board::TimelineEntry& entry : host.events(timeline.start)) {
        if (entry.who == "host" && entry.what == what) {
            return entry.at;
        }
    }
    throw std::runtime_error("the host did not do this: " + what);
}

void MainJob::appSpeaks() {
    timeline.add(board::now(), "app", "plays Rear_Left.wav");
    const int64_t from = board.app->nextFrame() + kSettleFrames;
    const size_t messages = board.app->messages().size();
    MicStream mic(&board, board::speech(appSpeech, from));
    mic.keepRecording();
    board.app->pauseSpeaking(false);
    require(board.waitForChannel(kMicDirection.channel, true, messages),
            "the app is not told of the microphone's stream");
    const Ns end =
        board::now() + durationOf(kSettleFrames + static_cast<int64_t>(appSpeech.size()));
    host.setMute(kMicDirection, true);
    host.setMute(kMicDirection, false);
    board::sleepUntil(end + kTail);
    demo->lookAt(kMicDirection);
    mic.observe();
    board::writeWav("/out/host_heard.wav", mic.recorded());
    require(board::findWhole(appSpeech, mic.recorded()) >= 0,
            "what the host recorded does not contain the speech that the app played");
    measureMic(mic);
    letClocksDrift(&mic);
    mic.off();
    putLatencies(mic);
}

// The app murmurs on.
void MainJob::letClocksDrift(MicStream* mic) {
    for (const int ppm : kDriftPpm) {
        host.setPpb(ppm * 1000);
        board::sleepFor(kDriftTime);
        mic->observe();
    }
    host.setPpb(0);
    require(mic->explained().count(FrameKind::kUnexplained) == 0,
            "frames were lost or repeated from app to host while the clocks drifted");
    const Ns prepared = durationOf(host.preparedFrames());
    for (const board::MicLatency& frame : mic->latencies()) {
        // At the start of a stream the frame buffer may run empty once.
        const bool isSettled = frame.recordedAt >= kSettleFrames;
        require(!isSettled || (frame.latency >= kLatencyMin + prepared &&
                               frame.latency <= kLatencyMax + prepared),
                "the latency from app to host was " + std::to_string(frame.latency / kMs) +
                    " ms, " + std::to_string(frame.recordedAt * 1000 / kRate) +
                    " ms after the recording began");
    }
}

// Every recorded frame is followed back to the samples that the app wrote.
void MainJob::measureMic(const MicStream& mic) {
    const board::MicRecording& explained = mic.explained();
    micResult.sent = mic.sentFrames();
    micResult.received = static_cast<int64_t>(mic.recorded().size());
    micResult.heldBack = explained.count(FrameKind::kSilent) * board::MicRecording::kFrame;
    micResult.lostOrRepeated =
        explained.count(FrameKind::kUnexplained) * board::MicRecording::kFrame;
    micResult.gained = explained.count(FrameKind::kStretched);
    micResult.dropped = explained.count(FrameKind::kSqueezed);
    micResult.xruns = board.daemon.count("underrun...");
    micResult.start = mic.timeToSound();
    std::vector<Ns> latencies;
    for (const board::MicLatency& latency : mic.latencies()) {
        if (latency.recordedAt >= mic.settledAt()) {
            latencies.push_back(latency.latency);
        }
    }
    micResult.latency = board::spreadOf(std::move(latencies));
}

// Latency and depth, frame by frame.
void MainJob::putLatencies(const MicStream& mic) const {
    std::string csv = "t_s,latency_ms,depth_ms,gained_samples\n";
    int64_t gained = 0;
    for (const board::MicLatency& frame : mic.latencies()) {
        gained += frame.gain;
        char line[80];
        snprintf(line, sizeof line, "%.3f,%.3f,%.3f,%lld\n",
                 static_cast<double>(frame.at - timeline.start) / kSecond,
                 static_cast<double>(frame.latency) / kMs,
                 static_cast<double>(frame.waiting) * 1000 / kRate, static_cast<long long>(gained));
        csv += line;
    }
    board::put("/out/latency.csv", csv);
}

void MainJob::putMessages() const {
    std::string csv = "t_s,from,type,data,meaning\n";
    const auto add = [&](const char* from, const std::vector<board::ReceivedMessage>& messages) {
        for (const auto& [at, message] : messages) {
            char head[64];
            snprintf(head, sizeof head, "%.3f,%s,%u,0x%08X,",
                     static_cast<double>(at - timeline.start) / kSecond, from, message.type,
                     message.data);
            csv += head + ('"' + board::meaningOf(message)) + "\"\n";
        }
    };
    add("daemon", board.app->messages());
    add("app", sentMessages);
    board::put("/out/messages.csv", csv);
}

void MainJob::pullAndPlug() {
    timeline.add(board::now(), "user", "pulls the cable");
    host.unplug();
    board::sleepFor(kSecond);
    timeline.add(board::now(), "user", "plugs the cable in");
    host.plug();
    board::sleepFor(kSecond / 2);
}

void MainJob::speakOnceMore() {
    const std::string damage = board.findDamage();
    require(damage.empty(), "after the cable was plugged in again: " + damage);
}

void MainJob::checkMessages() {
    std::vector<Message> wanted = {{0, 1}, {1, 1}, {3, 0xFB00}, {5, 1}, {5, 0}, {4, 0xFE00}, {1, 0},
                                   {2, 1}, {6, 1}, {6, 0},      {2, 0}, {0, 0}, {0, 1}};
    const std::vector<Message> atPlug = demo->toldAtPlug();
    wanted.insert(wanted.end(), atPlug.begin(), atPlug.end());
    const std::vector<Message> told = board.app->messageValues();
    auto at = told.begin();
    for (const Message& message : wanted) {
        at = std::find(at, told.end(), message);
        require(at != told.end(),
                "the app was not told, or not in order: " + board::meaningOf(message));
        ++at;
    }
    require(told.size() == kOtherMessages + wanted.size(),
            "the app was told " + std::to_string(told.size()) + " messages, not " +
                std::to_string(kOtherMessages + wanted.size()));
}

void MainJob::report() {
    timeline.addAllOf(&board);
    const std::string lines = timeline.text();
    board::put("/out/timeline.txt", lines);
    fputs(lines.c_str(), stdout);
    putMessages();
    std::vector<Row> rows = table();
    const std::vector<Row> more = demo->report();
    rows.insert(rows.end(), more.begin(), more.end());
    printf("\n%s", board::tableText(rows).c_str());
    board::put("/out/summary.json", board::tableJson(rows));
}

std::vector<Row> MainJob::table() const {
    using board::countRow;
    using board::timeRow;
    const board::Spread& a = speakerResult.latency;
    const board::Spread& b = micResult.latency;
    return {
        countRow("frames_sent", "frames sent", speakerResult.sent, micResult.sent),
        countRow("frames_received", "frames received", speakerResult.received, micResult.received),
        countRow("frames_held_back", "  before the sound, at the start", speakerResult.heldBack,
                 micResult.heldBack),
        countRow("frames_lost_or_repeated", "frames lost or repeated", speakerResult.lostOrRepeated,
                 micResult.lostOrRepeated),
        countRow("samples_gained", "samples gained by latency control", speakerResult.gained,
                 micResult.gained),
        countRow("samples_dropped", "samples dropped by latency control", speakerResult.dropped,
                 micResult.dropped),
        countRow("xruns", "xruns", speakerResult.xruns, micResult.xruns),
        timeRow("start_ms", "start to first sound, ms", speakerResult.start, micResult.start),
        timeRow("latency_min_ms", "latency, smallest, ms", a.smallest, b.smallest),
        timeRow("latency_median_ms", "latency, median, ms", a.median, b.median),
        timeRow("latency_max_ms", "latency, largest, ms", a.largest, b.largest),
        countRow("messages", "messages to the app, from the app",
                 static_cast<int64_t>(board.app->messages().size()),
                 static_cast<int64_t>(sentMessages.size())),
    };
}

void MainJob::requireCleanDirections() const {
    for (const DirectionResult* result : {&speakerResult, &micResult}) {
        const char* name = result == &speakerResult ? "from host to app" : "from app to host";
        require(result->lostOrRepeated == 0,
                std::to_string(result->lostOrRepeated) + " frames were lost or repeated " + name);
        require(result->xruns == 0, std::to_string(result->xruns) + " xruns " + name);
    }
    // A packet is under way when a stream goes on.
    const int64_t settling = (demo->settleMs() - 1) * kRate / 1000;
    require(speakerResult.heldBack >= settling,
            "the daemon was told too early that the host plays");
    require(speakerResult.heldBack <= settling + kHeldBackMax,
            "the daemon took too long to hear what the host plays");
}

void MainJob::run() {
    comeUp();
    hostSpeaks();
    appSpeaks();
    pullAndPlug();
    speakOnceMore();
    report();
    checkMessages();
    requireCleanDirections();
    const std::string fault = demo->findFault();
    require(fault.empty(), fault);
}

}  // namespace

int main(int argc, char** argv) {
    const auto has = [&](const char* option) {
        return std::find(argv + 1, argv + argc, std::string(option)) != argv + argc;
    };
    try {
        board::DaemonStarter starter;
        if (has("--service")) {
            board::joinServiceGroup();
            starter = board::startService;
        }
        MainJob(has("--stand-in") ? board::makeStandInDemo(starter) : board::makeWireDemo(starter))
            .run();
    } catch (const std::exception& failure) {
        fprintf(stderr, "run: %s\n", failure.what());
        return 1;
    }
    return 0;
}
