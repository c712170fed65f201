// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

#include <sys/prctl.h>
#include <sys/wait.h>

#include "bench/board/subject.h"
#include "board/kit/app.h"
#include "board/kit/files.h"
#include "board/kit/sound.h"

namespace bench {
namespace {

using board::kFifoRx;
using board::kFifoTx;

// Every peer that can be told gets the daemon's period, 240 frames, and where that is possible the
// daemon's PCM buffer: 2400 frames to capture, 720 to play. The kernel's gadget grants four periods
// to play where three are asked for.
const std::string kArecord =
    "/usr/bin/arecord -q -t raw -f S16_LE -r 48000 --period-size=240 --buffer-size=2400 ";
const std::string kAplay = "/usr/bin/aplay -q -t raw -f S16_LE -r 48000 --period-size=240 ";
// Takes the shortest period that the card has, whatever it is told.
const std::string kFfmpeg = "/usr/bin/ffmpeg -nostdin -nostats -loglevel error -fflags nobuffer ";
// Takes an eighth of its buffer, which is in bytes, for a period.
const std::string kSox = "/usr/bin/sox -q -D --buffer 3840 ";
const std::string kGst = "/usr/bin/gst-launch-1.0 -q ";
constexpr char kGstTimes[] = "latency-time=5000 provide-clock=false ";
constexpr char kGstStereo[] = "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved ";
const std::string kAlsaloop = "/usr/bin/alsaloop -f S16_LE -c 1 -r 48000 --period=240 ";

Subject toApp(const std::string& name, const std::string& text) {
    return {name, {commandOf(text, "/dev/null", kFifoRx)}, {}, true};
}

Subject fromApp(const std::string& name, const std::string& text) {
    return {name, {commandOf(text, kFifoTx)}, {}, true};
}

Subject daemon() {
    return {"uafd", {commandOf("/bench/uafd")}, {}, true};
}

// alsaloop, whose other side is the loopback card, hw:2, where the app is two programs: one hears
// substream 0, the other speaks on substream 1.
Subject loop(const std::string& name, const std::string& mode, bool speaker, bool mic) {
    Subject subject{"alsaloop, " + name, {}, {}, false};
    if (speaker) {
        subject.commands.push_back(
            commandOf(kAlsaloop + "--buffer=2400 -C hw:1 -P hw:2,0,0 -S " + mode, "/dev/null"));
        subject.helpers.push_back(commandOf(kArecord + "-c 1 -D hw:2,1,0", "/dev/null", kFifoRx));
    }
    if (mic) {
        subject.commands.push_back(
            commandOf(kAlsaloop + "--buffer=720 -C hw:2,1,1 -P hw:1 -S " + mode, "/dev/null"));
        subject.helpers.push_back(
            commandOf(kAplay + "--buffer-size=2400 -c 1 -D hw:2,0,1 " + kVoiceFile, "/dev/null"));
    }
    return subject;
}

std::vector<Subject> withLoops(std::vector<Subject> subjects, bool speaker, bool mic) {
    subjects.push_back(loop("none", "0", speaker, mic));
    subjects.push_back(loop("simple", "1", speaker, mic));
    subjects.push_back(loop("samplerate", "4", speaker, mic));
    return subjects;
}

// ---- Over USB ----------------------------------------------------------------------------------

// The least latencies with which no mode loses sound, of those that were tried: 720, 840 and 960
// frames to the app, 480 to 960 from it.
constexpr char kLoopToApp[] = "--latency=960 ";
constexpr char kLoopFromApp[] = "--latency=480 ";
const std::string kCard = "hw:UAC2Gadget";
const std::map<std::string, std::string> kStereo = {{"c_chmask", "3"}, {"p_chmask", "3"}};

// arecord and aplay on the kernel's card.
UsbSubject recordAndPlay(const std::string& name, const std::string& pcm,
                         const std::map<std::string, std::string>& attributes, size_t channels,
                         bool speaker, bool mic) {
    UsbSubject subject{name, "uac2", attributes, channels, {}, false};
    if (speaker) {
        subject.commands.push_back(commandOf(kArecord + "-c 2 -D " + pcm, "/dev/null", kFifoRx));
    }
    if (mic) {
        subject.commands.push_back(commandOf(kAplay + "--buffer-size=720 -c 2 -D " + pcm, kFifoTx));
    }
    return subject;
}

// The mode that lets the gadget's own clock follow: the speaker's with the host's packets, the
// microphone's with what the gadget sends.
constexpr char kPitch[] = "pitch";

UsbSubject usbLoop(const std::string& mode, const char* number, bool speaker, bool mic) {
    const bool isPitch = mode == kPitch;
    UsbSubject subject{"u_audio, alsaloop, " + mode, "uac2", {}, 1, {}, true};
    if (speaker) {
        subject.commands.push_back(commandOf(kAlsaloop + kLoopToApp + "-C " + kCard +
                                                 " -P hw:3,0,0 -S " +
                                                 (isPitch ? "captshift" : number),
                                             "/dev/null"));
    }
    if (mic) {
        subject.commands.push_back(commandOf(kAlsaloop + kLoopFromApp + "-C hw:3,1,1 -P " + kCard +
                                                 " -S " + (isPitch ? "playshift" : number),
                                             "/dev/null"));
    }
    return subject;
}

// ---- Processes ---------------------------------------------------------------------------------

constexpr int kPriority = 58;

// In the new process. The opening of a FIFO waits for the app.
void redirect(int descriptor, const std::string& path, int flags) {
    if (path.empty()) {
        return;
    }
    const int fd = open(path.c_str(), flags, 0644);
    if (fd < 0 || dup2(fd, descriptor) < 0) {
        _exit(126);
    }
    close(fd);
}

[[noreturn]] void become(const Command& command, const std::string& complaints, bool realtime) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const sched_param priority{realtime ? kPriority : 0};
    sched_setscheduler(0, realtime ? SCHED_FIFO : SCHED_OTHER, &priority);
    redirect(STDIN_FILENO, command.input, O_RDONLY);
    redirect(STDERR_FILENO, complaints, O_WRONLY | O_CREAT | O_APPEND);
    redirect(STDOUT_FILENO, command.output.empty() ? complaints : command.output,
             O_WRONLY | O_APPEND);
    std::vector<char*> words;
    for (const std::string& word : command.words) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    execv(words[0], words.data());
    _exit(127);
}

}  // namespace

Processes::Processes(const std::string& name, const std::vector<Command>& commands, bool realtime)
    : startedAt(board::now()) {
    std::string complaints = "/out/" + name + ".stderr";
    std::replace(complaints.begin() + 5, complaints.end(), ' ', '-');
    for (const Command& command : commands) {
        const pid_t pid = fork();
        if (pid == 0) {
            become(command, complaints, realtime);
        }
        processIds.push_back(pid);
    }
}

Processes::~Processes() {
    for (const pid_t pid : processIds) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

bool Processes::allRun() const {
    return std::all_of(processIds.begin(), processIds.end(), [](pid_t pid) {
        siginfo_t ended{};
        return waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               ended.si_pid == 0;
    });
}

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

void putVoice(int64_t samples) {
    const board::Samples noise = board::render(board::noise, 0, samples);
    board::put(kVoiceFile,
               {reinterpret_cast<const char*>(noise.data()), noise.size() * sizeof noise[0]});
}

std::vector<Subject> speakerSubjects() {
    return withLoops(
        {
            daemon(),
            toApp("minimal loop", "/bench/minimal_speaker"),
            toApp("minimal loop, state and wait", "/bench/minimal_speaker --ask"),
            {"arecord, mono",
             {commandOf(kArecord + "-c 1 -D hw:1", "/dev/null", kFifoRx)},
             {},
             false},
            toApp("arecord, plughw, stereo", kArecord + "-c 2 -D plughw:1"),
            toApp("sox", kSox + "-c 1 -r 48000 -t alsa hw:1 -c 2 -b 16 -e signed -t raw -"),
            toApp("gst-launch", kGst + "alsasrc device=hw:1 buffer-time=50000 " + kGstTimes +
                                    "! audioconvert ! " + kGstStereo + "! fdsink fd=1"),
            toApp("ffmpeg", kFfmpeg + "-f alsa -channels 1 -sample_rate 48000 "
                                      "-i hw:1 -ac 2 -f s16le pipe:1"),
        },
        true, false);
}

std::vector<Subject> micSubjects() {
    return withLoops(
        {
            daemon(),
            fromApp("minimal loop", "/bench/minimal_mic"),
            fromApp("minimal loop, state and wait", "/bench/minimal_mic --ask"),
            fromApp("minimal two threads, state and wait", "/bench/minimal_mic --two-threads"),
            fromApp("aplay, plughw, stereo", kAplay + "--buffer-size=720 -c 2 -D plughw:1"),
            fromApp("sox", kSox + "-c 2 -r 48000 -b 16 -e signed -t raw - -c 1 -t alsa hw:1"),
            fromApp("gst-launch", kGst + "fdsrc fd=0 blocksize=960 do-timestamp=true ! " +
                                      "rawaudioparse format=pcm pcm-format=s16le sample-rate=48000 "
                                      "num-channels=2 ! audioconvert ! alsasink device=hw:1 "
                                      "buffer-time=15000 sync=false " +
                                      kGstTimes),
            fromApp("ffmpeg", kFfmpeg + "-f s16le -ar 48000 -ac 2 -blocksize 1920 "
                                        "-i pipe:0 -ac 1 -f alsa hw:1"),
        },
        false, true);
}

std::vector<Subject> bothSubjects() {
    return withLoops(
        {
            daemon(),
            {"minimal loops, state and wait",
             {commandOf("/bench/minimal_speaker --ask", "/dev/null", kFifoRx),
              commandOf("/bench/minimal_mic --ask", kFifoTx)},
             {},
             true},
        },
        true, true);
}

std::vector<UsbSubject> usbSubjects(bool speaker, bool mic) {
    return {
        {"usb_f_vexa, uafd", "vexa", {}, 1, {commandOf("/bench/uafd")}, false},
        recordAndPlay("u_audio, arecord and aplay, plughw", "plughw:UAC2Gadget", {}, 1, speaker,
                      mic),
        recordAndPlay("u_audio in stereo, arecord and aplay", kCard, kStereo, 2, speaker, mic),
        usbLoop("simple", "1", speaker, mic),
        usbLoop(kPitch, "", speaker, mic),
        usbLoop("samplerate", "4", speaker, mic),
        {"usb_f_vexa, nobody", "vexa", {}, 1, {}, false},
        {"u_audio, nobody", "uac2", {}, 1, {}, false},
        {"u_audio in stereo, nobody", "uac2", kStereo, 2, {}, false},
    };
}

}  // namespace bench
