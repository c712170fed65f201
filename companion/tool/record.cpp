// SPDX-License-Identifier: Apache-2.0
// Records what the host plays.
#include <cstdio>

#include "companion/tool/command.h"
#include "companion/tool/session.h"
#include "companion/tool/sound_file.h"

namespace {

class Record final : public Command, private Handler {
  public:
    Record() noexcept : Command("record", "FILE", "write what the host plays into a WAV file") {}
    int run(const std::string& file) override;

  private:
    void onSound(const int16_t* samples, int frames) override {
        isWritten_ = file_.write(samples, frames);
        frames_ += frames;
    }
    bool isDone() override { return !isWritten_; }

    Number<double> seconds_{&options, "seconds", "N", kLeastS, kDayS, 0, kSecondsHelp};
    Flag raw_{&options, "raw", "no header: stereo, 16 bits, 48000 Hz"};
    SoundWriter file_;
    int64_t frames_ = 0;
    bool isWritten_ = true;
};

// The file is touched last: not when another app has the speaker.
int Record::run(const std::string& file) {
    Session session;
    if (!session.open(UAFD_SPEAKER) || !file_.open(file, static_cast<bool>(raw_))) {
        return kExitFailed;
    }
    session.run(this, *seconds_);
    isWritten_ = file_.close() && isWritten_;
    fprintf(stderr, "%.3f s recorded\n", static_cast<double>(frames_) / UAFD_RATE);
    return isWritten_ ? kExitDone : kExitFailed;
}

Record record;

}  // namespace
