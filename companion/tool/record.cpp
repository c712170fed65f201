// SPDX-License-Identifier: Apache-2.0
// Records what the host plays.
#include <cstdio>

#include "companion/tool/command.h"
#include "companion/tool/session.h"
#include "companion/tool/sound_file.h"

namespace uafd {
namespace {

class Record final : public Command, private Handler {
  public:
    Record() noexcept : Command("record", "FILE", "record what the host plays to a WAV file") {}
    int run(const std::string& file) override;

  private:
    void onSound(const int16_t* samples, int frames) override {
        isWritten = output.write(samples, frames);
        recordedFrames += frames;
    }
    bool isDone() override { return !isWritten; }

    Number<double> seconds{&options, "seconds", "N", kLeastS, kDayS, 0, kSecondsHelp};
    Flag raw{&options, "raw", "write no header: stereo, 16 bits, 48000 Hz"};
    SoundWriter output;
    int64_t recordedFrames = 0;
    bool isWritten = true;
};

// The file is opened last, so it stays as it is when another app has the speaker.
int Record::run(const std::string& file) {
    Session session;
    if (!session.open(UAFD_SPEAKER) || !output.open(file, static_cast<bool>(raw))) {
        return kExitFailed;
    }
    session.run(this, *seconds);
    isWritten = output.close() && isWritten;
    fprintf(stderr, "%.3f s recorded\n", static_cast<double>(recordedFrames) / UAFD_RATE);
    return isWritten ? kExitDone : kExitFailed;
}

Record record;

}  // namespace
}  // namespace uafd
