// SPDX-License-Identifier: Apache-2.0
// Plays a file or a tone for the host to record.
#include <algorithm>
#include <cmath>
#include <iterator>

#include "companion/tool/command.h"
#include "companion/tool/session.h"
#include "companion/tool/sound_file.h"

namespace uafd {
namespace {

// Advances only when the daemon has accepted a block, so that the host hears everything from the
// beginning.
class Play final : public Command, private Handler {
  public:
    Play() noexcept
        : Command("play", "[FILE]", "play a WAV file, or a tone, for the host to record") {}
    int run(const std::string& file) override;

  private:
    // Loads the next block into `left`, if it is there.
    void load();
    void makeTone();

    void fillBlock(int16_t* samples) override;
    void onBlockTaken() override { load(); }
    bool isDone() override { return isFile && !isLoaded && reader.isAtEnd(); }

    Number<double> seconds{&options, "seconds", "N", kLeastS, kDayS, 0, kSecondsHelp};
    Flag raw{&options, "raw", "the file has no header: stereo, 16 bits, 48000 Hz"};
    Number<double> toneHz{
        &options, "tone", "HZ", 1, 24000, 1000, "the tone's frequency (default 1000)"};
    Number<double> levelDb{
        &options, "level", "DB", -96, 0, -12, "the tone's level, 0 is full scale (default -12)"};
    SoundReader reader;
    bool isFile = false;
    int16_t left[UAFD_BLOCK_FRAMES] = {};
    bool isLoaded = false;
    int64_t frame = 0;  // of the tone
};

int Play::run(const std::string& file) {
    isFile = !file.empty();
    Session session;
    if ((isFile && !reader.open(file, static_cast<bool>(raw))) || !session.open(UAFD_MIC)) {
        return kExitFailed;
    }
    load();
    const bool isRun = session.run(this, *seconds);
    return isRun && reader.isGood() ? kExitDone : kExitFailed;
}

void Play::load() {
    if (!isFile) {
        makeTone();
    }
    isLoaded = !isFile || reader.readBlock(left);
}

void Play::makeTone() {
    const double step = 2 * M_PI * *toneHz / UAFD_RATE;
    const double amplitude = INT16_MAX * std::pow(10, *levelDb / 20);
    std::generate(std::begin(left), std::end(left), [&] {
        return static_cast<int16_t>(
            std::lround(amplitude * std::sin(step * static_cast<double>(frame++))));
    });
}

// Silence while a pipe delivers too little.
void Play::fillBlock(int16_t* samples) {
    if (!isLoaded) {
        load();
    }
    for (size_t i = 0; isLoaded && i < UAFD_BLOCK_FRAMES; ++i) {
        samples[2 * i] = samples[2 * i + 1] = left[i];
    }
}

Play play;

}  // namespace
}  // namespace uafd
