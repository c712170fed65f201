#include "companion/tool/command_line.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

const char kUsage[] =
    R"(usage: uafd-companion COMMAND [ARGUMENT] [OPTION]...

A companion app for the command line: takes the app's place at the daemon's FIFOs and sockets.

  record FILE    write what the USB host plays into a WAV file
  play FILE      let the host record a WAV file (48000 Hz; of stereo the left channel)
  play           let the host record a tone
  loop           give the host back what it plays
  events         print what the daemon tells, with the time, until it is interrupted
  volume N       set the speaker's volume, -32768 to 32767 in the gadget driver's unit
  mute on|off    mute the speaker or let it sound
  meter          show the level of what the host plays
  latency        measure the way of a burst to the host and back, which must play what it records
  check          try everything that an app needs, while the host plays and records

  --seconds N    record, play a tone, loop or meter for so long (default: until interrupted)
  --tone HZ      the tone that play plays (default 1000)
  --level DB     its level below full scale (default -12)
  --count N      so many events, or bursts of latency (default 10)
  --volume N     the volume that check sets (default -2560)
  --wait N       how many seconds check and latency wait for what must come (default 10)
  --directory D  where the FIFOs and sockets are (default /tmp)
  --help         this

Exit status: 0 done, 1 failed or, of check, something did not pass, 2 not understood.
)";

namespace {

constexpr double kDayS = 86400;

bool readNumber(const std::string& text, double low, double high, double* value) {
    char* end = nullptr;
    const double number = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(number >= low && number <= high)) {
        return false;
    }
    *value = number;
    return true;
}

bool readOption(const std::string& name, const std::string& value, CommandLine* line) {
    if (name == "--seconds") {
        return readNumber(value, 0, kDayS, &line->seconds);
    }
    if (name == "--wait") {
        return readNumber(value, 0, kDayS, &line->waitSeconds);
    }
    if (name == "--tone") {
        return readNumber(value, 1, 24000, &line->toneHz);
    }
    if (name == "--level") {
        return readNumber(value, -96, 0, &line->levelDb);
    }
    if (name == "--count") {
        return readInt(value, 1, 1000000, &line->count);
    }
    if (name == "--volume") {
        return readInt(value, INT16_MIN, INT16_MAX, &line->volume);
    }
    line->directory = value;
    return name == "--directory";
}

bool complain(const std::string& what) {
    fprintf(stderr, "uafd-companion: %s; see uafd-companion --help\n", what.c_str());
    return false;
}

}  // namespace

bool readInt(const std::string& text, int low, int high, int* value) {
    double number = 0;
    if (!readNumber(text, low, high, &number) || number != std::floor(number)) {
        return false;
    }
    *value = static_cast<int>(number);
    return true;
}

bool readCommandLine(int argc, char** argv, CommandLine* line) {
    int words = 0;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "--help") {
            line->help = true;
        } else if (word.compare(0, 2, "--") == 0) {
            if (i + 1 == argc) {
                return complain(word + " wants a value");
            }
            const std::string value = argv[++i];
            if (!readOption(word, value, line)) {
                return complain("not understood: " + word.append(" ").append(value));
            }
        } else if (words < 2) {
            (words++ == 0 ? line->command : line->argument) = word;
        } else {
            return complain("one argument too many: " + word);
        }
    }
    return line->help || words > 0 || complain("a command is missing");
}
