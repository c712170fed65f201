#include <algorithm>
#include <cstdio>

#include "companion/tool/commands.h"
#include "companion/tool/session.h"
#include "companion/tool/tool.h"
#include "companion/tool/wav.h"

namespace {

class Recorder : public Handler {
  public:
    explicit Recorder(double seconds)
        : framesMax_(seconds > 0 ? static_cast<int64_t>(seconds * UAFD_RATE) : INT64_MAX) {}

    bool open(const std::string& path) { return file_.open(path); }
    bool close() { return file_.close() && good_; }
    int64_t frames() const { return frames_; }

    void onSound(const int16_t* samples, int frames) override {
        const int64_t wanted = std::min<int64_t>(frames, framesMax_ - frames_);
        good_ = file_.write(samples, static_cast<int>(wanted));
        frames_ += wanted;
    }
    bool isDone() override { return !good_ || frames_ == framesMax_; }

  private:
    const int64_t framesMax_;
    int64_t frames_ = 0;
    bool good_ = true;
    WavWriter file_;
};

}  // namespace

int recordSpeaker(const CommandLine& line) {
    Session session(line.directory);
    Recorder recorder(line.seconds);
    if (!recorder.open(line.argument) || !session.open()) {
        return kExitFailed;
    }
    session.run(&recorder);
    const bool whole = recorder.close();
    fprintf(stderr, "%.3f s recorded\n", static_cast<double>(recorder.frames()) / UAFD_RATE);
    return whole ? kExitDone : kExitFailed;
}
