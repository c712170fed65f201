#include <cmath>
#include <cstdio>
#include <vector>

#include "companion/tool/commands.h"
#include "companion/tool/level.h"
#include "companion/tool/session.h"
#include "companion/tool/tool.h"
#include "companion/tool/wav.h"

namespace {

constexpr double kDefaultToneHz = 1000;

// Goes on only with what the daemon has taken, so that the host hears all of it from the beginning.
class Player : public Handler {
  public:
    void fillBlock(int16_t* samples) override {
        for (int i = 0; i < UAFD_BLOCK_FRAMES; ++i) {
            samples[2 * i] = samples[2 * i + 1] = sampleAt(frame_ + i);
        }
    }
    void onBlockTaken() override { frame_ += UAFD_BLOCK_FRAMES; }

  protected:
    virtual int16_t sampleAt(int64_t frame) const = 0;
    int64_t frame() const { return frame_; }

  private:
    int64_t frame_ = 0;
};

class FilePlayer : public Player {
  public:
    bool read(const std::string& path) { return readWav(path, &left_); }
    bool isDone() override { return frame() >= size(); }

  private:
    int64_t size() const { return static_cast<int64_t>(left_.size()); }
    int16_t sampleAt(int64_t frame) const override {
        return frame < size() ? left_[static_cast<size_t>(frame)] : int16_t{0};
    }

    std::vector<int16_t> left_;
};

class TonePlayer : public Player {
  public:
    explicit TonePlayer(const CommandLine& line)
        : step_(2 * M_PI * (line.toneHz > 0 ? line.toneHz : kDefaultToneHz) / UAFD_RATE),
          amplitude_(amplitudeOf(line.levelDb)),
          frames_(line.seconds > 0 ? static_cast<int64_t>(line.seconds * UAFD_RATE) : INT64_MAX) {}
    bool isDone() override { return frame() >= frames_; }

  private:
    int16_t sampleAt(int64_t frame) const override {
        return static_cast<int16_t>(
            std::lround(amplitude_ * std::sin(step_ * static_cast<double>(frame))));
    }

    const double step_;
    const double amplitude_;
    const int64_t frames_;
};

int play(const CommandLine& line, Player* player) {
    Session session(line.directory);
    if (!session.open()) {
        return kExitFailed;
    }
    session.run(player);
    return kExitDone;
}

}  // namespace

int playAsMicrophone(const CommandLine& line) {
    if (line.argument.empty()) {
        TonePlayer player(line);
        return play(line, &player);
    }
    FilePlayer player;
    return player.read(line.argument) ? play(line, &player) : kExitFailed;
}
