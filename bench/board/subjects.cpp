// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "bench/board/subject.h"
#include "board/kit/app.h"

namespace bench {
namespace {

using board::kFifoRx;
using board::kFifoTx;

// Every peer that can be told gets the daemon's period, 240 frames, and where that is possible the
// daemon's PCM buffer: 2400 frames to capture, 720 to play.
constexpr char kArecord[] = "/usr/bin/arecord -q -t raw -f S16_LE -r 48000 --period-size=240 ";
constexpr char kAplay[] = "/usr/bin/aplay -q -t raw -f S16_LE -r 48000 --period-size=240 ";
// Takes the shortest period that the card has, whatever it is told.
constexpr char kFfmpeg[] = "/usr/bin/ffmpeg -nostdin -nostats -loglevel error -fflags nobuffer ";
// Takes an eighth of its buffer, which is in bytes, for a period.
constexpr char kSox[] = "/usr/bin/sox -q -D --buffer 3840 ";
constexpr char kGst[] = "/usr/bin/gst-launch-1.0 -q ";
constexpr char kGstTimes[] = "latency-time=5000 provide-clock=false ";
constexpr char kGstStereo[] = "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved ";
constexpr char kAlsaloop[] = "/usr/bin/alsaloop -f S16_LE -c 1 -r 48000 --period=240 ";

Subject toApp(const std::string& name, const std::string& text) {
    return {name, {commandOf(text, "/dev/null", kFifoRx)}, {}, true};
}

Subject fromApp(const std::string& name, const std::string& text) {
    return {name, {commandOf(text, kFifoTx)}, {}, true};
}

Subject daemon() {
    return {"uafd", {commandOf("/bench/uafd")}, {}, true};
}

// The other side of alsaloop is the loopback card, hw:2, where the app is two programs: one hears
// substream 0, the other speaks on substream 1.
Command loopToApp(const std::string& mode) {
    return commandOf(kAlsaloop + std::string("--buffer=2400 -C hw:1 -P hw:2,0,0 -S ") + mode,
                     "/dev/null");
}

Command loopFromApp(const std::string& mode) {
    return commandOf(kAlsaloop + std::string("--buffer=720 -C hw:2,1,1 -P hw:1 -S ") + mode,
                     "/dev/null");
}

Command appHears() {
    return commandOf(kArecord + std::string("--buffer-size=2400 -c 1 -D hw:2,1,0"), "/dev/null",
                     kFifoRx);
}

Command appSpeaks() {
    return commandOf(kAplay + std::string("--buffer-size=2400 -c 1 -D hw:2,0,1 ") + kVoiceFile,
                     "/dev/null");
}

struct Mode {
    const char* name;
    const char* number;
};
constexpr Mode kModes[] = {{"none", "0"}, {"simple", "1"}, {"samplerate", "4"}};

}  // namespace

Command commandOf(const std::string& text, const std::string& input, const std::string& output) {
    Command made;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        made.words.push_back(word);
    }
    made.input = input;
    made.output = output;
    return made;
}

void loadLoopbackCard(int index) {
    const std::string command = "modprobe snd-aloop index=" + std::to_string(index);
    if (system(command.c_str()) != 0) {
        throw std::runtime_error("the loopback card does not load");
    }
}

std::vector<Subject> speakerSubjects() {
    std::vector<Subject> subjects{
        daemon(),
        toApp("minimal loop", "/bench/minimal_speaker"),
        toApp("minimal loop, state and wait", "/bench/minimal_speaker --ask"),
        {"arecord, mono",
         {commandOf(kArecord + std::string("--buffer-size=2400 -c 1 -D hw:1"), "/dev/null",
                    kFifoRx)},
         {},
         false},
        toApp("arecord, plughw, stereo",
              kArecord + std::string("--buffer-size=2400 -c 2 -D plughw:1")),
        toApp("sox",
              kSox + std::string("-c 1 -r 48000 -t alsa hw:1 -c 2 -b 16 -e signed -t raw -")),
        toApp("gst-launch", kGst + std::string("alsasrc device=hw:1 buffer-time=50000 ") +
                                kGstTimes + "! audioconvert ! " + kGstStereo + "! fdsink fd=1"),
        toApp("ffmpeg", kFfmpeg + std::string("-f alsa -channels 1 -sample_rate 48000 "
                                              "-i hw:1 -ac 2 -f s16le pipe:1")),
    };
    for (const Mode& mode : kModes) {
        subjects.push_back(
            {std::string("alsaloop, ") + mode.name, {loopToApp(mode.number)}, {appHears()}, false});
    }
    return subjects;
}

std::vector<Subject> micSubjects() {
    std::vector<Subject> subjects{
        daemon(),
        fromApp("minimal loop", "/bench/minimal_mic"),
        fromApp("minimal loop, state and wait", "/bench/minimal_mic --ask"),
        fromApp("minimal two threads, state and wait", "/bench/minimal_mic --two-threads"),
        fromApp("aplay, plughw, stereo",
                kAplay + std::string("--buffer-size=720 -c 2 -D plughw:1")),
        fromApp("sox",
                kSox + std::string("-c 2 -r 48000 -b 16 -e signed -t raw - -c 1 -t alsa hw:1")),
        fromApp("gst-launch", kGst + std::string("fdsrc fd=0 blocksize=960 do-timestamp=true ! ") +
                                  "rawaudioparse format=pcm pcm-format=s16le sample-rate=48000 "
                                  "num-channels=2 ! audioconvert ! alsasink device=hw:1 "
                                  "buffer-time=15000 sync=false " +
                                  kGstTimes),
        fromApp("ffmpeg", kFfmpeg + std::string("-f s16le -ar 48000 -ac 2 -blocksize 1920 "
                                                "-i pipe:0 -ac 1 -f alsa hw:1")),
    };
    for (const Mode& mode : kModes) {
        subjects.push_back({std::string("alsaloop, ") + mode.name,
                            {loopFromApp(mode.number)},
                            {appSpeaks()},
                            false});
    }
    return subjects;
}

std::vector<Subject> bothSubjects() {
    std::vector<Subject> subjects{
        daemon(),
        {"minimal loops, state and wait",
         {commandOf("/bench/minimal_speaker --ask", "/dev/null", kFifoRx),
          commandOf("/bench/minimal_mic --ask", kFifoTx)},
         {},
         true},
    };
    for (const Mode& mode : kModes) {
        subjects.push_back({std::string("alsaloop, ") + mode.name,
                            {loopToApp(mode.number), loopFromApp(mode.number)},
                            {appHears(), appSpeaks()},
                            false});
    }
    return subjects;
}

}  // namespace bench
